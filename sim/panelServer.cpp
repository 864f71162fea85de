#include "panelServer.h"

#include <httplib.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "panelFiles.h"
#include "vehicleMicro.h"

namespace sim {

const PanelFile* panelFile(const std::string& name) {
  for (const PanelFile& f : panelFiles())
    if (name == f.name) return &f;
  return nullptr;
}

namespace {

const char* contentType(const std::string& name) {
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
  return "text/html; charset=utf-8";
}

// One line of printable text: no line ends, no control characters.
bool isCommandLine(const std::string& text) {
  return !text.empty() && std::none_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 && c != '\t';
  });
}

// A prompt's file name as the speaker writes it: no path, ends in .wav.
bool isWavName(const std::string& name) {
  return name.size() > 4 && name.ends_with(".wav") && name[0] != '.' &&
         std::all_of(name.begin(), name.end(), [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.'; });
}

Json::Value commandTable() {
  Json::Value table(Json::objectValue);
  table["commands"] = Json::arrayValue;
  for (const Console::Command& c : Console::commands()) {
    if (!*c.usage) continue;  // an alias
    Json::Value row(Json::objectValue);
    row["name"] = c.name;
    row["usage"] = c.usage;
    row["panel"] = c.fromPanel;
    table["commands"].append(row);
  }
  table["impactKinds"] = Json::arrayValue;
  for (const ImpactBit& kind : impactKinds()) table["impactKinds"].append(kind.letter);
  return table;
}

}  // namespace

PanelServer::PanelServer(Console& console, RecordLog& log, std::string speechFolder)
    : mConsole(console), mLog(log), mSpeechFolder(std::move(speechFolder)), mServer(new httplib::Server) {}

PanelServer::~PanelServer() { stop(); }

bool PanelServer::start(const std::string& address, std::string& why) {
  std::string host = "127.0.0.1";
  std::string port = address;
  size_t colon = address.rfind(':');
  if (colon != std::string::npos) {
    host = address.substr(0, colon);
    port = address.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  }
  char* end = nullptr;
  long number = strtol(port.c_str(), &end, 10);
  if (port.empty() || !end || *end != '\0' || number < 0 || number > 65535 || host.empty()) {
    why = "--panel needs [ADDRESS:]PORT, not " + address;
    return false;
  }
  mServer->new_task_queue = [] { return new httplib::ThreadPool(kMaxStreams + 4); };
  mServer->set_payload_max_length(kMaxBody);
  // One request a connection: no idle connection waits on the car, and the
  // car stops at once even with a page open.
  mServer->set_keep_alive_max_count(1);
  routes();
  int bound = number == 0 ? mServer->bind_to_any_port(host) : (mServer->bind_to_port(host, number) ? number : -1);
  if (bound <= 0) {
    why = "the panel cannot listen on " + host + ":" + port;
    return false;
  }
  bool v6 = host.find(':') != std::string::npos;
  mUrl = "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(bound) + "/";
  mThread = std::thread([this] { mServer->listen_after_bind(); });
  return true;
}

void PanelServer::stop() {
  if (!mThread.joinable()) return;
  mStopping = true;
  mLog.wake();
  mServer->stop();
  mThread.join();
}

void PanelServer::routes() {
  httplib::Server& s = *mServer;
  s.Get(R"(/|/(index\.html|panel\.css|panel\.js))", [](const httplib::Request& req, httplib::Response& res) {
    const PanelFile* file = panelFile(req.path == "/" ? "index.html" : req.path.substr(1));
    if (file) res.set_content(file->data, file->size, contentType(file->name));
  });
  s.Get("/events", [this](const httplib::Request&, httplib::Response& res) { events(res); });
  s.Post("/command", [this](const httplib::Request& req, httplib::Response& res) { command(req, res); });
  s.Get("/status", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(mConsole.status(), "text/plain; charset=utf-8");
  });
  s.Get("/commands", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(jsonText(commandTable()), "application/json");
  });
  s.Get(R"(/speech/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
    std::string name = req.matches[1];
    std::ifstream in(mSpeechFolder + "/" + name, std::ios::binary);
    if (mSpeechFolder.empty() || !isWavName(name) || !in) {
      res.status = 404;
      return;
    }
    std::ostringstream bytes;
    bytes << in.rdbuf();
    res.set_content(bytes.str(), "audio/wav");
  });
  // Every refusal says why in plain text.
  s.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
    if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
    std::string why = res.status == 404   ? "no such page " + req.path
                      : res.status == 413 ? "a command is at most " + std::to_string(kMaxBody) + " bytes"
                                          : res.status == 400 ? std::string("the request is not understood")
                                          : "status " + std::to_string(res.status);
    res.set_content("error " + why + "\n", "text/plain; charset=utf-8");
    return httplib::Server::HandlerResponse::Handled;
  }));
}

void PanelServer::command(const httplib::Request& req, httplib::Response& res) {
  std::string line = req.body;
  if (!line.empty() && line.back() == '\n') line.pop_back();
  std::string reply;
  if (!isCommandLine(line)) {
    reply = "error a command is one line of text";
  } else {
    bool quit = false;
    reply = mConsole.run(line, quit, true);
    if (reply.empty()) reply = "error not a command: " + line;
  }
  res.status = reply.rfind("ok", 0) == 0 ? 200 : 400;
  res.set_content(reply + "\n", "text/plain; charset=utf-8");
}

void PanelServer::events(httplib::Response& res) {
  std::shared_ptr<Stream> stream = openStream();
  auto next = std::make_shared<size_t>(0);
  res.set_header("Cache-Control", "no-store");
  res.set_chunked_content_provider(
      "text/event-stream",
      [this, stream, next](size_t offset, httplib::DataSink& sink) {
        // A page whose car restarted tries again soon.
        std::string chunk = offset == 0 ? "retry: 1000\n\n" : "";
        std::vector<std::string> lines;
        *next = mLog.waitFrom(*next, lines, [&] { return mStopping.load() || stream->ended.load(); });
        if (mStopping || stream->ended) {
          sink.done();
          return true;
        }
        for (const std::string& line : lines) chunk += "data: " + line + "\n\n";
        return sink.write(chunk.data(), chunk.size());
      },
      [this, stream](bool) { closeStream(stream); });
}

std::shared_ptr<PanelServer::Stream> PanelServer::openStream() {
  auto stream = std::make_shared<Stream>();
  std::lock_guard<std::mutex> lock(mStreamsMutex);
  mStreams.push_back(stream);
  if (mStreams.size() > kMaxStreams) {
    mStreams.front()->ended = true;
    mStreams.pop_front();
    mLog.wake();
  }
  return stream;
}

void PanelServer::closeStream(const std::shared_ptr<Stream>& stream) {
  std::lock_guard<std::mutex> lock(mStreamsMutex);
  mStreams.erase(std::remove(mStreams.begin(), mStreams.end(), stream), mStreams.end());
}

}  // namespace sim
