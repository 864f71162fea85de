// The "ecall" and "ecallProgress" signals as they leave on the bus.
#include <json/json.h>

#include "ecallMain/jsonText.h"
#include "frameFixture.h"

namespace {

class signalsTest : public frameFixture {
 protected:
  Json::Value lastEcallPayload() {
    const std::vector<std::string> data = fakeBus::emittedData("ecall");
    Json::Value payload;
    if (!data.empty()) jsonParse(data.back().c_str(), payload);
    return payload;
  }
};

TEST_F(signalsTest, EcallPayloadIsOneSortedLineOnTheServiceRegistration) {
  emitEmergencySignal(true, ecallMain::CAN_IMPACT_X, "911", ecallMain::CALL_ACN, true, true);

  const std::vector<fakeBus::Call> emits = fakeBus::callsOf(fakeBus::Call::Emit);
  ASSERT_EQ(emits.size(), 1u);
  EXPECT_EQ(emits[0].method, "ecall");
  EXPECT_EQ(emits[0].objPath, ECALL_SERVICE_PATH);
  const std::string expected =
      "{\"BTCallActive\":true,\"ecall\":true,\"ecallModeActive\":true,\"event\":\"CAN_IMPACT_X\","
      "\"eventdetail\":\"CAN - Any impact event\",\"phoneNumber\":\"911\",\"type\":\"acn\"}\n";
  EXPECT_EQ(emits[0].params, expected);
  EXPECT_TRUE(log.hasTrace("emit ecall signal here " + expected));
  bool logged = false;
  for (const auto& entry : log.slogEntries())
    if (entry.kind == "5" && entry.text.find("ecallService: emit ecall signal {\"BTCallActive\"") == 0) logged = true;
  EXPECT_TRUE(logged);
  EXPECT_TRUE(bECallInProgress.load());
}

TEST_F(signalsTest, NoEventWithoutEmergencyAndAnEmptyNumberStaysPresent) {
  emitEmergencySignal(false, ecallMain::CAN_IMPACT_D, "", ecallMain::CALL_NONE, false, false);
  const Json::Value payload = lastEcallPayload();
  EXPECT_EQ(payload["event"].asString(), "NONE");
  EXPECT_EQ(payload["eventdetail"].asString(), "NONE");
  ASSERT_TRUE(payload.isMember("phoneNumber"));
  EXPECT_EQ(payload["phoneNumber"].asString(), "");
  EXPECT_FALSE(payload["ecall"].asBool());
  EXPECT_FALSE(bECallInProgress.load());

  emitEmergencySignal(true, ecallMain::SERIAL_IMPACT_A, "112", ecallMain::CALL_ACN, false, true);
  EXPECT_EQ(lastEcallPayload()["eventdetail"].asString(), "SERIAL - Front pretensioner event");
}

TEST_F(signalsTest, ModeTextRemembersEveryModeButSystemError) {
  const std::pair<ecallMain::eCallModeType, const char*> steps[] = {
      {ecallMain::CALL_NOCHANGE, "none"},  // nothing remembered yet
      {ecallMain::CALL_ECALL, "ecall"},
      {ecallMain::CALL_SYSTEM_ERROR, "systemError"},
      {ecallMain::CALL_NOCHANGE, "ecall"},  // back to what was shown before the error
      {ecallMain::CALL_ECALL_BUTTON_REPEAT, "ecall_button_repeat"},
      {ecallMain::CALL_NOCHANGE, "ecall_button_repeat"},
  };
  for (const auto& [mode, type] : steps) {
    emitEmergencySignal(true, ecallMain::E_CALL_BtnStat, "911", mode, false, true);
    EXPECT_EQ(lastEcallPayload()["type"].asString(), type) << "mode " << mode;
  }
  EXPECT_EQ(getCurCallModeString(), "ecall_button_repeat");
}

TEST_F(signalsTest, ProgressSignalCarriesTheBareCode) {
  emitECallProgressSignal(ECALL_PROGRESS_MIC_MUTED);
  emitECallProgressSignal(ECALL_PROGRESS_MIC_UNMUTED);
  const std::vector<std::string> data = fakeBus::emittedData("ecallProgress");
  ASSERT_EQ(data.size(), 2u);
  EXPECT_EQ(data[0], "{\"progress\":55936}\n");
  EXPECT_EQ(data[1], "{\"progress\":55915}\n");
  EXPECT_TRUE(log.hasTrace("emit ecallProgress signal here {\"progress\":55936}"));
  EXPECT_TRUE(log.hasSlog("ecallService: emit ecallProgress signal {\"progress\":55915}"));
}

}  // namespace
