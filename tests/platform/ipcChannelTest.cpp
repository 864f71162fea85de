// The restraint controller channel on a device file (the simulated micro's socket: end to end).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "platform/ipcChannel.h"
#include "support/testSupport.h"

TEST(IpcChannel, DeviceFilesOpenAndMissingOnesFail) {
  constexpr const char* kChannel = "/dev/ipc/ch12";
  constexpr int kTargetFlag = 0x2000;
  testSupport::TempRoot root;
  EXPECT_EQ(-1, platform::ipcOpen(kChannel, O_RDWR | kTargetFlag));
  EXPECT_EQ(ENOENT, errno);

  testSupport::writeFile(root.path(kChannel), "");
  const int fd = platform::ipcOpen(kChannel, O_RDWR | kTargetFlag);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  EXPECT_EQ(2, ::write(fd, "\x07\x01", 2));
  ::close(fd);
  EXPECT_EQ(std::string("\x07\x01", 2), testSupport::readFile(root.path(kChannel)));
}
