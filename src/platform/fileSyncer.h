// Makes the data appended to a file durable away from the writers' threads.
// A writer appends without synchronous writes, so the data is in the kernel
// when the write returns (complete for every reader, and kept when the
// process ends, also by SIGKILL), and then asks for a sync; the syncer's own
// thread calls fdatasync on the file, one call for every append asked for
// before it started. Only a loss of power before that call ends can lose
// such an append. Not started, the syncer does nothing, and the writers
// write synchronously themselves.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <unistd.h>

namespace platform {

class fileSyncer {
 public:
  // sync makes what was written to an open file durable (fdatasync; a test
  // may look at what is synced instead).
  using syncFunction = std::function<int(int fd)>;
  explicit fileSyncer(syncFunction sync = ::fdatasync) : mSync(std::move(sync)) {}
  // Syncs what was asked for and ends the thread.
  ~fileSyncer() { stop(); }
  fileSyncer(const fileSyncer&) = delete;
  fileSyncer& operator=(const fileSyncer&) = delete;

  // Starts the thread that syncs the file at path (opened anew for each
  // sync, so that a file replaced meanwhile is the one synced). False when
  // the thread cannot start, or runs already.
  bool start(const std::string& path);
  bool running() const;
  // After an append: returns at once.
  void requestSync();
  // Waits until every sync asked for so far has been made (or found nothing
  // to sync); false at the deadline or when the syncer does not run.
  bool waitSynced(std::chrono::milliseconds deadline);
  // Syncs what was asked for and ends the thread.
  void stop();

 private:
  void run();
  void syncFile(const std::string& path);

  const syncFunction mSync;
  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  std::string mPath;
  uint64_t mRequested = 0;  // syncs asked for
  uint64_t mSynced = 0;     // of them, made
  bool mRunning = false;
  bool mStopping = false;
  std::thread mThread;
};

}  // namespace platform
