// Impact and link-loss messages of the restraint controller channel.
#include <thread>

#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;
using namespace ecallMain;

class ImpactChannelTest : public OrcFixture {
 protected:
  // The emergency one message starts, and what it printed.
  eEmergencyType handle(const Bytes& msg, std::string* printed = nullptr) {
    ecallHandler.curECallType = NONE;
    ecallHandler.curCallModeType = CALL_NONE;
    testing::internal::CaptureStdout();
    canIpcEmergencyHandler.processOrcMessage(msg.data(), static_cast<int>(msg.size()));
    std::string out = testing::internal::GetCapturedStdout();
    if (printed) *printed = out;
    return ecallHandler.curECallType;
  }
};

// Per path, the emergency each of the 16 bits (byte 0 bit 0 first) starts
// alone, by name: the kinds not listed are only logged.
TEST_F(ImpactChannelTest, EachImpactBitAloneStartsOnlyTheEmergencyOfItsPathsTriggerList) {
  const char* const serial[16] = {"", "SERIAL_IMPACT_B", "SERIAL_IMPACT_C", "", "", "SERIAL_IMPACT_F", "", "",
                                  "SERIAL_IMPACT_H", "SERIAL_IMPACT_I", "", "SERIAL_IMPACT_L", "", "", "", ""};
  const char* const can[16] = {"", "CAN_IMPACT_B", "CAN_IMPACT_C", "", "", "CAN_IMPACT_F", "", "CAN_IMPACT_Tgl",
                               "", "CAN_IMPACT_I", "", "CAN_IMPACT_L", "", "", "", "CAN_IMPACT_X"};
  for (bool isSerial : {true, false}) {
    for (int bit = 0; bit < 16; ++bit) {
      Bytes msg(7, 0);
      msg[isSerial ? 4 : 1] = 1;
      msg[(isSerial ? 5 : 2) + bit / 8] = static_cast<uint8_t>(1u << (bit % 8));
      const std::string expected = (isSerial ? serial : can)[bit];
      std::string printed;
      const eEmergencyType started = handle(msg, &printed);
      EXPECT_EQ(expected.empty() ? "NONE" : expected, EmergencyEvent[started]) << (isSerial ? "serial" : "CAN") << " bit " << bit;
      const std::string announced = std::string(isSerial ? "Serial" : "CAN") + " Emergency " + expected + "\n";
      EXPECT_EQ(!expected.empty(), printed.find(announced) != std::string::npos) << printed;
    }
  }
}

TEST_F(ImpactChannelTest, InvalidPathsAndMalformedMessagesStartNothing) {
  // A path counts only when its valid byte is exactly 1.
  EXPECT_EQ(NONE, handle({0x00, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(NONE, handle({0x00, 0x00, 0x00, 0x00, 0x02, 0x02, 0x00}));
  EXPECT_FALSE(logHas("Rx ORC CAN 0x0200") || logHas("Rx ORC serial 0x"));

  // A short impact or LOC message and an unknown kind leave no trace at all.
  log.clear();
  for (const Bytes& msg : {Bytes{0x00, 0x01, 0x02, 0x00, 0x01, 0x00}, Bytes{0x01, 0x01, 0x01},
                           Bytes{0x02, 0x01, 0x02, 0x00, 0x01, 0x00, 0x02}}) {
    std::string printed;
    EXPECT_EQ(NONE, handle(msg, &printed));
    EXPECT_EQ("", printed);
  }
  EXPECT_FALSE(log.hasTrace("Rx") || log.hasTrace("Start add entry"));
  EXPECT_EQ(0u, ecallHandler.systemError.load());
}

// Setting and clearing the three links is seen end to end; here the values
// other than 1, which clear a link, and the bytes past the three.
TEST_F(ImpactChannelTest, LocMessageTakesOnlyTheValueOneAsLost) {
  using namespace ecallSystemFailure;
  ecallHandler.systemError = bitMask[ORC_SERIAL_LOC];
  handle({0x01, 0x01, 0x02, 0x01, 0x01, 0x01});
  EXPECT_EQ(bitMask[ORC_CAN_LOC] | bitMask[MIRROR_LOC], ecallHandler.systemError.load());
}

TEST_F(ImpactChannelTest, ReaderTakesOneMessagePerReadAndDumpsNoFurtherThanByte252) {
  // The reader gets a channel of its own that nothing closes or destroys, so
  // it stays blocked on it while the process objects are destroyed at exit.
  static auto* channel = new platform::IpcChannel(orcIpcChannelPath.c_str(), O_RDWR);
  ASSERT_NO_FATAL_FAILURE(micro.connect(*channel));
  std::thread(canImpactThrdFunc, channel).detach();

  // Impact messages without a valid path: their trace is the reader's last act.
  for (size_t size : {300, 200}) {
    Bytes msg(size);
    for (size_t i = 0; i < size; ++i) msg[i] = static_cast<uint8_t>(i);
    msg[0] = msg[1] = 0;
    ASSERT_EQ(ssize_t(size), write(micro.fd, msg.data(), size));
  }
  ASSERT_TRUE(testSupport::waitUntil([&] { return log.countTrace("IPC /dev/ipc/ch12 Rx: ") == 2; }));
  std::vector<std::string> dumps;
  for (const std::string& text : log.traces())
    if (text.rfind("IPC /dev/ipc/ch12 Rx: ", 0) == 0) dumps.push_back(text.substr(22));
  EXPECT_EQ(253u * 3, dumps[0].size());  // 253 bytes and the line end
  EXPECT_EQ("fb fc\n", dumps[0].substr(dumps[0].size() - 6));
  EXPECT_EQ("c6 c7\n", dumps[1].substr(dumps[1].size() - 6));
}

}  // namespace
