// A small file kept open for the life of the process and rewritten in
// place: each write is one pwrite followed by fdatasync, so that when it
// returns true the bytes are on the medium; or, once the file syncs in the
// background, followed by a sync on a thread of the file's own. Paths are
// the service's own absolute paths, resolved under the root (--root).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/fileSyncer.h"

namespace platform {

class durableFile {
 public:
  durableFile() = default;
  ~durableFile();
  durableFile(const durableFile&) = delete;
  durableFile& operator=(const durableFile&) = delete;

  // Opens the file for reading and writing, creating it (and its folder)
  // when missing; a new name is made durable with its folder. False when it
  // cannot be opened (see lastError).
  bool open(const std::string& servicePath);
  bool isOpen() const { return mFd >= 0; }
  // The whole file, but never more than limit + 1 bytes (so that a caller
  // sees a file bigger than it can be).
  bool readAll(std::string& bytes, size_t limit);
  // One pwrite of the bytes at offset and fdatasync; false unless both did
  // all. Syncing in the background, the fdatasync is asked of the file's
  // thread, and the write returns once the bytes are in the kernel.
  bool writeAt(uint64_t offset, const void* data, size_t size);
  // From now on no write waits for the medium: the bytes of a write are in
  // the kernel when it returns (where no end of the process loses them), and
  // the file's own thread makes them durable at once after, with one
  // fdatasync for all writes made before it began. False when that thread
  // cannot start: each write then waits for its own fdatasync.
  bool syncInBackground();
  // Waits until every write made so far is on the medium; false at the
  // deadline. True at once where each write waits for its own sync.
  bool waitDurable(std::chrono::milliseconds deadline);
  // Renames the file to asideServicePath (replacing an older one there) and
  // opens a new, empty file under the old name.
  bool setAside(const std::string& asideServicePath);
  // errno of the last failure.
  int lastError() const { return mError; }

 private:
  bool fail();
  void syncFolder();

  int mFd = -1;
  std::string mPath;  // resolved
  int mError = 0;
  fileSyncer mSyncer;
};

}  // namespace platform
