// The service's bus methods, called through the fake bus, and the mode its
// "ecall" signal shows.
#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "unit/unitFixture.h"

namespace {

const char* const OK_REPLY = "{\"result\":\"OK\"}\n";

// The service registered on the fake bus.
class busMethodsTest : public UnitFixture {
 protected:
  void SetUp() override {
    UnitFixture::SetUp();
    ASSERT_GE(SVCIPC_getConnection(SVCIPC_CONNECTION_DEFAULT, 0, &svcIPCConn), 0);
    ASSERT_GE(SVCIPC_registerService(svcIPCConn, ECALL_SERVICE_NAME, ECALL_SERVICE_PATH, 0, onECallRequest, nullptr,
                                     &svcIPCRegHnd),
              0);
  }
};

TEST_F(busMethodsTest, StatusQueriesAlwaysAnswerWhileGeneralRepliesFollowTheCaller) {
  EXPECT_EQ(fakeBus::callMethod("IsECallInProgess", "{}", 1).result, "{\"ecallInProgress\":false}\n");
  EXPECT_EQ(fakeBus::callMethod("IsECallModeActive", nullptr, 1).result, "{\"eCallModeActive\":false}\n");
  EXPECT_EQ(fakeBus::callMethod("getEmergencyCallLanguage", "{}", 1).result, "{\"language\":\"en_US\"}\n");

  EXPECT_EQ(fakeBus::callMethod("exitEcall", "{}", 0).result, OK_REPLY);
  const fakeBus::MethodResult silent = fakeBus::callMethod("exitEcall", "{}", 1);
  EXPECT_FALSE(silent.replied);
  EXPECT_TRUE(silent.contextFreed);
  const auto slogs = log.slogEntries();
  EXPECT_TRUE(std::any_of(slogs.begin(), slogs.end(), [](const auto& e) {
    return e.kind == "5" && e.text == "ecallService: ecallRequest: IsECallModeActive, params: ";
  }));
}

TEST_F(busMethodsTest, UnknownOrMiscasedNamesAreIgnoredButReleased) {
  for (const char* name : {"StartEcall", "startecall", "startEcall ", "isECallInProgress", ""}) {
    const fakeBus::MethodResult r = fakeBus::callMethod(name, "{}", 0);
    EXPECT_FALSE(r.replied) << name;
    EXPECT_TRUE(r.contextFreed) << name;
  }
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);

  const fakeBus::MethodResult r = fakeBus::callMethod("startEcall", nullptr, 1);
  EXPECT_FALSE(r.replied);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::E_CALL_BtnStat) << "started as a button press";
}

TEST_F(busMethodsTest, LoggedStringIsOneEntryCutToSizeAndNeverAnswered) {
  fakeBus::MethodResult r = fakeBus::callMethod("logStringToEcallLog", "{\"message\":\"seat module replaced\\n\"}", 0);
  EXPECT_FALSE(r.replied);
  EXPECT_TRUE(r.contextFreed);
  EXPECT_TRUE(emergencyLog().ends_with("GMT:ODO N/A:seat module replaced\n"));

  for (const char* params : {(const char*)nullptr, "{\"message\":[1]}"}) {  // both log an empty entry
    EXPECT_FALSE(fakeBus::callMethod("logStringToEcallLog", params, 0).replied);
    EXPECT_TRUE(emergencyLog().ends_with("GMT:ODO N/A:"));
  }

  const size_t before = emergencyLog().size();
  const std::string longMessage = "{\"message\":\"" + std::string(10000, 'a') + "\\n\"}";
  fakeBus::callMethod("logStringToEcallLog", longMessage.c_str(), 0);
  EXPECT_EQ(emergencyLog().size(), before + EMERGENCY_LOG_ENTRY_SIZE - 1);
  EXPECT_TRUE(emergencyLog().ends_with("aa\n")) << "a cut entry still ends its line";
}

// The numbers 0 and 1, their prompts and deep or padded texts are tried end
// to end; a state of another type is no state.
TEST_F(busMethodsTest, RetryHmiStateOfAnotherTypePlaysNothing) {
  extServHandle.initExternalServiceHandling();  // the command thread that plays prompts
  for (const char* params : {"{\"state\":\"0\"}", "{\"state\":[0]}", "[0]"})
    EXPECT_EQ(fakeBus::callMethod("setEcallRetryHmiState", params, 0).result, OK_REPLY) << params;
  fakeBus::callMethod("setEcallRetryHmiState", "{\"state\":1}", 1);
  // Commands reach the command thread in order: once prompt 6 is logged,
  // every earlier request has been played or dropped.
  ASSERT_TRUE(testSupport::waitUntil([&] { return emergencyLog().find("TTS rqst 6\n") != std::string::npos; }));
  EXPECT_EQ(emergencyLog().find("TTS rqst 5"), std::string::npos);
}

// The type member remembers every mode but the system error, which shows
// once; a signal without a new mode shows what was shown before.
TEST_F(busMethodsTest, SignalModeTextRemembersEveryModeButSystemError) {
  const std::pair<ecallMain::eCallModeType, const char*> steps[] = {
      {ecallMain::CALL_NOCHANGE, "none"},  // nothing remembered yet
      {ecallMain::CALL_ECALL, "ecall"},
      {ecallMain::CALL_SYSTEM_ERROR, "systemError"},
      {ecallMain::CALL_NOCHANGE, "ecall"},
      {ecallMain::CALL_ECALL_BUTTON_REPEAT, "ecall_button_repeat"},
      {ecallMain::CALL_NOCHANGE, "ecall_button_repeat"},
  };
  for (const auto& [mode, type] : steps) {
    emitEmergencySignal(true, ecallMain::E_CALL_BtnStat, "911", mode, false, true);
    Json::Value payload;
    ASSERT_TRUE(jsonParse(fakeBus::emittedData("ecall").back().c_str(), payload));
    EXPECT_EQ(payload["type"].asString(), type) << "mode " << mode;
  }
}

}  // namespace
