// An AT command channel of the modem of its own, beside the one oFono
// keeps: a serial device (a path) or a TCP port (host:port). The European
// emergency call is placed on it (embeddedPhone.cpp).
//
// The channel is opened at start and, while it is not open, by each command;
// a channel that closes, fails a write or leaves a command unanswered is
// opened afresh by the next command. One thread reads it, sleeping in
// poll(): it hands the final result code to the command waiting for it, and
// the unsolicited result codes that begin with the watched text to the
// owner (on that thread). Every wait is bounded.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace headunit {

class AtChannel {
 public:
  using Unsolicited = std::function<void(const std::string& line)>;
  AtChannel(std::string where, std::string watched, Unsolicited onUnsolicited)
      : mWhere(std::move(where)), mWatched(std::move(watched)), mOnUnsolicited(std::move(onUnsolicited)) {}
  ~AtChannel() { stop(); }
  AtChannel(const AtChannel&) = delete;
  AtChannel& operator=(const AtChannel&) = delete;

  const std::string& where() const { return mWhere; }
  // Starts the reader and opens the channel once; false with the reason
  // when it cannot be opened now (a command tries again).
  bool start(std::string& why);
  void stop();
  // Sends one command line and waits up to bound for its final result
  // code: true on OK; false with the modem's answer or what went wrong.
  bool command(const std::string& line, std::chrono::milliseconds bound, std::string& why);

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  bool openLocked(std::unique_lock<std::mutex>& lock, Deadline deadline, std::string& why);
  bool writeLocked(const std::string& text, Deadline deadline, std::string& why);
  // Has the reader close the channel (only it closes, so that it never
  // polls a number that was reused).
  void dropLocked();
  void wake();
  void run();
  void take(const std::string& line);

  const std::string mWhere, mWatched;
  const Unsolicited mOnUnsolicited;
  std::mutex mMutex;  // what follows
  std::condition_variable mChanged;
  int mFd = -1, mWakeFd = -1;
  bool mBusy = false;  // a command holds the channel: one at a time
  bool mDrop = false, mStopping = false, mWaiting = false;
  std::optional<std::string> mResult;
  std::thread mThread;
};

}  // namespace headunit
