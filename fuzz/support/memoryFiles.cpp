#include "support/memoryFiles.h"

#include <errno.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/files.h"

namespace memoryFiles {

namespace {

struct File {
  std::string data;
  bool exists = false;  // a removed file keeps its node, so that making it again allocates nothing
};

struct Descriptor {
  File* file = nullptr;  // null: free
  int flags = 0;
  size_t offset = 0;
};

// Far above the kernel's descriptors, which the PPS delta descriptors are.
constexpr int kFirstFd = 1 << 24;

// Looked up by a path given as a C string, without making a string of it.
struct PathHash {
  using is_transparent = void;
  size_t operator()(std::string_view path) const { return std::hash<std::string_view>{}(path); }
};

struct Memory {
  std::mutex mutex;
  std::unordered_map<std::string, File, PathHash, std::equal_to<>> files;
  std::unordered_set<std::string, PathHash, std::equal_to<>> folders{"/"};
  std::vector<Descriptor> descriptors;
};

Memory& memory() {
  static Memory* m = new Memory;  // never destroyed: files may be closed at exit
  return *m;
}

int fail(int err) {
  errno = err;
  return -1;
}

std::string_view folderOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos || slash == 0 ? std::string_view("/") : path.substr(0, slash);
}

bool isFolder(const Memory& m, std::string_view path) { return m.folders.find(path) != m.folders.end(); }

File* existing(Memory& m, std::string_view path) {
  auto it = m.files.find(path);
  return it != m.files.end() && it->second.exists ? &it->second : nullptr;
}

File& made(Memory& m, std::string_view path) {
  auto it = m.files.find(path);
  if (it == m.files.end()) it = m.files.emplace(std::string(path), File{}).first;
  it->second.exists = true;
  it->second.data.clear();
  return it->second;
}

Descriptor* opened(Memory& m, int fd) {
  const size_t index = static_cast<size_t>(fd) - kFirstFd;
  if (fd < kFirstFd || index >= m.descriptors.size() || m.descriptors[index].file == nullptr) return nullptr;
  return &m.descriptors[index];
}

bool readable(const Descriptor& d) { return (d.flags & O_ACCMODE) != O_WRONLY; }
bool writable(const Descriptor& d) { return (d.flags & O_ACCMODE) != O_RDONLY; }

int memOpen(const char* path, int flags, mode_t) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  if (isFolder(m, path)) return fail(EISDIR);
  File* file = existing(m, path);
  if (file != nullptr && (flags & O_CREAT) && (flags & O_EXCL)) return fail(EEXIST);
  if (file == nullptr) {
    if (!(flags & O_CREAT) || !isFolder(m, folderOf(path))) return fail(ENOENT);
    file = &made(m, path);
  }
  if ((flags & O_TRUNC) && (flags & O_ACCMODE) != O_RDONLY) file->data.clear();
  auto slot = std::find_if(m.descriptors.begin(), m.descriptors.end(), [](const Descriptor& d) { return !d.file; });
  if (slot == m.descriptors.end()) slot = m.descriptors.emplace(m.descriptors.end());
  *slot = Descriptor{file, flags, 0};
  return kFirstFd + static_cast<int>(slot - m.descriptors.begin());
}

ssize_t memRead(int fd, void* buf, size_t count) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  Descriptor* d = opened(m, fd);
  if (d == nullptr || !readable(*d)) return fail(EBADF);
  const std::string& data = d->file->data;
  const size_t n = d->offset < data.size() ? std::min(count, data.size() - d->offset) : 0;
  memcpy(buf, data.data() + d->offset, n);
  d->offset += n;
  return static_cast<ssize_t>(n);
}

ssize_t memWrite(int fd, const void* buf, size_t count) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  Descriptor* d = opened(m, fd);
  if (d == nullptr || !writable(*d)) return fail(EBADF);
  std::string& data = d->file->data;
  if (d->flags & O_APPEND) d->offset = data.size();
  if (d->offset > data.size()) data.resize(d->offset, '\0');
  data.replace(d->offset, std::min(count, data.size() - d->offset), static_cast<const char*>(buf), count);
  d->offset += count;
  return static_cast<ssize_t>(count);
}

off_t memSize(int fd) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  const Descriptor* d = opened(m, fd);
  return d != nullptr ? static_cast<off_t>(d->file->data.size()) : fail(EBADF);
}

int memTruncate(int fd, off_t length) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  Descriptor* d = opened(m, fd);
  if (d == nullptr || !writable(*d)) return fail(EBADF);
  if (length < 0) return fail(EINVAL);
  d->file->data.resize(static_cast<size_t>(length), '\0');
  return 0;
}

int memClose(int fd) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  Descriptor* d = opened(m, fd);
  if (d == nullptr) return fail(EBADF);
  d->file = nullptr;
  return 0;
}

int memUnlink(const char* path) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  if (isFolder(m, path)) return fail(EISDIR);
  File* file = existing(m, path);
  if (file == nullptr) return fail(ENOENT);
  file->exists = false;
  file->data.clear();
  return 0;
}

int memMkdir(const char* path, mode_t) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  if (isFolder(m, path) || existing(m, path)) return fail(EEXIST);
  if (!isFolder(m, folderOf(path))) return fail(ENOENT);
  m.folders.emplace(path);
  return 0;
}

// A stream over a descriptor of the memory, as fopen makes one over a file.
FILE* memOpenStream(const char* path, const char* mode) {
  int flags = mode[0] == 'r' ? O_RDONLY : O_WRONLY | O_CREAT | (mode[0] == 'a' ? O_APPEND : O_TRUNC);
  if (strchr(mode, '+') != nullptr) flags = (flags & ~O_ACCMODE) | O_RDWR;
  const int fd = memOpen(path, flags, 0666);
  if (fd < 0) return nullptr;
  cookie_io_functions_t io{};
  io.read = [](void* c, char* buf, size_t size) { return memRead(static_cast<int>(reinterpret_cast<intptr_t>(c)), buf, size); };
  io.write = [](void* c, const char* buf, size_t size) {
    return memWrite(static_cast<int>(reinterpret_cast<intptr_t>(c)), buf, size);
  };
  io.close = [](void* c) { return memClose(static_cast<int>(reinterpret_cast<intptr_t>(c))); };
  FILE* stream = fopencookie(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), mode, io);
  if (stream == nullptr) memClose(fd);
  return stream;
}

const platform::fileSystem kMemory = {memOpen,  memRead,   memWrite, memSize,      memTruncate,
                                      memClose, memUnlink, memMkdir, memOpenStream};

}  // namespace

void install() { platform::setFileSystem(&kMemory); }

void put(const std::string& path, const std::string& content) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
    m.folders.emplace(path.substr(0, slash));
  made(m, path).data = content;
}

void removeFilesIn(const std::string& folder) {
  Memory& m = memory();
  std::lock_guard<std::mutex> lock(m.mutex);
  for (auto it = m.files.begin(); it != m.files.end();) {
    const bool open = std::any_of(m.descriptors.begin(), m.descriptors.end(),
                                  [&](const Descriptor& d) { return d.file == &it->second; });
    it = folderOf(it->first) != folder || open ? std::next(it) : m.files.erase(it);
  }
}

}  // namespace memoryFiles
