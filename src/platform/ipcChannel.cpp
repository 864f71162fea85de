// The restraint controller channel: a SOCK_SEQPACKET Unix socket (the
// vehicle micro or its simulator listens there) or a character device.
#include "platform/ipcChannel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/runtime.h"

namespace platform {

namespace {

// The target's open flag that has no Linux meaning.
constexpr int kTargetOnlyOpenFlag = 0x2000;

int connectSeqPacket(const std::string& path) {
  struct sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int rc;
  do {
    rc = ::connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    const int err = errno;
    ::close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

}  // namespace

int ipcOpen(const char* path, int flags) {
  if (path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const std::string resolved = rootPath(path);
  struct stat st;
  if (::stat(resolved.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return connectSeqPacket(resolved);
  // A device's writes must not block either; its reads wait in poll.
  return ::open(resolved.c_str(), (flags & ~kTargetOnlyOpenFlag) | O_CLOEXEC | O_NONBLOCK);
}

bool IpcChannel::open() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mFd < 0) mFd = ipcOpen(mPath.c_str(), mFlags);
  return mFd >= 0;
}

void IpcChannel::reopenEvery(int64_t retryMs) {
  close();
  while (!open()) sleepMs(retryMs);
}

bool IpcChannel::isOpen() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mFd >= 0;
}

ssize_t IpcChannel::read(void* buffer, size_t size) {
  // Only the reading thread replaces the descriptor, so it reads without the
  // lock (a blocked read must not hold up the writers).
  int fd;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    fd = mFd;
  }
  ssize_t n;
  for (;;) {
    n = ::read(fd, buffer, size);
    if (n >= 0) break;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) break;
    // A device opened without blocking: its next message is waited for here.
    struct pollfd wait = {fd, POLLIN, 0};
    ::poll(&wait, 1, -1);
  }
  if (n <= 0) {
    const int err = n < 0 ? errno : 0;
    close();
    errno = err;
  }
  return n;
}

bool IpcChannel::readableWithin(int64_t retryMs) {
  int fd;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    fd = mFd;
  }
  const int64_t limitMs = scaledMs(retryMs);
  struct pollfd wait = {fd, POLLIN, 0};
  int rc;
  do {
    rc = ::poll(&wait, 1, static_cast<int>(limitMs));
  } while (rc < 0 && errno == EINTR);
  return rc != 0;
}

ssize_t IpcChannel::write(const void* bytes, size_t size) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mFd < 0) {
    errno = EBADF;
    return -1;
  }
  ssize_t n = ::send(mFd, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n < 0 && errno == ENOTSOCK) n = ::write(mFd, bytes, size);
  return n;
}

void IpcChannel::close() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mFd >= 0) ::close(mFd);
  mFd = -1;
}

}  // namespace platform
