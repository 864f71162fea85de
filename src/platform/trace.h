// Scoped trace. Each module has a scope definition ("ecallService_ecallMain",
// ...); each function opens a scope on it and writes messages, warnings and
// errors through it. Tracing is off unless startTrace() was called (--trace
// FILE|-); each trace is one line: monotonic time, scope, kind, text (the
// text's line ends are folded so that a trace stays one line).
#pragma once

#include <functional>
#include <string>

class CQVTraceScopeDef {
 public:
  CQVTraceScopeDef(const char* name, const char* level) : mName(name), mLevel(level) {}
  const char* name() const { return mName; }
  const char* level() const { return mLevel; }

 private:
  const char* mName;
  const char* mLevel;
};

class CQVTraceScope {
 public:
  explicit CQVTraceScope(const CQVTraceScopeDef& def, const char* function = nullptr);
  ~CQVTraceScope();
  CQVTraceScope(const CQVTraceScope&) = delete;
  CQVTraceScope& operator=(const CQVTraceScope&) = delete;

  void sendFormattedMessage(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void sendFormattedWarning(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void sendFormattedError(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

 private:
  const CQVTraceScopeDef& mDef;
  const char* mFunction;
};

namespace platform {

enum class TraceKind { Message, Warning, Error };
const char* traceKindName(TraceKind kind);  // "MSG", "WRN", "ERR"

// Starts tracing to a file, or to standard output for "-". Returns false when
// the file cannot be opened.
bool startTrace(const std::string& target);
void stopTrace();
bool traceEnabled();

// Test hook: every trace (scope name, kind, text as formatted) is also handed
// to sink, whether or not a trace file is open. An empty function removes it.
void setTraceSink(std::function<void(const char* scope, TraceKind kind, const std::string& text)> sink);

}  // namespace platform
