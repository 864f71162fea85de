#include "platform/threadProgress.h"

#include <algorithm>
#include <mutex>

#include "platform/clocks.h"
#include "platform/runtime.h"

namespace platform {

namespace {

// A bound shorter than this would take a thread that the machine did not
// schedule for a moment, or a peer request at its shortest scaled bound, for
// a hung one.
constexpr int64_t MIN_REAL_BOUND_MS = 3000;

std::mutex gWatchedMutex;
std::vector<threadProgress*>& watched() {
  static std::vector<threadProgress*> threads;
  return threads;
}

}  // namespace

threadProgress::threadProgress(const char* name, int64_t busyBoundMs)
    : mName(name), mBoundMs(std::max(scaledMs(busyBoundMs), MIN_REAL_BOUND_MS)) {
  std::lock_guard<std::mutex> lock(gWatchedMutex);
  watched().push_back(this);
}

threadProgress::~threadProgress() {
  std::lock_guard<std::mutex> lock(gWatchedMutex);
  auto& threads = watched();
  threads.erase(std::remove(threads.begin(), threads.end(), this), threads.end());
}

// 0 means waiting, so a busy mark is never 0.
void threadProgress::busy() { mBusySinceMs.store(std::max<int64_t>(monotonicMs(), 1), std::memory_order_relaxed); }

bool threadProgress::showsProgress(int64_t nowMs) const {
  const int64_t since = mBusySinceMs.load(std::memory_order_relaxed);
  return since == 0 || nowMs - since < mBoundMs;
}

std::vector<std::string> threadsWithoutProgress() {
  std::vector<std::string> stuck;
  const int64_t now = monotonicMs();
  std::lock_guard<std::mutex> lock(gWatchedMutex);
  for (const threadProgress* thread : watched())
    if (!thread->showsProgress(now)) stuck.emplace_back(thread->name());
  return stuck;
}

}  // namespace platform
