#include "platform/pps.h"

#include <errno.h>

namespace platform {

int ppsOpen(const char*, int) { errno = ENOSYS; return -1; }
ssize_t ppsRead(int, void*, size_t) { errno = ENOSYS; return -1; }
int ppsClose(int) { errno = ENOSYS; return -1; }

}  // namespace platform

pps_status_t ppsparse(char**, const char* const*, const char* const*, pps_attrib_t*, int) { return PPS_END; }
