#include "watchdog/serviceWatchdog.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/clocks.h"
#include "platform/slog.h"
#include "platform/systemdNotify.h"
#include "platform/threadProgress.h"
#include "platform/trace.h"

namespace serviceWatchdog {

namespace {

const CQVTraceScopeDef watchdogTraceScope("ecallService_watchdog", "all");

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

// The manager's period is real time: --time-scale does not shorten it.
[[noreturn]] void feed(int64_t intervalMs) {
  CQVTraceScope scope(watchdogTraceScope, __func__);
  bool fed = true;
  for (;;) {
    const std::vector<std::string> stuck = platform::threadsWithoutProgress();
    if (stuck.empty()) {
      platform::notifyWatchdog();
      if (!fed) slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "ecallService: Watchdog: all watched threads go on again\n");
      fed = true;
    } else if (fed) {
      // Told once; the log is not written here, since a hung thread may hold its lock.
      slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR,
            "ecallService: Watchdog: no progress of the %s; the watchdog is no longer fed\n", joined(stuck).c_str());
      fed = false;
    }
    platform::sleepRealMs(intervalMs);
  }
}

}  // namespace

bool start() {
  CQVTraceScope scope(watchdogTraceScope, __func__);
  const uint64_t periodUs = platform::watchdogPeriodUs();
  if (periodUs == 0) return false;
  // Half the period, as the manager advises, so that one late turn is no miss.
  const int64_t intervalMs = std::max<int64_t>(static_cast<int64_t>(periodUs / 2000), 1);
  try {
    std::thread(feed, intervalMs).detach();
  } catch (const std::system_error&) {
    slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR, "ecallService: Watchdog: cannot start its thread; the watchdog is not fed\n");
    return false;
  }
  scope.sendFormattedMessage("Watchdog fed every %lld ms\n", static_cast<long long>(intervalMs));
  slogf(ECALL_SLOG_OPCODE, _SLOG_INFO,
        "ecallService: Watchdog: fed every %lld ms while the watched threads show progress\n",
        static_cast<long long>(intervalMs));
  return true;
}

}  // namespace serviceWatchdog
