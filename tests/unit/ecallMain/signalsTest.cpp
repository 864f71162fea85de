// The "ecall" and "ecallProgress" signals as they leave on the bus.
#include "ecallMain/jsonText.h"
#include "frameFixture.h"

namespace {

class signalsTest : public frameFixture {
 protected:
  Json::Value lastEcallPayload() {
    Json::Value payload;
    jsonParse(fakeBus::emittedData("ecall").back().c_str(), payload);
    return payload;
  }
};

TEST_F(signalsTest, PayloadsAreOneSortedLineOnTheServiceRegistration) {
  emitEmergencySignal(true, ecallMain::CAN_IMPACT_X, "911", ecallMain::CALL_ACN, true, true);
  emitECallProgressSignal(ECALL_PROGRESS_MIC_MUTED);

  const std::vector<fakeBus::Call> emits = fakeBus::callsOf(fakeBus::Call::Emit);
  ASSERT_EQ(emits.size(), 2u);
  EXPECT_EQ(emits[0].method, "ecall");
  EXPECT_EQ(emits[0].objPath, ECALL_SERVICE_PATH);
  EXPECT_EQ(emits[0].params,
            "{\"BTCallActive\":true,\"ecall\":true,\"ecallModeActive\":true,\"event\":\"CAN_IMPACT_X\","
            "\"eventdetail\":\"CAN - Any impact event\",\"phoneNumber\":\"911\",\"type\":\"acn\"}\n");
  EXPECT_EQ(emits[1].method, "ecallProgress");
  EXPECT_EQ(emits[1].params, "{\"progress\":55936}\n");
  EXPECT_TRUE(log.hasTrace("emit ecall signal here {\"BTCallActive\""));
  const auto slogs = log.slogEntries();
  EXPECT_TRUE(std::any_of(slogs.begin(), slogs.end(), [](const auto& e) {
    return e.kind == "5" && e.text == "ecallService: emit ecallProgress signal {\"progress\":55936}";
  }));
}

TEST_F(signalsTest, NoEventWithoutEmergencyAndAnEmptyNumberStaysPresent) {
  emitEmergencySignal(false, ecallMain::CAN_IMPACT_D, "", ecallMain::CALL_NONE, false, false);
  const Json::Value payload = lastEcallPayload();
  EXPECT_EQ(payload["event"].asString(), "NONE");
  EXPECT_EQ(payload["eventdetail"].asString(), "NONE");
  EXPECT_TRUE(payload.isMember("phoneNumber") && payload["phoneNumber"].asString().empty());
  EXPECT_FALSE(bECallInProgress.load());
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
}

}  // namespace
