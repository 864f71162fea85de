// Channels, pulses and pulse-delivering timers, within one process.
//
// A channel is a queue of pulses guarded by a mutex, with a condition
// variable its receiver sleeps on. Connections name a channel. Timers live in
// one table served by a single timer thread that sleeps until the earliest
// deadline (or a change of the table) and, on expiry, disarms the timer and
// queues its pulse in the same step, so that a re-arm or a disarm made after
// the expiry never loses or duplicates the pulse.
#include "platform/pulses.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/runtime.h"

namespace qnx {

namespace {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC

constexpr int64_t kNsPerSec = 1000000000;
// Priority reported for a thread under the ordinary time-sharing policy.
constexpr int kDefaultPriority = 10;

struct Channel {
  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<_pulse> queue;
  bool destroyed = false;
};

// Channels and connections of the process. Ids only grow, so a stale id
// never reaches a newer channel.
struct Tables {
  std::mutex mutex;
  std::map<int, std::shared_ptr<Channel>> channels;
  std::map<int, std::shared_ptr<Channel>> connections;
  int nextChannelId = 1;
  int nextConnectionId = 1;
};

Tables& tables() {
  static Tables* t = new Tables;  // never destroyed: threads may use it at exit
  return *t;
}

std::shared_ptr<Channel> findChannel(int chid) {
  Tables& t = tables();
  std::lock_guard<std::mutex> lock(t.mutex);
  auto it = t.channels.find(chid);
  return it == t.channels.end() ? nullptr : it->second;
}

std::shared_ptr<Channel> findConnection(int coid) {
  Tables& t = tables();
  std::lock_guard<std::mutex> lock(t.mutex);
  auto it = t.connections.find(coid);
  return it == t.connections.end() ? nullptr : it->second;
}

int queuePulse(int coid, int code, int value) {
  std::shared_ptr<Channel> channel = findConnection(coid);
  if (!channel) {
    errno = EBADF;
    return -1;
  }
  _pulse pulse{};
  pulse.type = _PULSE_TYPE;
  pulse.code = static_cast<int8_t>(code);
  pulse.value = value;
  {
    std::lock_guard<std::mutex> lock(channel->mutex);
    if (channel->destroyed) {
      errno = ESRCH;
      return -1;
    }
    channel->queue.push_back(pulse);
  }
  channel->arrived.notify_one();
  return 0;
}

// ---- timers ----

struct Timer {
  struct sigevent event;
  bool armed = false;
  Clock::time_point deadline;
  int64_t requestedNs = 0;  // as the caller asked, before scaling
  int64_t scaledNs = 0;     // what is really waited for
};

struct TimerTable {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<int, Timer> timers;
  int nextId = 1;
  bool threadStarted = false;
};

TimerTable& timerTable() {
  static TimerTable* t = new TimerTable;  // never destroyed: its thread runs until exit
  return *t;
}

// Fires every expired timer; returns the earliest pending deadline, if any.
bool fireExpired(TimerTable& t, Clock::time_point now, Clock::time_point& next) {
  bool pending = false;
  for (auto& [id, timer] : t.timers) {
    if (!timer.armed) continue;
    if (timer.deadline <= now) {
      timer.armed = false;
      // A connection that is gone has no one left to tell.
      queuePulse(timer.event.sigev_coid, timer.event.sigev_code, timer.event.sigev_value);
    } else if (!pending || timer.deadline < next) {
      next = timer.deadline;
      pending = true;
    }
  }
  return pending;
}

void timerThread() {
  TimerTable& t = timerTable();
  std::unique_lock<std::mutex> lock(t.mutex);
  for (;;) {
    Clock::time_point next;
    if (fireExpired(t, Clock::now(), next))
      t.changed.wait_until(lock, next);
    else
      t.changed.wait(lock);
  }
}

void startTimerThread(TimerTable& t) {
  if (t.threadStarted) return;
  std::thread(timerThread).detach();
  t.threadStarted = true;
}

int64_t toNs(const struct timespec& ts) { return static_cast<int64_t>(ts.tv_sec) * kNsPerSec + ts.tv_nsec; }

bool validTimespec(const struct timespec& ts) { return ts.tv_sec >= 0 && ts.tv_nsec >= 0 && ts.tv_nsec < kNsPerSec; }

// Time left in the caller's own (unscaled) time: the part of the scaled wait
// still ahead, stretched back to the duration that was asked for. An armed
// timer never reads as zero, which would mean "not armed".
int64_t timeLeftNs(const Timer& timer, Clock::time_point now) {
  if (!timer.armed) return 0;
  const int64_t aheadNs = std::chrono::duration_cast<std::chrono::nanoseconds>(timer.deadline - now).count();
  if (aheadNs <= 0 || timer.scaledNs <= 0) return 1;
  const double fraction = static_cast<double>(aheadNs) / static_cast<double>(timer.scaledNs);
  const int64_t left = static_cast<int64_t>(fraction * static_cast<double>(timer.requestedNs));
  return left < 1 ? 1 : left;
}

void reportTimeLeft(const Timer& timer, Clock::time_point now, struct itimerspec* value) {
  std::memset(value, 0, sizeof *value);
  nsec2timespec(&value->it_value, static_cast<uint64_t>(timeLeftNs(timer, now)));
}

}  // namespace

int ChannelCreate(unsigned flags) {
  Tables& t = tables();
  std::lock_guard<std::mutex> lock(t.mutex);
  const int chid = t.nextChannelId++;
  t.channels[chid] = std::make_shared<Channel>();
  return chid;
}

int ConnectAttach(uint32_t nd, pid_t pid, int chid, unsigned index, int flags) {
  if (nd != 0 || (pid != 0 && pid != getpid())) {
    errno = ESRCH;  // only channels of this process are reachable
    return -1;
  }
  Tables& t = tables();
  std::lock_guard<std::mutex> lock(t.mutex);
  auto it = t.channels.find(chid);
  if (it == t.channels.end()) {
    errno = ESRCH;
    return -1;
  }
  const int coid = t.nextConnectionId++;
  t.connections[coid] = it->second;
  return coid;
}

int ConnectDetach(int coid) {
  Tables& t = tables();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (t.connections.erase(coid) == 0) {
    errno = EINVAL;
    return -1;
  }
  return 0;
}

int ChannelDestroy(int chid) {
  std::shared_ptr<Channel> channel;
  {
    Tables& t = tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.channels.find(chid);
    if (it == t.channels.end()) {
      errno = EINVAL;
      return -1;
    }
    channel = it->second;
    t.channels.erase(it);
  }
  {
    std::lock_guard<std::mutex> lock(channel->mutex);
    channel->destroyed = true;
    channel->queue.clear();
  }
  // A receiver blocked on the channel returns with an error.
  channel->arrived.notify_all();
  return 0;
}

int MsgSendPulse(int coid, int priority, int code, int value) { return queuePulse(coid, code, value); }

int MsgReceive(int chid, void* msg, size_t bytes, void* info) {
  std::shared_ptr<Channel> channel = findChannel(chid);
  if (!channel) {
    errno = ESRCH;
    return -1;
  }
  if (msg == nullptr) {
    errno = EFAULT;
    return -1;
  }
  _pulse pulse;
  {
    std::unique_lock<std::mutex> lock(channel->mutex);
    channel->arrived.wait(lock, [&] { return channel->destroyed || !channel->queue.empty(); });
    if (channel->destroyed) {
      errno = ESRCH;
      return -1;
    }
    pulse = channel->queue.front();
    channel->queue.pop_front();
  }
  std::memcpy(msg, &pulse, bytes < sizeof pulse ? bytes : sizeof pulse);
  return 0;
}

int getprio(pid_t pid) {
  if (pid != 0 && pid != getpid()) {
    errno = ESRCH;
    return -1;
  }
  int policy = SCHED_OTHER;
  struct sched_param param{};
  if (pthread_getschedparam(pthread_self(), &policy, &param) != 0) return kDefaultPriority;
  // Only the real-time policies have a priority of their own.
  if ((policy == SCHED_FIFO || policy == SCHED_RR) && param.sched_priority > 0) return param.sched_priority;
  return kDefaultPriority;
}

int timer_create(clockid_t clockId, const struct sigevent* ev, timer_t* timerId) {
  if (clockId != CLOCK_MONOTONIC || ev == nullptr || ev->sigev_notify != SIGEV_PULSE || timerId == nullptr) {
    errno = EINVAL;
    return -1;
  }
  TimerTable& t = timerTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  startTimerThread(t);
  const int id = t.nextId++;
  t.timers[id].event = *ev;
  *timerId = id;
  return 0;
}

int timer_settime(timer_t timerId, int flags, const struct itimerspec* value, struct itimerspec* oldValue) {
  // Only relative one-shot timers exist in this service.
  if (value == nullptr || flags != 0 || !validTimespec(value->it_value) || toNs(value->it_interval) != 0) {
    errno = EINVAL;
    return -1;
  }
  TimerTable& t = timerTable();
  {
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.timers.find(timerId);
    if (it == t.timers.end()) {
      errno = EINVAL;
      return -1;
    }
    Timer& timer = it->second;
    const Clock::time_point now = Clock::now();
    if (oldValue) reportTimeLeft(timer, now, oldValue);
    timer.requestedNs = toNs(value->it_value);
    timer.armed = timer.requestedNs > 0;
    if (timer.armed && platform::waitsSkipped()) {
      // The expiry, at once and in the caller's thread.
      timer.armed = false;
      queuePulse(timer.event.sigev_coid, timer.event.sigev_code, timer.event.sigev_value);
    } else if (timer.armed) {
      timer.scaledNs = platform::scaledNs(timer.requestedNs);
      timer.deadline = now + std::chrono::nanoseconds(timer.scaledNs);
    }
  }
  t.changed.notify_one();
  return 0;
}

int timer_gettime(timer_t timerId, struct itimerspec* value) {
  if (value == nullptr) {
    errno = EINVAL;
    return -1;
  }
  TimerTable& t = timerTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  auto it = t.timers.find(timerId);
  if (it == t.timers.end()) {
    errno = EINVAL;
    return -1;
  }
  reportTimeLeft(it->second, Clock::now(), value);
  return 0;
}

int timer_delete(timer_t timerId) {
  TimerTable& t = timerTable();
  {
    std::lock_guard<std::mutex> lock(t.mutex);
    if (t.timers.erase(timerId) == 0) {
      errno = EINVAL;
      return -1;
    }
  }
  t.changed.notify_one();
  return 0;
}

void nsec2timespec(struct timespec* ts, uint64_t ns) {
  ts->tv_sec = static_cast<time_t>(ns / kNsPerSec);
  ts->tv_nsec = static_cast<long>(ns % kNsPerSec);
}

}  // namespace qnx
