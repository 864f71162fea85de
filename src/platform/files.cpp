#include "platform/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace platform {

namespace {

int kernelOpen(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

off_t kernelSize(int fd) {
  struct stat info {};
  return ::fstat(fd, &info) == 0 ? info.st_size : -1;
}

const fileSystem kKernel = {kernelOpen, ::read, ::write, kernelSize, ::ftruncate, ::close, ::unlink, ::mkdir, ::fopen};

std::atomic<const fileSystem*> gFiles{&kKernel};

const fileSystem& files() { return *gFiles.load(std::memory_order_acquire); }

}  // namespace

void setFileSystem(const fileSystem* replacement) {
  gFiles.store(replacement != nullptr ? replacement : &kKernel, std::memory_order_release);
}

int fileOpen(const char* path, int flags, mode_t mode) { return files().open(path, flags, mode); }
ssize_t fileRead(int fd, void* buf, size_t count) { return files().read(fd, buf, count); }
ssize_t fileWrite(int fd, const void* buf, size_t count) { return files().write(fd, buf, count); }
off_t fileSize(int fd) { return files().size(fd); }
int fileTruncate(int fd, off_t length) { return files().truncate(fd, length); }
int fileClose(int fd) { return files().close(fd); }
int fileUnlink(const char* path) { return files().unlink(path); }
int makeFolder(const char* path, mode_t mode) { return files().mkdir(path, mode); }
FILE* fileOpenStream(const char* path, const char* mode) { return files().openStream(path, mode); }

}  // namespace platform
