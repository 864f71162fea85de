// The car's panel on HTTP: the page (panel/), the record as it grows as
// Server-Sent Events (/events, the whole record again on every connection,
// so that a page that reconnects after the car restarted starts afresh),
// the console's commands (POST /command: one line, the console's reply),
// the car's status line, and the spoken prompts' WAV files.
//
//   GET  /  /panel.css  /panel.js   the page
//   GET  /events                    text/event-stream, one record entry a "data:" line
//   POST /command                   body: one command line; 200 "ok ...", 400 "error ..."
//   GET  /status                    the "status" reply, without recording it
//   GET  /commands                  the command table (name, usage) and the impact kinds
//   GET  /speech/NAME.wav           a prompt rendered by --speak
//
// cpp-httplib does the HTTP; its worker threads run the requests and the
// event streams.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "console.h"
#include "recordLog.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace sim {

class PanelServer {
 public:
  // At most this many pages follow the car at once; a newer one ends the
  // oldest stream (a closed page is only noticed at the next entry).
  static constexpr size_t kMaxStreams = 6;
  // A command line is short; a longer body is refused unread.
  static constexpr size_t kMaxBody = 1024;

  PanelServer(Console& console, RecordLog& log, std::string speechFolder);
  ~PanelServer();
  // address: "[ADDRESS:]PORT"; loopback unless an address is given; port 0
  // takes a free port. False with the reason.
  bool start(const std::string& address, std::string& why);
  // "http://HOST:PORT/" once started.
  const std::string& url() const { return mUrl; }
  void stop();

 private:
  struct Stream {
    std::atomic<bool> ended{false};
  };
  void routes();
  void events(httplib::Response& res);
  void command(const httplib::Request& req, httplib::Response& res);
  std::shared_ptr<Stream> openStream();
  void closeStream(const std::shared_ptr<Stream>& stream);

  Console& mConsole;
  RecordLog& mLog;
  std::string mSpeechFolder;
  std::string mUrl;
  std::unique_ptr<httplib::Server> mServer;
  std::thread mThread;
  std::atomic<bool> mStopping{false};
  std::mutex mStreamsMutex;
  std::deque<std::shared_ptr<Stream>> mStreams;
};

}  // namespace sim
