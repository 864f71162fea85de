// Root folder and time scale of the process.
//
// The root is published as a pointer to an immutable text: a thread that
// resolves a path while a test (or the command line) sets a new root reads
// either the old or the new text whole. Old texts are kept for the life of
// the process so that a reference handed out by root() never dangles; the
// root is set a handful of times per process, so this costs nothing.
#include "platform/runtime.h"

#include <errno.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <vector>

namespace platform {

namespace {

std::mutex gRootMutex;
std::vector<std::unique_ptr<const std::string>> gRootTexts;  // every root ever set
const std::string gDefaultRoot = "/";
std::atomic<const std::string*> gRoot{&gDefaultRoot};

std::atomic<double> gTimeScale{1.0};
std::atomic<bool> gSkipWaits{false};
std::atomic<threadStarter> gThreadStarter{nullptr};

constexpr int64_t kNsPerMs = 1000000;

// A folder name without trailing slashes; "" and "/" both mean the file
// system root.
std::string normalisedRoot(const std::string& dir) {
  size_t end = dir.size();
  while (end > 1 && dir[end - 1] == '/') --end;
  if (end == 0) return std::string(1, '/');
  return dir.substr(0, end);
}

// Scales a duration of `unit` nanoseconds per count. A non-zero wait never
// shrinks below 1 ms (nor below itself when it is shorter), so that a
// "run now" timer still expires as a real timer.
int64_t scaled(int64_t count, int64_t unitNs) {
  if (count <= 0) return 0;
  const double exact = static_cast<double>(count) * timeScale();
  int64_t result = static_cast<int64_t>(std::llround(exact));
  const int64_t floorCount = unitNs >= kNsPerMs ? 1 : std::min<int64_t>(count, kNsPerMs / unitNs);
  if (result < floorCount) result = floorCount;
  return result;
}

void sleepForNs(int64_t ns) {
  if (ns <= 0 || waitsSkipped()) return;
  struct timespec left;
  left.tv_sec = static_cast<time_t>(ns / 1000000000);
  left.tv_nsec = static_cast<long>(ns % 1000000000);
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace

void setRoot(const std::string& dir) {
  auto text = std::make_unique<const std::string>(normalisedRoot(dir));
  std::lock_guard<std::mutex> lock(gRootMutex);
  gRoot.store(text.get(), std::memory_order_release);
  gRootTexts.push_back(std::move(text));
}

const std::string& root() { return *gRoot.load(std::memory_order_acquire); }

std::string rootPath(const std::string& absolutePath) {
  if (absolutePath.empty() || absolutePath.front() != '/') return absolutePath;
  const std::string& base = root();
  if (base == "/") return absolutePath;
  return base + absolutePath;
}

void setTimeScale(double scale) {
  // Anything outside (0, 1] would stretch or freeze every wait of the
  // service; such a value is refused and the previous scale kept.
  if (!(scale > 0.0 && scale <= 1.0)) return;
  gTimeScale.store(scale, std::memory_order_relaxed);
}

double timeScale() { return gTimeScale.load(std::memory_order_relaxed); }

int64_t scaledMs(int64_t ms) { return scaled(ms, kNsPerMs); }

int64_t scaledNs(int64_t ns) { return scaled(ns, 1); }

int64_t unscaledMs(int64_t realMs) { return std::llround(static_cast<double>(realMs) / timeScale()); }

void sleepMs(int64_t ms) { sleepForNs(scaledMs(ms) * kNsPerMs); }

void sleepNs(int64_t ns) { sleepForNs(scaledNs(ns)); }

void skipWaits(bool on) { gSkipWaits.store(on, std::memory_order_relaxed); }

bool waitsSkipped() { return gSkipWaits.load(std::memory_order_relaxed); }

int startDetachedThread(pthread_t* thread, threadBody body, void* arg) {
  if (const threadStarter starter = gThreadStarter.load(std::memory_order_acquire)) return starter(thread, body, arg);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  const int rc = pthread_create(thread, &attr, body, arg);
  pthread_attr_destroy(&attr);
  return rc;
}

void setThreadStarter(threadStarter starter) { gThreadStarter.store(starter, std::memory_order_release); }

sigset_t blockTerminationSignals() {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &mask, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return mask;
}

}  // namespace platform
