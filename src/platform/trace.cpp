// The scoped trace: one line per trace, to a file or standard output, and to
// a test sink. When tracing is off and no sink is set, a trace costs two
// atomic loads and nothing is formatted.
#include "platform/trace.h"

#include <errno.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex gOutputMutex;  // guards gOutputFd and keeps lines whole
int gOutputFd = -1;
bool gOwnsFd = false;
std::atomic<bool> gEnabled{false};

std::mutex gSinkMutex;
std::function<void(const char*, platform::TraceKind, const std::string&)> gSink;
std::atomic<bool> gHasSink{false};

bool anyoneListens() {
  return gEnabled.load(std::memory_order_acquire) || gHasSink.load(std::memory_order_acquire);
}

// printf formatting of any length: a stack buffer for the usual short trace,
// one exact-size allocation for a longer one.
std::string formatText(const char* fmt, va_list args) {
  char small[512];
  va_list again;
  va_copy(again, args);
  const int n = vsnprintf(small, sizeof small, fmt, args);
  if (n < 0) {
    va_end(again);
    return std::string();
  }
  if (static_cast<size_t>(n) < sizeof small) {
    va_end(again);
    return std::string(small, static_cast<size_t>(n));
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(big.data(), big.size(), fmt, again);
  va_end(again);
  big.resize(static_cast<size_t>(n));
  return big;
}

// A trace stays one line: final line ends go, inner ones become blanks.
std::string oneLine(const std::string& text) {
  std::string out = text;
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  for (char& c : out)
    if (c == '\n' || c == '\r') c = ' ';
  return out;
}

void writeLine(const char* scope, platform::TraceKind kind, const char* function, const std::string& text) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  char head[256];
  snprintf(head, sizeof head, "%lld.%06ld %s %s ", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000,
           scope ? scope : "", platform::traceKindName(kind));
  std::string line(head);
  if (function && *function) {
    line += function;
    line += ": ";
  }
  line += oneLine(text);
  line += '\n';

  std::lock_guard<std::mutex> lock(gOutputMutex);
  if (gOutputFd < 0) return;
  size_t done = 0;
  while (done < line.size()) {
    ssize_t n = ::write(gOutputFd, line.data() + done, line.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    done += static_cast<size_t>(n);
  }
}

void handToSink(const char* scope, platform::TraceKind kind, const std::string& text) {
  if (!gHasSink.load(std::memory_order_acquire)) return;
  // Called under the lock so that a sink being removed is never running.
  std::lock_guard<std::mutex> lock(gSinkMutex);
  if (gSink) gSink(scope, kind, text);
}

void trace(const CQVTraceScopeDef& def, const char* function, platform::TraceKind kind, const char* fmt,
           va_list args) {
  const std::string text = formatText(fmt, args);
  if (gEnabled.load(std::memory_order_acquire)) writeLine(def.name(), kind, function, text);
  handToSink(def.name(), kind, text);
}

}  // namespace

CQVTraceScope::CQVTraceScope(const CQVTraceScopeDef& def, const char* function) : mDef(def), mFunction(function) {}

CQVTraceScope::~CQVTraceScope() = default;

void CQVTraceScope::sendFormattedMessage(const char* fmt, ...) {
  if (!anyoneListens() || fmt == nullptr) return;
  va_list args;
  va_start(args, fmt);
  trace(mDef, mFunction, platform::TraceKind::Message, fmt, args);
  va_end(args);
}

void CQVTraceScope::sendFormattedWarning(const char* fmt, ...) {
  if (!anyoneListens() || fmt == nullptr) return;
  va_list args;
  va_start(args, fmt);
  trace(mDef, mFunction, platform::TraceKind::Warning, fmt, args);
  va_end(args);
}

void CQVTraceScope::sendFormattedError(const char* fmt, ...) {
  if (!anyoneListens() || fmt == nullptr) return;
  va_list args;
  va_start(args, fmt);
  trace(mDef, mFunction, platform::TraceKind::Error, fmt, args);
  va_end(args);
}

namespace platform {

const char* traceKindName(TraceKind kind) {
  switch (kind) {
    case TraceKind::Message:
      return "MSG";
    case TraceKind::Warning:
      return "WRN";
    case TraceKind::Error:
      return "ERR";
  }
  return "MSG";
}

bool startTrace(const std::string& target) {
  int fd = -1;
  bool owns = false;
  if (target == "-") {
    fd = STDOUT_FILENO;
  } else {
    // Appended, so that a restarted service keeps the earlier trace.
    fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    owns = true;
  }
  std::lock_guard<std::mutex> lock(gOutputMutex);
  if (gOwnsFd && gOutputFd >= 0) ::close(gOutputFd);
  gOutputFd = fd;
  gOwnsFd = owns;
  gEnabled.store(true, std::memory_order_release);
  return true;
}

void stopTrace() {
  std::lock_guard<std::mutex> lock(gOutputMutex);
  gEnabled.store(false, std::memory_order_release);
  if (gOwnsFd && gOutputFd >= 0) ::close(gOutputFd);
  gOutputFd = -1;
  gOwnsFd = false;
}

bool traceEnabled() { return gEnabled.load(std::memory_order_acquire); }

void setTraceSink(std::function<void(const char* scope, TraceKind kind, const std::string& text)> sink) {
  std::lock_guard<std::mutex> lock(gSinkMutex);
  gSink = std::move(sink);
  gHasSink.store(static_cast<bool>(gSink), std::memory_order_release);
}

}  // namespace platform
