// PPS objects on a folder under a temporary root, and the PPS line parser.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "platform/pps.h"
#include "support/testSupport.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kButtons = "/pps/can/vehstat?wait,delta,f=E_CALL_BtnStat+U_CALL_BtnStat";

// How long a read is watched to stay blocked: a wrong return comes at once.
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

  std::string readNow(size_t count = 1000) {
    std::string buf(count, '\0');
    const ssize_t n = platform::ppsRead(fd, buf.data(), count);
    return n < 0 ? "error " + std::to_string(errno) : buf.substr(0, static_cast<size_t>(n));
  }
  std::future<std::string> readAsync() {
    return std::async(std::launch::async, [this] { return readNow(); });
  }
  // The next delta once publish(attributes) is done, the read blocked until then.
  std::string nextAfter(const std::string& attributes) {
    auto next = readAsync();
    EXPECT_EQ(std::future_status::timeout, next.wait_for(kStaysBlocked));
    publish(attributes);
    if (next.wait_for(5s) != std::future_status::ready) return "still blocked";
    return next.get();
  }

  testSupport::TempRoot root;
  int fd = -1;
};

}  // namespace

// A plain read of the whole object is the odometer's, checked end to end.
TEST_F(Pps, DeltaReadsOnlyNamedChanges) {
  publish("E_CALL_BtnStat::0\nODO::1234567\nU_CALL_BtnStat::0\n");
  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\n", readNow());
  EXPECT_EQ("@vehstat\nU_CALL_BtnStat::1\n", nextAfter("E_CALL_BtnStat::0\nODO::1234567\nU_CALL_BtnStat::1\n"));

  // Changes of an unnamed attribute keep the read blocked.
  auto next = readAsync();
  publish("E_CALL_BtnStat::0\nODO::2\nU_CALL_BtnStat::1\n");
  EXPECT_EQ(std::future_status::timeout, next.wait_for(kStaysBlocked));
  publish("E_CALL_BtnStat::1\nODO::3\nU_CALL_BtnStat::1\n");
  ASSERT_EQ(std::future_status::ready, next.wait_for(5s));
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::1\n", next.get());
}

// The object may come after the reader, lose attributes, and its folder be renamed away.
TEST_F(Pps, ObjectThatComesLateLosesAttributesAndIsRecreated) {
  EXPECT_EQ(-1, platform::ppsOpen("/pps/none/vehstat?wait,delta,f=A", O_RDONLY));
  EXPECT_EQ(ENOENT, errno);

  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ("@vehstat\n", readNow());
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\n", nextAfter("E_CALL_BtnStat::0\nU_CALL_BtnStat::0\n"));
  publish("E_CALL_BtnStat::0\n");
  EXPECT_EQ("@vehstat\n-U_CALL_BtnStat\n", readNow());

  // A folder renamed away ends the read; the reader then follows the path.
  auto blocked = readAsync();
  ASSERT_EQ(0, std::rename(root.path("/pps/can").c_str(), root.path("/pps/can.old").c_str()));
  ASSERT_EQ(std::future_status::ready, blocked.wait_for(5s));
  EXPECT_EQ("error " + std::to_string(ENOENT), blocked.get());
  EXPECT_EQ("error " + std::to_string(ENOENT), readNow());
  testSupport::makeDirs(root.path("/pps/can"));
  EXPECT_EQ("@vehstat\nE_CALL_BtnStat::1\n", nextAfter("E_CALL_BtnStat::1\n"));
}

// Presses and releases written before the reader reads (at start-up or while
// it is busy) reach it in order: a thousand, across the writer's journal renewal.
TEST_F(Pps, ChangesUndoneBeforeTheReadStillReachTheReaderInOrder) {
  auto write = [](int pressed) {
    const std::string text = "@vehstat\nE_CALL_BtnStat::" + std::to_string(pressed) + "\nU_CALL_BtnStat::0\n";
    ASSERT_EQ(0, platform::ppsWrite("/pps/can/vehstat", text.data(), text.size()));
  };
  write(0);
  fd = platform::ppsOpen(kButtons, O_RDONLY);
  ASSERT_GE(fd, 0);
  write(1);  // before the first read: a press while the service starts
  write(0);
  std::string expected = "E_CALL_BtnStat::0\nU_CALL_BtnStat::0\nE_CALL_BtnStat::1\nE_CALL_BtnStat::0\n";
  for (int i = 0; i < 1000; ++i) {
    write(1);
    write(0);
    expected += "E_CALL_BtnStat::1\nE_CALL_BtnStat::0\n";
  }
  std::string all;
  while (all.size() < expected.size()) {
    auto next = readAsync();
    if (next.wait_for(5s) != std::future_status::ready) {
      platform::ppsClose(fd);  // frees the reader
      fd = -1;
      FAIL() << all.size() << " of " << expected.size() << " bytes of changes read";
    }
    const std::string more = next.get();
    all += more.substr(more.find('\n') + 1);  // without the object line
  }
  EXPECT_EQ(expected, all);
}

// A line longer than the reader's whole buffer comes cut, still a line; a
// close ends a read that waits (the service's stop).
TEST_F(Pps, ShortBuffersGetWholeLinesAndClosingEndsABlockedRead) {
  publish("A::" + std::string(40, 'a') + "\nB::2\nC::3\n");
  fd = platform::ppsOpen("/pps/can/vehstat?wait,delta,f=A+B+C", O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ("@vehstat\nA::" + std::string(17, 'a') + "\n", readNow(30));
  EXPECT_EQ("@vehstat\nB::2\nC::3\n", readNow(30));
  auto next = readAsync();
  EXPECT_EQ(std::future_status::timeout, next.wait_for(kStaysBlocked));
  EXPECT_EQ(0, platform::ppsClose(fd));
  fd = -1;
  ASSERT_EQ(std::future_status::ready, next.wait_for(5s));
  EXPECT_EQ(0u, next.get().find("error"));
}

// Every line kind in place, and odd fragments at the very end of a buffer: a
// parse stops at the terminator (the address checker reports any read past it).
TEST(PpsParse, LineKindsInPlaceAndNeverPastTheTextEnd) {
  char text[] =
      "@vehstat\n\nODO::1234567\nPOS:json:{\"a\":1}\r\n-U_CALL_BtnStat\n#@other\n"
      "no separator\none:colon\nE_CALL_BtnStat::1";  // the last line has no line end
  const std::tuple<pps_status_t, const char*, const char*, const char*> lines[] = {  // status, name, encoding, value
      {PPS_OBJECT, "vehstat", nullptr, nullptr},
      {PPS_ATTRIBUTE, "ODO", "", "1234567"},
      {PPS_ATTRIBUTE, "POS", "json", "{\"a\":1}"},
      {PPS_ATTRIBUTE_DELETED, "U_CALL_BtnStat", nullptr, nullptr},
      {PPS_OBJECT_CREATED, "other", nullptr, nullptr},
      {PPS_ERROR, nullptr, nullptr, nullptr},
      {PPS_ERROR, nullptr, nullptr, nullptr},
      {PPS_ATTRIBUTE, "E_CALL_BtnStat", "", "1"},
      {PPS_END, nullptr, nullptr, nullptr},
      {PPS_END, nullptr, nullptr, nullptr},
  };
  char* cursor = text;
  pps_attrib_t info{};
  for (const auto& [status, name, encoding, value] : lines) {
    ASSERT_EQ(status, ppsparse(&cursor, nullptr, nullptr, &info, 0)) << (name ? name : "?");
    const bool isObject = status == PPS_OBJECT || status == PPS_OBJECT_CREATED;
    if (name) {
      EXPECT_STREQ(name, isObject ? info.obj_name : info.attr_name);
    }
    if (value) {
      EXPECT_STREQ(encoding, info.encoding);
      EXPECT_STREQ(value, info.value);
    }
  }
  EXPECT_EQ(text + sizeof text - 1, cursor);

  for (const char* fragment : {"", "\n", "@", "-", "#@", ":", "a:", "a::", "-@", "\r", "x\r\n\n"}) {
    const size_t n = std::strlen(fragment);
    std::vector<char> copy(fragment, fragment + n + 1);  // exactly as long as the fragment
    char* at = copy.data();
    int lines = 0;
    while (ppsparse(&at, nullptr, nullptr, &info, 0) != PPS_END) ASSERT_LT(++lines, 5) << fragment;
    EXPECT_EQ(copy.data() + n, at) << fragment;
  }
}
