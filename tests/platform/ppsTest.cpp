// PPS objects on a folder under a temporary root, and the PPS line parser.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>

#include "platform/pps.h"
#include "support/testSupport.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kButtons = "/pps/can/vehstat?wait,delta,f=E_CALL_BtnStat+U_CALL_BtnStat";

// How long a read is watched to show that it stays blocked. A read that
// wrongly returns does so at once, so a short bounded wait is enough.
constexpr auto kStaysBlocked = 150ms;

class Pps : public ::testing::Test {
 protected:
  void SetUp() override { testSupport::makeDirs(root.path("/pps/can")); }
  void TearDown() override {
    if (fd >= 0) platform::ppsClose(fd);
  }

  // Replaces the object the way its writers do: a new file renamed over it.
  void publish(const std::string& attributes) {
    const std::string tmp = root.path("/pps/can/.vehstat.new");
    testSupport::writeFile(tmp, "@vehstat\n" + attributes);
    ASSERT_EQ(0, std::rename(tmp.c_str(), root.path("/pps/can/vehstat").c_str()));
  }

  std::future<std::string> readAsync(size_t count = 1000) {
    return std::async(std::launch::async, [this, count] { return readNow(count); });
  }

  std::string readNow(size_t count = 1000) {
    std::string buf(count, '\0');
    const ssize_t n = platform::ppsRead(fd, buf.data(), count);
    return n < 0 ? "error " + std::to_string(errno) : buf.substr(0, static_cast<size_t>(n));
  }

  testSupport::TempRoot root;
  int fd = -1;
};

}  // namespace

TEST_F(Pps, PlainReadGivesTheWholeObjectAndDeltaReadsTheNamedAttributes) {
  publish("E_CALL_BtnStat::0\nODO::1234567\nU_CALL_BtnStat::0\n");
  const int plain = platform::ppsOpen("/pps/can/vehstat", O_RDONLY);
  ASSERT_GE(plain, 0);
  char whole[200] = {};
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::0\nODO::1234567\nU_CALL_BtnStat::0\n",
            std::string(whole, platform::ppsRead(plain, whole, sizeof whole)));
  EXPECT_EQ(0, platform::ppsClose(plain));

  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\n", readNow());

  // Only the named attribute that changed is reported.
  auto next = readAsync();
  publish("E_CALL_BtnStat::0\nODO::1234567\nU_CALL_BtnStat::1\n");
  ASSERT_EQ(std::future_status::ready, next.wait_for(5s));
  EXPECT_EQ("@vehstat\nU_CALL_BtnStat::1\n", next.get());
}

TEST_F(Pps, ChangeOfAnUnnamedAttributeKeepsTheReadBlocked) {
  publish("E_CALL_BtnStat::0\nODO::1\nU_CALL_BtnStat::0\n");
  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  readNow();
  auto next = readAsync();
  publish("E_CALL_BtnStat::0\nODO::2\nU_CALL_BtnStat::0\n");
  publish("E_CALL_BtnStat::0\nODO::3\nU_CALL_BtnStat::0\n");
  EXPECT_EQ(std::future_status::timeout, next.wait_for(kStaysBlocked));
  publish("E_CALL_BtnStat::1\nODO::3\nU_CALL_BtnStat::0\n");
  ASSERT_EQ(std::future_status::ready, next.wait_for(5s));
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::1\n", next.get());
}

TEST_F(Pps, RemovedAttributesAndARecreatedObject) {
  publish("E_CALL_BtnStat::0\nU_CALL_BtnStat::0\n");
  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  readNow();

  publish("E_CALL_BtnStat::0\n");
  EXPECT_EQ("@vehstat\n-U_CALL_BtnStat\n", readNow());

  // A removed object is no news; its return gives what differs from before.
  auto next = readAsync();
  ASSERT_EQ(0, ::unlink(root.path("/pps/can/vehstat").c_str()));
  EXPECT_EQ(std::future_status::timeout, next.wait_for(kStaysBlocked));
  publish("E_CALL_BtnStat::1\nU_CALL_BtnStat::0\n");
  ASSERT_EQ(std::future_status::ready, next.wait_for(5s));
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::1\nU_CALL_BtnStat::0\n", next.get());
}

TEST_F(Pps, MissingObjectOrFolder) {
  EXPECT_EQ(-1, platform::ppsOpen("/pps/none/vehstat?wait,delta,f=A", O_RDONLY));
  EXPECT_EQ(ENOENT, errno);

  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ("@vehstat\n", readNow());
  auto next = readAsync();
  publish("E_CALL_BtnStat::1\n");
  ASSERT_EQ(std::future_status::ready, next.wait_for(5s));
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::1\n", next.get());
}

TEST_F(Pps, ShortBuffersGetWholeLinesAndHugeObjectsAreRead) {
  const std::string big(1 << 20, 'x');
  publish("A::" + std::string(40, 'a') + "\nB::2\nC::3\nHUGE::" + big + "\n");
  fd = platform::ppsOpen("/pps/can/vehstat?wait,delta,f=A+B+C", O_RDONLY);
  ASSERT_GE(fd, 0);
  // A's line is longer than the whole buffer: it comes cut, still a line.
  const std::string first = readNow(30);
  EXPECT_EQ("@vehstat\nA::" + std::string(17, 'a') + "\n", first);
  EXPECT_EQ("@vehstat\nB::2\nC::3\n", readNow(30));

  // A 1 MiB object: what fits comes first, the huge line next, cut.
  platform::ppsClose(fd);
  fd = platform::ppsOpen("/pps/can/vehstat?wait,delta", O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ("@vehstat\nA::" + std::string(40, 'a') + "\nB::2\nC::3\n", readNow(1000));
  const std::string huge = readNow(1000);
  ASSERT_EQ(1000u, huge.size());
  EXPECT_EQ(0u, huge.find("@vehstat\nHUGE::xxx"));
  EXPECT_EQ('\n', huge.back());
}

TEST_F(Pps, ClosingEndsABlockedRead) {
  publish("E_CALL_BtnStat::0\n");
  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  readNow();
  auto next = readAsync();
  EXPECT_EQ(std::future_status::timeout, next.wait_for(kStaysBlocked));
  EXPECT_EQ(0, platform::ppsClose(fd));
  fd = -1;
  ASSERT_EQ(std::future_status::ready, next.wait_for(5s));
  EXPECT_EQ(0u, next.get().find("error"));
}

TEST(PpsParse, LineKindsInPlace) {
  char text[] =
      "@vehstat\n"
      "\n"
      "ODO::1234567\n"
      "POS:json:{\"a\":1}\r\n"
      "-U_CALL_BtnStat\n"
      "#@other\n"
      "no separator\n"
      "one:colon\n"
      "E_CALL_BtnStat::1";
  char* cursor = text;
  pps_attrib_t info{};
  ASSERT_EQ(PPS_OBJECT, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_STREQ("vehstat", info.obj_name);

  ASSERT_EQ(PPS_ATTRIBUTE, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_STREQ("ODO", info.attr_name);
  EXPECT_STREQ("", info.encoding);
  EXPECT_STREQ("1234567", info.value);
  EXPECT_STREQ("vehstat", info.obj_name);

  ASSERT_EQ(PPS_ATTRIBUTE, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_STREQ("POS", info.attr_name);
  EXPECT_STREQ("json", info.encoding);
  EXPECT_STREQ("{\"a\":1}", info.value);

  ASSERT_EQ(PPS_ATTRIBUTE_DELETED, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_STREQ("U_CALL_BtnStat", info.attr_name);
  ASSERT_EQ(PPS_OBJECT_CREATED, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_STREQ("other", info.obj_name);

  EXPECT_EQ(PPS_ERROR, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_EQ(PPS_ERROR, ppsparse(&cursor, nullptr, nullptr, &info, 0));

  // The last line has no line end.
  ASSERT_EQ(PPS_ATTRIBUTE, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_STREQ("E_CALL_BtnStat", info.attr_name);
  EXPECT_STREQ("1", info.value);
  EXPECT_EQ(PPS_END, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_EQ(PPS_END, ppsparse(&cursor, nullptr, nullptr, &info, 0));
  EXPECT_EQ(text + sizeof text - 1, cursor);
}

TEST(PpsParse, NeverReadsPastTheTextEnd) {
  // Odd fragments at the very end of a buffer: each parse must stop at the
  // terminator (the address checker build reports any read past it).
  for (const char* fragment : {"", "\n", "@", "-", "#@", ":", "a:", "a::", "-@", "\r", "x\r\n\n"}) {
    const size_t n = std::strlen(fragment);
    char* text = new char[n + 1];
    std::memcpy(text, fragment, n + 1);
    char* cursor = text;
    pps_attrib_t info{};
    int lines = 0;
    while (ppsparse(&cursor, nullptr, nullptr, &info, 0) != PPS_END) ASSERT_LT(++lines, 5) << fragment;
    EXPECT_EQ(text + n, cursor) << fragment;
    delete[] text;
  }
}
