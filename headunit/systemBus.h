// The D-Bus system bus of the Linux stacks (oFono), through sd-bus, found as
// any system-bus client finds it (DBUS_SYSTEM_BUS_ADDRESS, else the
// standard socket). One thread dispatches its signals; it sleeps in poll()
// until the bus or a caller has something for it.
//
// sd-bus is not thread-safe: every use of the bus goes through use(), which
// holds the bus's lock (signal handlers run with it held already, so they
// may call use() themselves) and afterwards wakes the dispatcher, since a
// call may have queued signals that arrived while it waited for its reply.
//
// The dispatcher also keeps one timer (the phone's pause before it tries the
// modem again): it wakes for the timer as for the bus, and runs the timer's
// work with the bus held.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace headunit {

class SystemBus {
 public:
  SystemBus() = default;
  ~SystemBus();
  SystemBus(const SystemBus&) = delete;
  SystemBus& operator=(const SystemBus&) = delete;

  bool open(std::string& why);
  void start();
  void stop();

  template <class F>
  auto use(F fn) {
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    struct Wake {
      SystemBus* bus;
      ~Wake() { bus->wake(); }
    } wake{this};
    return fn(mBus);
  }

  // Runs work on the dispatcher, with the bus held, once delay has passed;
  // a timer set before that is replaced. An empty work cancels the timer.
  void setTimer(std::chrono::milliseconds delay, std::function<void(sd_bus*)> work);

 private:
  void wake();
  void run();
  // Runs the timer's work when it is due; the wait until then in ms (-1: none).
  int runTimer();
  std::recursive_mutex mMutex;
  sd_bus* mBus = nullptr;
  int mWakeFd = -1;
  std::atomic<bool> mStopping{false};
  std::thread mThread;
  std::chrono::steady_clock::time_point mTimerDue{};
  std::function<void(sd_bus*)> mTimerWork;
};

}  // namespace headunit
