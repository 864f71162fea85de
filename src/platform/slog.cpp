// The system log: one line per entry, to standard error with the priority
// prefix the journal reads, or to syslog(3).
#include "platform/slog.h"

#include <errno.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

// Longest entry text kept (longer texts are cut). With the "<N>" prefix and
// the line end an entry stays below PIPE_BUF, so that entries written by
// concurrent threads into the journal's pipe never interleave.
constexpr size_t kSlogMaxText = 2048;

std::atomic<bool> gUseSyslog{false};

std::mutex gSinkMutex;
std::function<void(int, const std::string&)> gSink;
std::atomic<bool> gHasSink{false};

// Removes the final line ends and folds the others into blanks, so that an
// entry is exactly one line whatever its text holds.
void makeOneLine(std::string& text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
}

void writeWhole(int fd, const std::string& line) {
  size_t done = 0;
  while (done < line.size()) {
    ssize_t n = ::write(fd, line.data() + done, line.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report a failing log
    }
    done += static_cast<size_t>(n);
  }
}

void handToSink(int severity, const std::string& text) {
  if (!gHasSink.load(std::memory_order_acquire)) return;
  // Called under the lock so that a sink being removed is never running.
  std::lock_guard<std::mutex> lock(gSinkMutex);
  if (gSink) gSink(severity, text);
}

}  // namespace

int slogf(int opcode, int severity, const char* fmt, ...) {
  if (fmt == nullptr) return -1;
  char buffer[kSlogMaxText + 1];
  va_list args;
  va_start(args, fmt);
  const int n = vsnprintf(buffer, sizeof buffer, fmt, args);
  va_end(args);
  if (n < 0) return -1;
  std::string text(buffer);
  makeOneLine(text);

  const int priority = platform::slogPriority(severity);
  if (gUseSyslog.load(std::memory_order_relaxed)) {
    syslog(LOG_USER | priority, "%s", text.c_str());
  } else {
    writeWhole(STDERR_FILENO, "<" + std::to_string(priority) + ">" + text + "\n");
  }
  handToSink(severity, text);
  return 0;
}

namespace platform {

void useSyslog(bool on) { gUseSyslog.store(on, std::memory_order_relaxed); }

int slogPriority(int severity) {
  // Severities outside the known range are clamped to the nearest one.
  static const int kPriority[] = {LOG_EMERG, LOG_CRIT,   LOG_ERR,   LOG_WARNING,
                                  LOG_NOTICE, LOG_INFO, LOG_DEBUG, LOG_DEBUG};
  if (severity < _SLOG_SHUTDOWN) severity = _SLOG_SHUTDOWN;
  if (severity > _SLOG_DEBUG2) severity = _SLOG_DEBUG2;
  return kPriority[severity];
}

void setSlogSink(std::function<void(int severity, const std::string& text)> sink) {
  std::lock_guard<std::mutex> lock(gSinkMutex);
  gSink = std::move(sink);
  gHasSink.store(static_cast<bool>(gSink), std::memory_order_release);
}

}  // namespace platform
