// Channels, pulses and pulse-delivering timers.
//
// The service's threads talk by pulses: a thread owns a channel and blocks in
// MsgReceive on it; other threads (and timers) send it small pulses (a code
// and a value) through a connection to that channel. Pulses of one sender
// arrive in the order sent. A timer fires once; re-arming replaces the pending
// expiry; disarming does not recall a pulse already queued; timer_gettime
// reports the time left (zero once fired or disarmed). Durations handed to
// timer_settime are multiplied by the time scale (--time-scale); where waits
// are skipped (platform::skipWaits), a timer expires as it is armed.
//
// Nothing here polls: MsgReceive sleeps until a pulse is queued.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>

namespace qnx {

// Pulse header type of a received pulse.
constexpr uint16_t _PULSE_TYPE = 0;

// Index flag of ConnectAttach: a connection that is not a file descriptor.
constexpr unsigned _NTO_SIDE_CHANNEL = 0x40000000u;

// A received pulse: 16 bytes, as the service's receive buffers expect.
struct _pulse {
  uint16_t type;     // _PULSE_TYPE
  uint16_t subtype;  // 0
  int8_t code;       // the pulse code
  uint8_t zero[3];
  int32_t value;     // the pulse value (sival_int)
  int32_t scoid;     // 0
};
static_assert(sizeof(_pulse) == 16, "a pulse is 16 bytes");

// Creates a channel; returns its id (> 0) or -1 with errno set.
int ChannelCreate(unsigned flags);
// Attaches a connection to channel chid of this process; returns the
// connection id (> 0) or -1. nd and pid must be 0; index is _NTO_SIDE_CHANNEL.
int ConnectAttach(uint32_t nd, pid_t pid, int chid, unsigned index, int flags);
int ConnectDetach(int coid);
int ChannelDestroy(int chid);

// Queues a pulse on the channel of connection coid. Never blocks.
// Returns 0, or -1 with errno set (EBADF for an unknown connection).
int MsgSendPulse(int coid, int priority, int code, int value);

// Blocks until a pulse arrives on channel chid and copies it into msg
// (bytes >= sizeof(_pulse)). Returns 0 for a pulse, -1 with errno on error.
// info must be null.
int MsgReceive(int chid, void* msg, size_t bytes, void* info);

// The scheduling priority of the calling thread (pid 0).
int getprio(pid_t pid);

// Timer notification: a pulse to a connection.
constexpr int SIGEV_PULSE = 4;
struct sigevent {
  int sigev_notify;        // SIGEV_PULSE
  int sigev_coid;          // connection the pulse is sent on
  int sigev_value;         // pulse value
  int16_t sigev_code;      // pulse code
  int16_t sigev_priority;  // sender priority
};

typedef int timer_t;

// Creates a timer on clockId (CLOCK_MONOTONIC) that delivers ev when it
// expires. Returns 0 or -1.
int timer_create(clockid_t clockId, const struct sigevent* ev, timer_t* timerId);
// Arms (it_value non-zero) or disarms (it_value zero) the timer, relative to
// now (flags 0). it_interval must be zero. Returns 0 or -1.
int timer_settime(timer_t timerId, int flags, const struct itimerspec* value, struct itimerspec* oldValue);
// Time left before expiry (zero when not armed). Returns 0 or -1.
int timer_gettime(timer_t timerId, struct itimerspec* value);
int timer_delete(timer_t timerId);

// Sets ns to a timespec (the QNX helper of nanosleep).
void nsec2timespec(struct timespec* ts, uint64_t ns);

}  // namespace qnx
