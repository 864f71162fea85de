#include "systemBus.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace headunit {

SystemBus::~SystemBus() {
  stop();
  if (mBus) sd_bus_flush_close_unref(mBus);
  if (mWakeFd >= 0) close(mWakeFd);
}

bool SystemBus::open(std::string& why) {
  int rc = sd_bus_open_system(&mBus);
  if (rc < 0) {
    why = std::string("cannot connect to the system bus: ") + strerror(-rc);
    mBus = nullptr;
    return false;
  }
  mWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return mWakeFd >= 0;
}

void SystemBus::start() { mThread = std::thread([this] { run(); }); }

void SystemBus::stop() {
  mStopping.store(true);
  wake();
  if (mThread.joinable()) mThread.join();
}

void SystemBus::wake() {
  if (mWakeFd < 0) return;
  uint64_t one = 1;
  (void)!write(mWakeFd, &one, sizeof one);
}

void SystemBus::setTimer(std::chrono::milliseconds delay, std::function<void(sd_bus*)> work) {
  // use() wakes the dispatcher, which then waits for the new time.
  use([&](sd_bus*) {
    mTimerDue = std::chrono::steady_clock::now() + delay;
    mTimerWork = std::move(work);
    return 0;
  });
}

int SystemBus::runTimer() {
  if (!mTimerWork) return -1;
  const auto left = mTimerDue - std::chrono::steady_clock::now();
  if (left > std::chrono::steady_clock::duration::zero())
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
  auto work = std::move(mTimerWork);
  mTimerWork = nullptr;
  work(mBus);  // may set the timer again: the loop comes back at once
  return 0;
}

void SystemBus::run() {
  while (!mStopping.load()) {
    struct pollfd fds[2] = {{-1, 0, 0}, {mWakeFd, POLLIN, 0}};
    uint64_t usec = UINT64_MAX;
    int timeoutMs = -1;
    {
      std::lock_guard<std::recursive_mutex> lock(mMutex);
      int rc;
      while ((rc = sd_bus_process(mBus, nullptr)) > 0) {
      }
      if (rc < 0) return;  // the bus is gone; the phone reports itself off
      timeoutMs = runTimer();
      fds[0].fd = sd_bus_get_fd(mBus);
      fds[0].events = static_cast<short>(sd_bus_get_events(mBus));
      sd_bus_get_timeout(mBus, &usec);
    }
    if (usec != UINT64_MAX) {
      struct timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      const uint64_t nowUsec = static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
      const int busMs = usec <= nowUsec ? 0 : static_cast<int>(std::min<uint64_t>((usec - nowUsec + 999) / 1000, INT_MAX));
      timeoutMs = timeoutMs < 0 ? busMs : std::min(timeoutMs, busMs);
    }
    if (poll(fds, 2, timeoutMs) < 0 && errno != EINTR) return;
    if (fds[1].revents) {
      uint64_t count;
      (void)!read(mWakeFd, &count, sizeof count);
    }
  }
}

}  // namespace headunit
