// The service's bus methods, called through the fake bus.
#include "externalServiceHandling/externalServiceHandling.h"
#include "frameFixture.h"

namespace {

const char* const OK_REPLY = "{\"result\":\"OK\"}\n";

class busMethodsTest : public frameFixture {};

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

TEST_F(busMethodsTest, StatusQueriesAlwaysAnswerWhileGeneralRepliesFollowTheCaller) {
  // Before any "ecall" signal the service is not in an emergency.
  fakeBus::MethodResult r = fakeBus::callMethod("IsECallInProgess", "{}", 1);
  EXPECT_TRUE(r.replied);
  EXPECT_EQ(r.result, "{\"ecallInProgress\":false}\n");
  EXPECT_TRUE(r.contextFreed);

  r = fakeBus::callMethod("IsECallModeActive", nullptr, 1);
  EXPECT_EQ(r.result, "{\"eCallModeActive\":false}\n");
  r = fakeBus::callMethod("getEmergencyCallLanguage", "{}", 1);
  EXPECT_EQ(r.result, "{\"language\":\"en_US\"}\n");

  // The in-progress answer is what the last "ecall" signal said.
  emitEmergencySignal(true, ecallMain::E_CALL_BtnStat, "911", ecallMain::CALL_ECALL, false, true);
  r = fakeBus::callMethod("IsECallInProgess", "{}", 0);
  EXPECT_EQ(r.result, "{\"ecallInProgress\":true}\n");

  r = fakeBus::callMethod("exitEcall", "{}", 0);
  EXPECT_EQ(r.result, OK_REPLY);
  r = fakeBus::callMethod("exitEcall", "{}", 1);
  EXPECT_FALSE(r.replied);
  EXPECT_TRUE(r.contextFreed);

  bool logged = false;
  for (const auto& entry : log.slogEntries())
    if (entry.kind == "5" && entry.text == "ecallService: ecallRequest: IsECallModeActive, params: ") logged = true;
  EXPECT_TRUE(logged) << "a call without parameters is logged with an empty parameter text";
  EXPECT_TRUE(log.hasTrace("send ecall status response {\"language\":\"en_US\"}\n for method getEmergencyCallLanguage"));
  EXPECT_TRUE(log.hasTrace("send general response {\"result\":\"OK\"}\n for method exitEcall"));
}

TEST_F(busMethodsTest, UnknownOrMiscasedNamesAreIgnoredButReleased) {
  for (const char* name : {"StartEcall", "startecall", "startEcall ", "isECallInProgress", "nosuchMethod", ""}) {
    const fakeBus::MethodResult r = fakeBus::callMethod(name, "{}", 0);
    EXPECT_TRUE(r.handled) << name;
    EXPECT_FALSE(r.replied) << name;
    EXPECT_TRUE(r.contextFreed) << name;
  }
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);
}

TEST_F(busMethodsTest, StartEcallWithoutReplyStillStartsTheEmergency) {
  const fakeBus::MethodResult r = fakeBus::callMethod("startEcall", nullptr, 1);
  EXPECT_FALSE(r.replied);
  EXPECT_TRUE(r.contextFreed);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::E_CALL_BtnStat);
}

TEST_F(busMethodsTest, LoggedStringIsOneEntryCutToSizeAndNeverAnswered) {
  fakeBus::MethodResult r = fakeBus::callMethod("logStringToEcallLog", "{\"message\":\"seat module replaced\\n\"}", 0);
  EXPECT_FALSE(r.replied);
  EXPECT_TRUE(r.contextFreed);
  EXPECT_TRUE(log.hasTrace("logStringToEcallLog: seat module replaced"));
  std::string text = emergencyLog();
  EXPECT_TRUE(endsWith(text, "GMT:ODO N/A:seat module replaced\n"));

  // No parameters at all: an empty entry, still no answer.
  r = fakeBus::callMethod("logStringToEcallLog", nullptr, 0);
  EXPECT_FALSE(r.replied);
  text = emergencyLog();
  EXPECT_TRUE(endsWith(text, "GMT:ODO N/A:"));

  // A message far beyond one entry is cut, never overflowing the line.
  const size_t before = emergencyLog().size();
  const std::string longMessage = "{\"message\":\"" + std::string(10000, 'a') + "\\n\"}";
  fakeBus::callMethod("logStringToEcallLog", longMessage.c_str(), 0);
  text = emergencyLog();
  EXPECT_EQ(text.size(), before + EMERGENCY_LOG_ENTRY_SIZE - 1);
  EXPECT_EQ(text.back(), 'a');
}

TEST_F(busMethodsTest, RetryHmiStatePlaysRetryPromptsOnlyForStatesZeroAndOne) {
  extServHandle.initExternalServiceHandling();  // the command thread that plays prompts
  // None of these asks for a prompt, and none may upset the handler.
  for (const char* params : {"{\"state\":2}", "not json", "{\"state\":\"0\"}", "{\"state\":[0]}", "[0]", "{}"}) {
    const fakeBus::MethodResult r = fakeBus::callMethod("setEcallRetryHmiState", params, 0);
    EXPECT_EQ(r.result, OK_REPLY) << params;
    EXPECT_TRUE(r.contextFreed) << params;
  }
  fakeBus::callMethod("setEcallRetryHmiState", "{\"state\":0}", 1);
  fakeBus::callMethod("setEcallRetryHmiState", "{\"state\":1}", 0);

  // Commands reach the command thread in order: once prompt 6 is logged,
  // every earlier request has been played or dropped.
  ASSERT_TRUE(testSupport::waitUntil([&] { return emergencyLog().find("TTS rqst 6\n") != std::string::npos; }));
  const std::string text = emergencyLog();
  EXPECT_EQ(countOf(text, "TTS rqst"), 2u);
  EXPECT_LT(text.find("TTS rqst 5\n"), text.find("TTS rqst 6\n"));
}

TEST_F(busMethodsTest, HardResetGpsAnswersThenLogsAndResetsTheModule) {
  const fakeBus::MethodResult r = fakeBus::callMethod("hardResetGPS", "{}", 0);
  EXPECT_EQ(r.result, OK_REPLY);
  const std::string text = emergencyLog();
  const size_t calling = text.find("Calling v850ResetSierra from an external dbus call");
  ASSERT_NE(calling, std::string::npos);
  // The channel to the vehicle micro is not open here, so the reset itself
  // reports its failed attempts after the line above.
  EXPECT_NE(text.find("Failed to send IPC msg to reset Sierra.", calling), std::string::npos);
}

TEST_F(busMethodsTest, SaveLogToUsbAnswersAndMovesTheLog) {
  testSupport::makeDirs(root.path("/fs/usb0"));
  ASSERT_TRUE(testSupport::fileExists(root.path(emergencyLogPath)));
  const fakeBus::MethodResult r = fakeBus::callMethod("saveEmergencyLogToUSBAndRemoveLocalLog", nullptr, 0);
  EXPECT_EQ(r.result, OK_REPLY);
  EXPECT_FALSE(testSupport::fileExists(root.path(emergencyLogPath)));
}

}  // namespace
