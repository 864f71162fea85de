// The service's watchdog: while the service manager asks for a sign of life
// (WatchdogSec= of the unit), it gives one every half period, but only
// while every watched thread (the state machine, the bus thread, the input
// readers) shows progress. A hung thread stops the signs, and the manager
// restarts the service. Without a watchdog in the environment nothing runs
// and nothing wakes up.
#pragma once

namespace serviceWatchdog {

// Starts the watchdog thread when the manager asks for one; true when it runs.
bool start();

}  // namespace serviceWatchdog
