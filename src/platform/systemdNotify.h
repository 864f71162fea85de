// Tells the service manager how the service is doing. Under systemd with
// Type=notify the unit counts as started only once the service says it is
// ready; with WatchdogSec= the manager also expects a sign of life at least
// that often. Started by hand (no service manager listening) it does nothing.
#pragma once

#include <cstdint>

namespace platform {

// The service is up and serving its bus name. Returns true when a service
// manager listened and was told, false when none listens or the message
// could not be sent.
bool notifyReady();

// The manager's watchdog period in microseconds (WATCHDOG_USEC, for this
// process), or 0 when no watchdog is asked for.
uint64_t watchdogPeriodUs();
// A sign of life for the manager's watchdog; true when it was sent.
bool notifyWatchdog();

}  // namespace platform
