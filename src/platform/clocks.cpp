#include "platform/clocks.h"

#include <errno.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cctype>

namespace platform {

namespace {

int64_t clockMs(clockid_t clock) {
  struct timespec now {};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

int64_t wallClockMs() { return clockMs(CLOCK_REALTIME); }
int64_t bootClockMs() { return clockMs(CLOCK_BOOTTIME); }
int64_t monotonicMs() { return clockMs(CLOCK_MONOTONIC); }

namespace {

bootIdentity readBootId() {
  bootIdentity id{};
  // A UUID text: 32 hexadecimal digits with dashes between.
  const int fd = ::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return id;
  char text[64] = {};
  const ssize_t n = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  size_t digits = 0;
  for (ssize_t i = 0; i < n && digits < 2 * id.size(); ++i) {
    const int value = hexValue(text[i]);
    if (value < 0) continue;
    id[digits / 2] = static_cast<uint8_t>(id[digits / 2] << 4 | value);
    ++digits;
  }
  if (digits != 2 * id.size()) id.fill(0);
  return id;
}

}  // namespace

// A boot keeps its identity: read once.
bootIdentity bootId() {
  static const bootIdentity id = readBootId();
  return id;
}

void sleepRealMs(int64_t ms) {
  if (ms <= 0) return;
  struct timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace platform
