// The restraint controller channel over a SOCK_SEQPACKET socket or a file.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "platform/ipcChannel.h"
#include "support/testSupport.h"

namespace {

constexpr const char* kChannel = "/dev/ipc/ch12";
constexpr int kTargetFlag = 0x2000;

int listenAt(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  struct sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  EXPECT_EQ(0, ::bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address));
  EXPECT_EQ(0, ::listen(fd, 1));
  return fd;
}

std::string readMessage(int fd) {
  char buf[254];
  const ssize_t n = ::read(fd, buf, sizeof buf);
  return n < 0 ? std::string("error") : std::string(buf, static_cast<size_t>(n));
}

}  // namespace

TEST(IpcChannel, SocketKeepsMessageBoundariesBothWays) {
  testSupport::TempRoot root;
  testSupport::makeDirs(root.path("/dev/ipc"));
  const int listener = listenAt(root.path(kChannel));
  const int fd = platform::ipcOpen(kChannel, O_RDWR | kTargetFlag);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  const int micro = ::accept(listener, nullptr, nullptr);
  ASSERT_GE(micro, 0);

  ASSERT_EQ(2, ::write(micro, "\x01\x02", 2));
  ASSERT_EQ(3, ::write(micro, "\x03\x04\x05", 3));
  EXPECT_EQ(std::string("\x01\x02", 2), readMessage(fd));
  EXPECT_EQ(std::string("\x03\x04\x05", 3), readMessage(fd));

  ASSERT_EQ(1, ::write(fd, "R", 1));
  ASSERT_EQ(2, ::write(fd, "L2", 2));
  EXPECT_EQ("R", readMessage(micro));
  EXPECT_EQ("L2", readMessage(micro));

  // The micro going away ends the channel: a read returns no message.
  ::close(micro);
  EXPECT_EQ("", readMessage(fd));
  ::close(fd);
  ::close(listener);
}

TEST(IpcChannel, DeviceFilesOpenAndMissingOnesFail) {
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
