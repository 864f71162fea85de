// The file syncer: every append asked to be synced is covered by a sync made
// after it, on the file that is there at the time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <thread>
#include <vector>

#include "platform/fileSyncer.h"
#include "support/testSupport.h"

namespace {

struct FileState {
  ino_t inode = 0;
  off_t size = 0;
  bool operator==(const FileState&) const = default;
};

FileState stateOf(int fd) {
  struct stat info {};
  fstat(fd, &info);
  return {info.st_ino, info.st_size};
}

void append(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(write(fd, "an entry\n", 9), 9);
  close(fd);
}

FileState stateOf(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const FileState state = stateOf(fd);
  close(fd);
  return state;
}

}  // namespace

// Appends of many threads, each followed by a request: once the syncer says
// so, a sync has seen the file whole. A file replaced meanwhile (the log
// reset, exported) is the one synced.
TEST(FileSyncer, EveryAskedAppendIsCoveredByALaterSyncOfTheFileOfTheMoment) {
  testSupport::TempRoot dir;
  const std::string path = dir.path("/log.txt");
  std::mutex mutex;
  FileState lastSynced;
  platform::fileSyncer syncer([&](int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    lastSynced = stateOf(fd);
    return fdatasync(fd);
  });
  auto synced = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return lastSynced;
  };
  ASSERT_TRUE(syncer.start(path));

  std::vector<std::jthread> writers;
  for (int t = 0; t < 4; ++t)
    writers.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        append(path);
        syncer.requestSync();
      }
    });
  writers.clear();
  ASSERT_TRUE(syncer.waitSynced(testSupport::kWaitDeadline));
  EXPECT_EQ(synced(), stateOf(path));
  EXPECT_EQ(synced().size, 4 * 50 * 9);

  testSupport::writeFile(path + ".new", "a new file\n");
  ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
  append(path);
  syncer.requestSync();
  ASSERT_TRUE(syncer.waitSynced(testSupport::kWaitDeadline));
  EXPECT_EQ(synced(), stateOf(path)) << "the file replaced was not the one synced";
}
