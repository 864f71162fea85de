// The clocks the service reads besides its timers: the wall clock, which a
// head unit keeps across a power cut but which may be stepped (by the user,
// the network, a battery-less clock reset); the boot clock, which counts
// from this boot, suspend included, and is never stepped; and the identity
// of this boot, which tells whether two boot clock readings can be compared.
#pragma once

#include <array>
#include <cstdint>

namespace platform {

using bootIdentity = std::array<uint8_t, 16>;

// CLOCK_REALTIME in ms since the epoch.
int64_t wallClockMs();
// CLOCK_BOOTTIME in ms since this boot.
int64_t bootClockMs();
// CLOCK_MONOTONIC in ms.
int64_t monotonicMs();
// The kernel's identity of this boot; all zero when it cannot be read.
bootIdentity bootId();
// Sleeps ms of real time (not scaled by --time-scale), retried on EINTR.
void sleepRealMs(int64_t ms);

}  // namespace platform
