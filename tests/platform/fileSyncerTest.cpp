// The file syncer: every append asked to be synced is covered by a later sync.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/fileSyncer.h"
#include "support/testSupport.h"

// Appends of many threads, each followed by a request: once the syncer says so, a sync
// has seen the file whole. A file replaced meanwhile (log reset, export) is the one synced.
TEST(FileSyncer, EveryAskedAppendIsCoveredByALaterSyncOfTheFileOfTheMoment) {
  testSupport::TempRoot dir;
  const std::string path = dir.path("/log.txt");
  std::atomic<ino_t> syncedInode{0};
  std::atomic<off_t> syncedSize{0};
  platform::fileSyncer syncer([&](int fd) {
    struct stat info {};
    fstat(fd, &info);
    syncedInode = info.st_ino;
    syncedSize = info.st_size;
    return fdatasync(fd);
  });
  auto append = [&] {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    EXPECT_EQ(write(fd, "an entry\n", 9), 9);
    close(fd);
    syncer.requestSync();
  };
  auto syncedWhole = [&] {
    struct stat info {};
    stat(path.c_str(), &info);
    return syncer.waitSynced(testSupport::kWaitDeadline) && syncedInode == info.st_ino && syncedSize == info.st_size;
  };
  ASSERT_TRUE(syncer.start(path));

  std::vector<std::jthread> writers;
  for (int t = 0; t < 4; ++t)
    writers.emplace_back([&] {
      for (int i = 0; i < 50; ++i) append();
    });
  writers.clear();
  EXPECT_TRUE(syncedWhole()) << "appends of many threads: a sync saw " << syncedSize << " bytes";

  testSupport::writeFile(path + ".new", "a new file\n");
  ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
  append();
  EXPECT_TRUE(syncedWhole()) << "the file replaced was not the one synced";
}
