// The restraint controller channel: a SOCK_SEQPACKET Unix socket (the
// vehicle micro or its simulator listens there) or a character device.
#include "platform/ipcChannel.h"

#include <errno.h>
#include <fcntl.h>
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
  return ::open(resolved.c_str(), (flags & ~kTargetOnlyOpenFlag) | O_CLOEXEC);
}

}  // namespace platform
