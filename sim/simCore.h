// The common ground of the simulated car: JSON texts as the head unit's
// services write them, the recorder that keeps one JSON line per event (and
// shows readable lines to a person), the scheduler that runs the car's paced
// events (ringing, speaking, answering) on one thread, and the settings that
// several simulated services read.
#pragma once

#include <json/json.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sim {

// Compact JSON, members in byte order of their names, one trailing line end:
// the form every head-unit service answers with.
std::string jsonText(const Json::Value& value);
// Lenient parse; a text that does not parse gives null and false.
bool jsonParse(const std::string& text, Json::Value& value);
// The JSON text without its trailing line end, for readable lines.
std::string oneLine(const std::string& text);

// Seconds on the monotonic clock.
double monotonicSeconds();

// One JSON object per line in the record file; with show, a readable line per
// event on standard output. Console replies share standard output, so every
// writer goes through one lock and lines never mix.
class Recorder {
 public:
  Recorder();
  ~Recorder();
  bool open(const std::string& path);
  void setShow(bool show) { mShow = show; }
  bool showing() const { return mShow; }
  // Adds "t" and writes the entry; shows readable (when not empty).
  void record(Json::Value entry, const std::string& readable);
  // The same with "t" taken by the caller (monotonicSeconds()).
  void recordAt(double at, Json::Value entry, const std::string& readable);
  // A readable line only (nothing recorded).
  void show(const std::string& readable);
  // A console reply ("ok ..." / "error ..."), always printed.
  void reply(const std::string& line);
  // Also hands every recorded line (JSON, no line end) to listener, in
  // record order; set before the car starts.
  void setListener(std::function<void(const std::string&)> listener) { mListener = std::move(listener); }

 private:
  void printLocked(const std::string& line);
  std::mutex mMutex;
  FILE* mFile = nullptr;
  bool mShow = false;
  double mStart;
  std::function<void(const std::string&)> mListener;
};

// Runs functions at a later time on its own thread. Delays are the car's own
// durations in milliseconds and are shortened by --time-scale like the
// service's. Functions due at the same time run in the order scheduled.
class Scheduler {
 public:
  using Id = uint64_t;
  Scheduler();
  ~Scheduler();
  Id after(int64_t ms, std::function<void()> fn);
  void cancel(Id id);
  void stop();

 private:
  void run();
  std::mutex mMutex;
  std::condition_variable mCond;
  // (due time in ns, sequence) -> function
  std::map<std::pair<int64_t, Id>, std::function<void()>> mQueue;
  Id mNext = 1;
  bool mStopping = false;
  std::thread mThread;
};

// Car settings read by more than one simulated service.
class CarSettings {
 public:
  std::string language() const;
  void setLanguage(const std::string& language);
  // The test number of the vehicle configuration (none: not configured),
  // and the test line the phone reaches when it dials it.
  std::optional<std::string> testNumber() const;
  void setTestNumber(std::optional<std::string> number);

 private:
  mutable std::mutex mMutex;
  std::string mLanguage = "en_US";
  std::optional<std::string> mTestNumber = "5550100";
};

// What every simulated part is given.
struct SimContext {
  Recorder& recorder;
  Scheduler& scheduler;
  CarSettings& settings;
  std::string busAddress;
};

}  // namespace sim
