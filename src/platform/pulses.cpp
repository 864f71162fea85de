#include "platform/pulses.h"

#include <errno.h>

namespace qnx {

int ChannelCreate(unsigned) { errno = ENOSYS; return -1; }
int ConnectAttach(uint32_t, pid_t, int, unsigned, int) { errno = ENOSYS; return -1; }
int ConnectDetach(int) { errno = ENOSYS; return -1; }
int ChannelDestroy(int) { errno = ENOSYS; return -1; }
int MsgSendPulse(int, int, int, int) { errno = ENOSYS; return -1; }
int MsgReceive(int, void*, size_t, void*) { errno = ENOSYS; return -1; }
int getprio(pid_t) { return 10; }
int timer_create(clockid_t, const struct sigevent*, timer_t*) { errno = ENOSYS; return -1; }
int timer_settime(timer_t, int, const struct itimerspec*, struct itimerspec*) { errno = ENOSYS; return -1; }
int timer_gettime(timer_t, struct itimerspec*) { errno = ENOSYS; return -1; }
int timer_delete(timer_t) { errno = ENOSYS; return -1; }
void nsec2timespec(struct timespec* ts, uint64_t ns) {
  ts->tv_sec = static_cast<time_t>(ns / 1000000000u);
  ts->tv_nsec = static_cast<long>(ns % 1000000000u);
}

}  // namespace qnx
