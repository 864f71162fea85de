// The service frame's state, the system log line and the fatal-error exit.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "ecallMain/ecallMain.h"
#include "platform/slog.h"


namespace {
// One system log line of the service; longer texts are cut.
constexpr size_t SLOG_LINE_SIZE = 500;

serviceFrame frame;
}  // namespace

serviceFrame& ecallFrame() { return frame; }

// SIGTERM and SIGINT only record the request: the service is resident and
// keeps serving emergencies until it is killed.
void sigHandler(int sig) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  ecallFrame().requestQuit();
}

void sendtoSlog(int severity, const char* format, ...) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  char buf[SLOG_LINE_SIZE];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(buf, sizeof buf, format, args);
  va_end(args);
  if (n < 0) buf[0] = '\0';
  slogf(ECALL_SLOG_OPCODE, severity, "ecallService: %s", buf);
}

void die(const char* format, ...) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  fflush(stderr);
  SVCIPC_shutdown();
  abort();
}
