#include "simCore.h"

#include <time.h>

#include <memory>

#include "platform/runtime.h"

namespace sim {

std::string jsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

bool jsonParse(const std::string& text, Json::Value& value) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["stackLimit"] = 64;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  value = Json::Value();
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    value = Json::Value();
    return false;
  }
  return true;
}

std::string oneLine(const std::string& text) {
  std::string out = text;
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
}

double monotonicSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

static int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

Recorder::Recorder() : mStart(monotonicSeconds()) {}

Recorder::~Recorder() {
  if (mFile) fclose(mFile);
}

bool Recorder::open(const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  mFile = fopen(path.c_str(), "w");
  return mFile != nullptr;
}

void Recorder::record(Json::Value entry, const std::string& readable) {
  recordAt(monotonicSeconds(), std::move(entry), readable);
}

void Recorder::recordAt(double now, Json::Value entry, const std::string& readable) {
  // The time goes last, in microseconds: more digits would only be noise.
  std::string line = oneLine(jsonText(entry));
  char stampMember[48];
  snprintf(stampMember, sizeof stampMember, "%s\"t\":%.6f}\n", entry.empty() ? "" : ",", now);
  line.pop_back();  // the closing brace
  line += stampMember;
  std::lock_guard<std::mutex> lock(mMutex);
  if (mFile) {
    fputs(line.c_str(), mFile);
    fflush(mFile);  // tests read the record while it grows
  }
  if (mListener) mListener(oneLine(line));
  if (mShow && !readable.empty()) {
    char stamp[32];
    snprintf(stamp, sizeof stamp, "[%8.3f] ", now - mStart);
    printLocked(stamp + readable);
  }
}

void Recorder::show(const std::string& readable) {
  if (!mShow) return;
  char stamp[32];
  snprintf(stamp, sizeof stamp, "[%8.3f] ", monotonicSeconds() - mStart);
  std::lock_guard<std::mutex> lock(mMutex);
  printLocked(stamp + readable);
}

void Recorder::reply(const std::string& line) {
  std::lock_guard<std::mutex> lock(mMutex);
  printLocked(line);
}

void Recorder::printLocked(const std::string& line) {
  fputs(line.c_str(), stdout);
  fputc('\n', stdout);
  fflush(stdout);
}

Scheduler::Scheduler() : mThread([this] { run(); }) {}

Scheduler::~Scheduler() { stop(); }

Scheduler::Id Scheduler::after(int64_t ms, std::function<void()> fn) {
  int64_t due = monotonicNs() + platform::scaledMs(ms < 0 ? 0 : ms) * 1000000LL;
  std::lock_guard<std::mutex> lock(mMutex);
  Id id = mNext++;
  mQueue.emplace(std::make_pair(due, id), std::move(fn));
  mCond.notify_all();
  return id;
}

void Scheduler::cancel(Id id) {
  std::lock_guard<std::mutex> lock(mMutex);
  for (auto it = mQueue.begin(); it != mQueue.end(); ++it) {
    if (it->first.second == id) {
      mQueue.erase(it);
      return;
    }
  }
}

void Scheduler::stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
    mQueue.clear();
    mCond.notify_all();
  }
  if (mThread.joinable()) mThread.join();
}

void Scheduler::run() {
  std::unique_lock<std::mutex> lock(mMutex);
  while (!mStopping) {
    if (mQueue.empty()) {
      mCond.wait(lock);
      continue;
    }
    auto first = mQueue.begin();
    int64_t now = monotonicNs();
    if (first->first.first > now) {
      mCond.wait_for(lock, std::chrono::nanoseconds(first->first.first - now));
      continue;
    }
    std::function<void()> fn = std::move(first->second);
    mQueue.erase(first);
    lock.unlock();
    fn();
    lock.lock();
  }
}

std::string CarSettings::language() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mLanguage;
}

void CarSettings::setLanguage(const std::string& language) {
  std::lock_guard<std::mutex> lock(mMutex);
  mLanguage = language;
}

std::optional<std::string> CarSettings::testNumber() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mTestNumber;
}

void CarSettings::setTestNumber(std::optional<std::string> number) {
  std::lock_guard<std::mutex> lock(mMutex);
  mTestNumber = std::move(number);
}

}  // namespace sim
