#include "platform/fileSyncer.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>

#include "platform/slog.h"

namespace platform {

// Makes what was written to the file at path durable. A file that is not
// there (removed or moved since) has nothing left to sync.
void fileSyncer::syncFile(const std::string& path) {
  int fd;
  do {
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    if (errno != ENOENT)
      slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR, "cannot open %s to sync it: %s", path.c_str(), strerror(errno));
    return;
  }
  int rc;
  do {
    rc = mSync(fd);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR, "cannot sync %s: %s", path.c_str(), strerror(errno));
  close(fd);
}

bool fileSyncer::start(const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mRunning) return false;
  mPath = path;
  mStopping = false;
  try {
    mThread = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    return false;
  }
  pthread_setname_np(mThread.native_handle(), "fileSyncer");
  mRunning = true;
  return true;
}

bool fileSyncer::running() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mRunning;
}

void fileSyncer::requestSync() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning) return;
    ++mRequested;
  }
  mChanged.notify_all();
}

bool fileSyncer::waitSynced(std::chrono::milliseconds deadline) {
  std::unique_lock<std::mutex> lock(mMutex);
  const uint64_t wanted = mRequested;
  return mChanged.wait_for(lock, deadline, [&] { return !mRunning || mSynced >= wanted; }) && mSynced >= wanted;
}

void fileSyncer::stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning) return;
    mStopping = true;
  }
  mChanged.notify_all();
  mThread.join();
  std::lock_guard<std::mutex> lock(mMutex);
  mRunning = false;
}

void fileSyncer::run() {
  std::unique_lock<std::mutex> lock(mMutex);
  for (;;) {
    mChanged.wait(lock, [this] { return mStopping || mRequested > mSynced; });
    if (mRequested == mSynced) return;  // stopping, nothing left
    // Every append asked for up to here was written before this open.
    const uint64_t target = mRequested;
    const std::string path = mPath;
    lock.unlock();
    syncFile(path);
    lock.lock();
    mSynced = target;
    mChanged.notify_all();
  }
}

}  // namespace platform
