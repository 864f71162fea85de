// Helpers shared by the tests: a temporary root, logs, files, waits, pulses.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/trace.h"

namespace testSupport {

// A fresh folder, the platform's root while the object lives.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  const std::string& dir() const { return mDir; }
  // A path of the service ("/fs/...") under this root.
  std::string path(const std::string& absolutePath) const { return mDir + absolutePath; }

 private:
  std::string mDir;
};

// Collects every trace and system log entry made while it lives.
class LogCapture {
 public:
  struct Entry {
    std::string scope;  // trace scope, or "slog"
    std::string kind;   // "MSG", "WRN", "ERR", or the slog severity as a number
    std::string text;
  };
  LogCapture();
  ~LogCapture();
  std::vector<Entry> slogEntries() const;
  // How many trace (or slog) texts contain part.
  size_t countTrace(const std::string& part) const { return count(part, false); }
  bool hasTrace(const std::string& part) const { return count(part, false) > 0; }
  bool hasSlog(const std::string& part) const { return count(part, true) > 0; }
  void clear();

 private:
  size_t count(const std::string& part, bool slog) const;
  mutable std::mutex mMutex;
  std::vector<Entry> mEntries;
};

std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
void writeFile(const std::string& path, const std::string& content);  // creates parent folders
void makeDirs(const std::string& path);
std::vector<std::string> splitLines(const std::string& text);
// Every wait's deadline: what a loaded machine under the sanitizers may need.
inline constexpr std::chrono::milliseconds kWaitDeadline{30000};
// Re-checks pred until it holds or the deadline passes; pred's last value.
bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds deadline = kWaitDeadline);

// A channel of the test and a connection to it, for timers and pulse senders.
struct PulseChannel {
  PulseChannel();
  // The next pulse's code (its value into *value), or -1 when none came in time.
  int next(std::chrono::milliseconds deadline = kWaitDeadline, int* value = nullptr);
  // True when nothing but a pulse of the test's own, sent now, is queued.
  bool nothingQueued();
  const int chid, coid;
};

}  // namespace testSupport
