// Readiness and watchdog notifications through libsystemd's sd_notify, which
// finds the manager's socket in NOTIFY_SOCKET and knows its abstract and
// file forms.
#include "platform/systemdNotify.h"

#include <systemd/sd-daemon.h>

namespace platform {

bool notifyReady() {
  // 0: no manager listens (started by hand); negative: the send failed.
  return sd_notify(0, "READY=1") > 0;
}

uint64_t watchdogPeriodUs() {
  uint64_t period = 0;
  // Keeps WATCHDOG_USEC in the environment; checks WATCHDOG_PID when set.
  return sd_watchdog_enabled(0, &period) > 0 ? period : 0;
}

bool notifyWatchdog() { return sd_notify(0, "WATCHDOG=1") > 0; }

}  // namespace platform
