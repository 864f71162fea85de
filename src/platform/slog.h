// The system log. Each entry is one line "ecallService: <text>" with its
// severity; by default written to standard error with the "<N>" priority
// prefix that the systemd journal reads (severity 2 -> <3>, 3 -> <4>,
// 5 -> <6>, ...), or to syslog(3) after useSyslog(true).
#pragma once

#include <functional>
#include <string>

#define _SLOG_SHUTDOWN 0
#define _SLOG_CRITICAL 1
#define _SLOG_ERROR 2
#define _SLOG_WARNING 3
#define _SLOG_NOTICE 4
#define _SLOG_INFO 5
#define _SLOG_DEBUG1 6
#define _SLOG_DEBUG2 7

// The service's own log code.
#define ECALL_SLOG_OPCODE 19899

// Formats and writes one entry (a line end is added when missing; embedded
// line ends are kept within the one entry). Returns 0, or -1 on error.
int slogf(int opcode, int severity, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

namespace platform {

void useSyslog(bool on);
// The syslog(3) priority of a severity.
int slogPriority(int severity);

// Test hook: every entry (severity, formatted text without the line end) is
// also handed to sink; an empty function removes it.
void setSlogSink(std::function<void(int severity, const std::string& text)> sink);

}  // namespace platform
