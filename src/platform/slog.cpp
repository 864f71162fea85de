// The system log: one line per entry, to standard error with the priority
// prefix the journal reads, or to syslog(3).
#include "platform/slog.h"

#include <errno.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

// Longest entry text kept (longer texts are cut). With the "<N>" prefix and
// the line end an entry stays below PIPE_BUF, so that entries written by
// concurrent threads into the journal's pipe never interleave.
constexpr size_t kSlogMaxText = 2048;
// "<N>" of the largest priority, with its terminating zero.
constexpr size_t kPrefixRoom = 8;

std::atomic<bool> gUseSyslog{false};

std::mutex gSinkMutex;
std::function<void(int, const std::string&)> gSink;
std::atomic<bool> gHasSink{false};

// Removes the final line ends and folds the others into blanks, so that an
// entry is exactly one line whatever its text holds; the new length.
size_t makeOneLine(char* text, size_t length) {
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
  for (size_t i = 0; i < length; ++i)
    if (text[i] == '\n' || text[i] == '\r') text[i] = ' ';
  return length;
}

void writeWhole(int fd, const char* line, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::write(fd, line + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report a failing log
    }
    done += static_cast<size_t>(n);
  }
}

void handToSink(int severity, const char* text, size_t length) {
  if (!gHasSink.load(std::memory_order_acquire)) return;
  // Called under the lock so that a sink being removed is never running.
  std::lock_guard<std::mutex> lock(gSinkMutex);
  if (gSink) gSink(severity, std::string(text, length));
}

}  // namespace

int slogf(int opcode, int severity, const char* fmt, ...) {
  if (fmt == nullptr) return -1;
  // The entry is formatted once, behind room for its "<N>" prefix, and
  // written as it stands: no copies on the path of every bus request.
  const int priority = platform::slogPriority(severity);
  char line[kPrefixRoom + kSlogMaxText + 2];
  const int prefix = snprintf(line, kPrefixRoom, "<%d>", priority);
  char* text = line + prefix;
  va_list args;
  va_start(args, fmt);
  const int n = vsnprintf(text, kSlogMaxText + 1, fmt, args);
  va_end(args);
  if (n < 0) return -1;
  // The text ends at its first zero, as a C string does.
  const size_t length = makeOneLine(text, strnlen(text, std::min(static_cast<size_t>(n), kSlogMaxText)));
  text[length] = '\0';

  if (gUseSyslog.load(std::memory_order_relaxed)) {
    syslog(LOG_USER | priority, "%s", text);
  } else {
    text[length] = '\n';
    writeWhole(STDERR_FILENO, line, prefix + length + 1);
  }
  handToSink(severity, text, length);
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
