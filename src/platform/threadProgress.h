// What a watched thread shows of itself: either it waits in its blocking
// call (a receive, a read, a poll), which is progress however long it lasts,
// or it is busy since a moment. A thread busy for longer than its bound (a
// lock never released, a request that never returns) shows no progress.
//
// Marking costs a clock read and an atomic store per turn of the thread's
// loop; nothing looks at the marks unless a watchdog asks.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

class threadProgress {
 public:
  // name: how the thread is called in the log; busyBoundMs: the longest it
  // may be busy in one turn, in the service's own time (scaled by
  // --time-scale, but never below a few real seconds). Registered with the
  // watched threads for its life; it starts as waiting.
  threadProgress(const char* name, int64_t busyBoundMs);
  ~threadProgress();
  threadProgress(const threadProgress&) = delete;
  threadProgress& operator=(const threadProgress&) = delete;

  void waiting() { mBusySinceMs.store(0, std::memory_order_relaxed); }
  void busy();
  const char* name() const { return mName; }
  // True when the thread waits, or has been busy for less than its bound.
  bool showsProgress(int64_t nowMs) const;

 private:
  const char* mName;
  int64_t mBoundMs;                       // real ms
  std::atomic<int64_t> mBusySinceMs{0};  // monotonic ms; 0 while waiting
};

// Marks the thread waiting for the life of a blocking call, busy after it.
class blockingCall {
 public:
  explicit blockingCall(threadProgress& progress) : mProgress(progress) { mProgress.waiting(); }
  ~blockingCall() { mProgress.busy(); }
  blockingCall(const blockingCall&) = delete;
  blockingCall& operator=(const blockingCall&) = delete;

 private:
  threadProgress& mProgress;
};

// The names of the watched threads that show no progress now (empty: all do).
std::vector<std::string> threadsWithoutProgress();

}  // namespace platform
