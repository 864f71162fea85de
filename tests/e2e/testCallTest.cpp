// The test call: to the vehicle's test number only, marked as a test, never journaled.
#include "carScene.h"

using namespace carScene;

namespace {

const std::string kTestSignal =
    activeSignal("testCall", "TEST_CALL", "Test call to the vehicle's test number", "5550100");
const std::string kTestDial = "ecallDial {\"address\":\"5550100\",\"callType\":\"TEST\",\"vehicleType\":\"Corvane\"}\n";
const std::string kTestAnnouncement = "ECALL: This is a test call, not an emergency. Test call from a ";
const std::string kJournal = "/fs/etfs/usr/var/ecall/ecall_journal";

std::string refused(const std::string& reason) { return "{\"reason\":\"" + reason + "\",\"result\":\"REFUSED\"}\n"; }
const std::string kCrashDial = "ecallDial {\"address\":\"911\",\"callType\":\"MVA\",\"vehicleType\":\"Corvane\"}\n";
Json::Value phoneSays(Scene& s, const std::string& part) {
  return s.waitForRecord([&](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", part); });
}

}  // namespace

// An emergency call without the cancel window, its own prompts, marked "test"; an
// unreachable line is tried three times; a restart forgets it.
TEST(TestCall, WholeCallMarkedAsATestGivenUpAfterThreeAttemptsAndNeverResumed) {
  Scene s(carOptions(kScale, {"set brand 9", "set gps 12345678 -98765432", "set pace 2000"}));
  const testSupport::Outcome started = ctl(s.car, {"test"});
  EXPECT_EQ(started.exitCode, 0) << started.err;
  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull()) << "the announcement was not spoken";
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());

  EXPECT_SOON_EQ(s.signals(), (Strings{kTestSignal, endedSignal(true), endedSignal(false)}));
  EXPECT_SOON_EQ(s.requests("EmbeddedPhone"), (Strings{"getEmergencyNumbers {\"maxCount\":10}\n", "endActiveCall ",
                                                       kTestDial, "debugAT {\"atString\":\"at+wsos=0\\r\"}\n"}));
  const std::string vetta = kTestAnnouncement + "Vetta vehicle: ";
  EXPECT_SOON_EQ(s.spoken(), (Strings{"PMSG: Starting a test call. This is not a 9-1-1 call.", vetta + kOperatorKeys,
                                      vetta + "Latitude... 12.34567. Longitude... -98.76543. " + kOperatorKeys,
                                      "PMSG: Test call ended."}));
  EXPECT_TRUE(s.logInOrder({"Test call requested, test number 5550100", "Test call started",
                            "Test call: calling 5550100", kCallActive, "Call ended", "Test call ended"}));
  for (const std::string& entry : s.log()) EXPECT_EQ(entry.find("911"), std::string::npos) << entry;
  EXPECT_EQ(testSupport::readFile(s.car.path(kJournal)), "");

  s.markNow();
  s.sim("set dial fail");
  ASSERT_EQ(s.car.call("startTestEcall"), kOk);
  ASSERT_TRUE(s.waitForIdle());
  const std::string failed = activeSignal("failed", "TEST_CALL", "Test call to the vehicle's test number", "5550100");
  EXPECT_SOON_EQ(s.signals(), (Strings{kTestSignal, failed, failed, failed, endedSignal(true), endedSignal(false)}));
  EXPECT_EQ(s.requests("EmbeddedPhone", "ecallDial"), (Strings{kTestDial, kTestDial, kTestDial}));
  EXPECT_TRUE(s.logInOrder({"Test call failed after 3 attempts", "Test call ended"}));

  s.sim("set dial ok");
  s.sim("set answer manual");
  ASSERT_EQ(s.car.call("startTestEcall"), kOk);
  ASSERT_FALSE(phoneSays(s, "ALERTING").isNull());
  s.car.stopService();
  s.sim("psap hangup");
  s.markNow();
  s.car.startService();
  ASSERT_TRUE(s.waitForRequest("AudioMixerManager", "getProperties"));  // the last of its start
  ASSERT_EQ(s.car.call("startTestEcall"), kOk) << "something was resumed";
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial"));
  EXPECT_EQ(s.requests("EmbeddedPhone", "ecallDial").front(), kTestDial);
  for (const std::string& entry : s.car.emergencyLogMessages()) EXPECT_EQ(entry.find("resumed"), std::string::npos);
  EXPECT_EQ(testSupport::readFile(s.car.path(kJournal)), "");
}

// Refused without a usable test number and while an emergency is in hand.
TEST(TestCall, RefusedWithoutAUsableTestNumberAndWhileAnEmergencyIsInHand) {
  Scene s(carOptions(kScale, {"set number 911 5550123"}));
  const std::pair<std::string, std::string> numbers[] = {
      {"none", "no test number is configured in the vehicle configuration"},
      {"empty", "the test number of the vehicle configuration is empty"},
      {"112", "the test number 112 is an emergency number"},
      {"5550123", "the test number 5550123 is an emergency number"}};
  for (const auto& [number, reason] : numbers) {
    s.sim("set testnumber " + number);
    EXPECT_EQ(s.car.call("startTestEcall"), refused(reason)) << number;
  }
  const testSupport::Outcome outcome = ctl(s.car, {"test"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.err, "ecallctl: test refused: the test number 5550123 is an emergency number\n");

  s.sim("set testnumber 5550100");
  s.simUntilTraced("phone off", "start Phone not present timer");
  s.sim("crash B can");
  ASSERT_TRUE(s.car.waitForTrace("embedded phone not available"));
  EXPECT_EQ(s.car.call("startTestEcall"), refused("an emergency is requested or in progress"));
  s.sim("phone on");
  ASSERT_FALSE(phoneSays(s, "ACTIVE").isNull());
  EXPECT_EQ(s.car.call("startTestEcall"), refused("an emergency is requested or in progress"));
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1));
  s.sim("psap hangup");
  ASSERT_FALSE(s.waitForSignal([](const Json::Value& m) { return !m["ecall"].asBool(); }).isNull());
  EXPECT_EQ(s.car.call("startTestEcall"), refused("the emergency mode is on (a call or its call-back period)"));
  ASSERT_TRUE(s.waitForIdle());
  EXPECT_EQ(s.requests("EmbeddedPhone", "ecallDial"), Strings{kCrashDial});
}

// A crash hangs up the test call and is dialled once the (slow) phone let it go.
TEST(TestCall, ACrashEndsTheTestCallAtOnceAndIsDialledWithoutDelay) {
  constexpr double scale = 0.1;
  Scene s(carOptions(scale, {"set hangup 1000"}));
  ASSERT_EQ(s.car.call("startTestEcall"), kOk);
  const std::string announcement = kTestAnnouncement + "Corvane vehicle: " + kOperatorKeys;
  ASSERT_FALSE(s.waitForRecord([&](const Json::Value& r) { return isReadout(r, announcement); }).isNull());
  const size_t beforeCrash = s.car.recordMark();
  s.sim("crash B can");
  const Json::Value dial = s.car.waitForRequestSince(beforeCrash, "EmbeddedPhone", "ecallDial", kLong);
  ASSERT_EQ(testSupport::requestTexts({dial}), Strings{kCrashDial});
  const double crashAt = at(s.waitForRecord([](const Json::Value& r) { return r["event"] == "impact"; }));
  printf("crash during a test call to its dial: %.0f ms\n", (at(dial) - crashAt) * 1000);
  EXPECT_LT(at(dial) - crashAt, atMost(1000, scale));
  EXPECT_LT(at(phoneSays(s, "TERMINATED\",\"callType\":1,\"number\":\"5550100")), at(dial));
  ASSERT_FALSE(s.waitForRecord([](const Json::Value& r) {
                  return isReadout(r, "ECALL: A crash has occurred in a Corvane vehicle: " + kOperatorKeys);
                }).isNull());
  EXPECT_TRUE(containsInOrder(s.signals(), {kTestSignal, kCrashB}));
  EXPECT_TRUE(s.logInOrder({"Test call: calling 5550100", "Test call ended: CAN_IMPACT_B takes over",
                            "ACR triggered on CAN - More severe rear event", "Calling 911"}));
}

