// Helpers shared by the tests: a temporary root folder, capture of the trace
// and of the system log, and small file helpers.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/trace.h"

namespace testSupport {

// A fresh folder that becomes the platform's root for the life of the
// object; removed with its contents afterwards.
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
  std::vector<Entry> entries() const;
  std::vector<std::string> traces() const;  // trace texts only
  std::vector<Entry> slogEntries() const;
  // True when some trace (or slog) text contains part.
  bool hasTrace(const std::string& part) const;
  bool hasSlog(const std::string& part) const;
  size_t countTrace(const std::string& part) const;
  void clear();

 private:
  mutable std::mutex mMutex;
  std::vector<Entry> mEntries;
};

std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
void writeFile(const std::string& path, const std::string& content);  // creates parent folders
void makeDirs(const std::string& path);
std::vector<std::string> splitLines(const std::string& text);
// The deadline of every wait for an event: what a loaded machine running the
// sanitizer builds may need, far beyond any scaled duration of the service.
// A wait ends as soon as its event comes, so only a failure takes this long.
inline constexpr std::chrono::milliseconds kWaitDeadline{30000};
// Waits (by re-checking on a short period) until pred holds or the deadline
// passes; returns pred's last value.
bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds deadline = kWaitDeadline);

}  // namespace testSupport
