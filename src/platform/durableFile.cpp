#include "platform/durableFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/runtime.h"

namespace platform {

namespace {

constexpr mode_t FILE_MODE = 0644;
constexpr mode_t FOLDER_MODE = 0755;

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? std::string("/") : path.substr(0, slash);
}

void makeFolders(const std::string& folder) {
  for (size_t slash = folder.find('/', 1);; slash = folder.find('/', slash + 1)) {
    mkdir(folder.substr(0, slash).c_str(), FOLDER_MODE);
    if (slash == std::string::npos) break;
  }
}

}  // namespace

durableFile::~durableFile() {
  if (mFd >= 0) ::close(mFd);
}

bool durableFile::fail() {
  mError = errno;
  return false;
}

// A file's new name is only durable once its folder is.
void durableFile::syncFolder() {
  const int folder = ::open(folderOf(mPath).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return;
  fsync(folder);
  ::close(folder);
}

bool durableFile::open(const std::string& servicePath) {
  if (mFd >= 0) ::close(mFd);
  mPath = rootPath(servicePath);
  mFd = ::open(mPath.c_str(), O_RDWR | O_CLOEXEC);
  if (mFd >= 0) return true;
  if (errno != ENOENT) return fail();
  makeFolders(folderOf(mPath));
  mFd = ::open(mPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, FILE_MODE);
  if (mFd < 0) return fail();
  syncFolder();
  return true;
}

bool durableFile::readAll(std::string& bytes, size_t limit) {
  bytes.clear();
  if (mFd < 0) return false;
  char chunk[512];
  for (uint64_t offset = 0; bytes.size() <= limit;) {
    const ssize_t n = pread(mFd, chunk, sizeof chunk, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail();
    if (n == 0) break;
    bytes.append(chunk, static_cast<size_t>(n));
    offset += static_cast<uint64_t>(n);
  }
  if (bytes.size() > limit + 1) bytes.resize(limit + 1);
  return true;
}

bool durableFile::writeAt(uint64_t offset, const void* data, size_t size) {
  if (mFd < 0) {
    mError = EBADF;
    return false;
  }
  ssize_t n;
  do {
    n = pwrite(mFd, data, size, static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  if (n < 0) return fail();
  if (static_cast<size_t>(n) != size) {
    mError = ENOSPC;
    return false;
  }
  if (mSyncer.running()) {
    mSyncer.requestSync();
    return true;
  }
  return fdatasync(mFd) == 0 || fail();
}

bool durableFile::syncInBackground() { return mSyncer.running() || (mFd >= 0 && mSyncer.start(mPath)); }

bool durableFile::waitDurable(std::chrono::milliseconds deadline) {
  return !mSyncer.running() || mSyncer.waitSynced(deadline);
}

bool durableFile::setAside(const std::string& asideServicePath) {
  if (mFd >= 0) ::close(mFd);
  mFd = -1;
  const std::string current = mPath;
  if (rename(current.c_str(), rootPath(asideServicePath).c_str()) != 0) {
    fail();
    // The file cannot be moved: it is emptied instead, so that it is never
    // read again.
    mFd = ::open(current.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC);
    return false;
  }
  mFd = ::open(current.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, FILE_MODE);
  if (mFd < 0) return fail();
  syncFolder();
  return true;
}

}  // namespace platform
