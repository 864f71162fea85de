// A requested emergency is never lost: to an absent phone, a failed dial, no number, a hung peer.
#include "carScene.h"

using namespace carScene;

namespace {

// A car run so fast that the 60 s retry period takes one second.
constexpr double kRetryScale = 1.0 / 60;

// Ends the emergency in hand and waits for idle; marks what follows.
void cancelAndWaitForIdle(Scene& s) {
  s.markNow();
  EXPECT_EQ(s.car.call("exitEcall"), kOk);
  EXPECT_TRUE(s.waitForIdle());
  s.markNow();
}

bool isAnnouncementWithPosition(const Json::Value& r) {
  return isReadout(r, "ECALL: A crash has occurred in a Vetta vehicle: " + kCarPosition + kOperatorKeys);
}

// The crash recorded while the phone cannot call.
const char* const kCrashRecorded = "Emergency happened. type 3. mode";

std::vector<Json::Value> dials(Scene& s) { return s.car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial"); }

}  // namespace

// Waiting for the phone (every service away at start-up, or OFF) it is placed on
// its return; a cancel drops it.
TEST(NeverLost, EmergencyWhileThePhoneIsAwayIsPlacedWhenItReturns) {
  Scene s(carOptions(kRetryScale, {}, false));
  for (const auto& service : kCarServices) s.sim("peer " + service + " gone");
  s.car.startService();
  ASSERT_TRUE(s.car.waitForTrace("ERROR Obtaining VARIANT_ECELL!!!!  5 attempts were made", kLong));
  ASSERT_TRUE(s.car.waitForTrace("register embeddedPhoneSvc, avail 0", kLong));
  ASSERT_TRUE(s.car.waitForChannelConnected(kLong));
  EXPECT_EQ(s.car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
  s.simUntilTraced("crash B can", kCrashRecorded);
  for (const auto& service : kCarServices) s.sim("peer " + service + " back");
  ASSERT_TRUE(s.car.waitForTrace("embeddedPhone owner changed, avail 1", kLong));
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the crash was not placed on the phone's return";
  EXPECT_TRUE(s.waitForSignalType("acn"));
  cancelAndWaitForIdle(s);

  s.simUntilTraced("phone off", "embedded phone status signal: change from ON to OFF");
  s.simUntilTraced("crash B can", kCrashRecorded);
  EXPECT_EQ(s.car.call("exitEcall"), kOk);
  s.simUntilTraced("phone on", "Ecall caching status not handled");
  s.sim("wait 61000");
  EXPECT_TRUE(dials(s).empty()) << "a cancelled emergency was placed";
}

// Redialled after the retry period without limit: refused, idle, unanswered on
// the bus, while another call rings, or ended with only an idle report.
TEST(NeverLost, FailedDialsAreRedialledAfterTheRetryPeriod) {
  Scene s(carOptions(kRetryScale, {"set dial fail"}));
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForRequestCount("EmbeddedPhone", "ecallDial", 5)) << "the redials stopped";
  s.sim("set dial ok");
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1)) << "not placed once the phone took the dial";
  const std::vector<Json::Value> refused = dials(s);
  for (size_t i = 1; i < refused.size(); ++i)
    EXPECT_GE(at(refused[i]) - at(refused[i - 1]), atLeast(60000, kRetryScale)) << "dial " << i + 1;
  EXPECT_GE(s.countInLog("Error dial PSAP number failed"), 5u);
  EXPECT_EQ(s.countInLog("Calling 911"), refused.size()) << testing::PrintToString(s.log());
  cancelAndWaitForIdle(s);

  s.sim("set dial idle");
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForRequestCount("EmbeddedPhone", "ecallDial", 3)) << "the idle dial was not retried";
  std::vector<Json::Value> idle = dials(s);
  // The connect time-out, then the retry period.
  EXPECT_GE(at(idle[2]) - at(idle[1]), atLeast(60000 + 60000, kRetryScale));
  EXPECT_EQ(s.countInLog("Error: Call state did not transition after successful dial request"), 2u);

  s.markNow();
  s.sim("peer EmbeddedPhone hang ecallDial");
  s.sim("set dial ok");
  ASSERT_TRUE(s.waitForLogCount("Error dial PSAP number failed", 2)) << "an unanswered dial is not a failed dial";
  ASSERT_TRUE(s.waitForRequestCount("EmbeddedPhone", "ecallDial", 3));
  EXPECT_TRUE(s.car.waitForSlog("Async call dial failed"));
  s.sim("peer EmbeddedPhone normal");
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1)) << "no call once the phone answers again";

  // A call ringing when the retry period ends delays the redial until it is gone.
  cancelAndWaitForIdle(s);
  s.sim("set dial fail");
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForLogCount("Error dial PSAP number failed", 1));
  s.simUntilTraced("psap callback 5551234", "ecallState CALL_STATE_RINGING");
  const std::string runPulse = "Received run state machine pulse";  // the retry, while it rings
  const size_t runs = s.countInTrace(runPulse);
  ASSERT_TRUE(testSupport::waitUntil([&] { return s.countInTrace(runPulse) > runs; }, kLong));
  s.sim("set dial ok");
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForRequestCount("EmbeddedPhone", "ecallDial", 2)) << "not dialled again after the other call";

  cancelAndWaitForIdle(s);
  s.sim("set answer manual");
  s.sim("set end idle");
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForSignalType("failed"));  // the connect time-out
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForRequestCount("EmbeddedPhone", "ecallDial", 2)) << "an idle end left nothing armed";
}

// Without a number it is kept and placed once one comes; a cancel drops it.
TEST(NeverLost, EmergencyWithoutNumberIsPlacedOnceANumberComes) {
  Scene s(carOptions(kRetryScale, {"set number none"}));
  s.sim("crash B can");
  ASSERT_TRUE(s.car.waitForEmergencyLog("Error failed to obtain PSAP number\n", kLong));
  EXPECT_TRUE(s.car.waitForSlog("PSAP ecall number not set in the embedded phone"));
  EXPECT_TRUE(s.waitForSignalType("systemError"));
  // Three reads of each attempt, and the second attempt after the retry period.
  ASSERT_TRUE(s.waitForRequestCount("EmbeddedPhone", "getEmergencyNumbers", 6));
  std::vector<Json::Value> reads = s.car.requestsSince(s.mark, "EmbeddedPhone", "getEmergencyNumbers");
  EXPECT_GE(at(reads[3]) - at(reads[2]), atLeast(60000, kRetryScale));
  EXPECT_EQ(s.countInLog("Error failed to obtain PSAP number"), 1u) << "the failure is told once per loss";

  s.sim("set number 911");
  s.sim("phone on");  // the phone's report, whose number read brings it
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the kept emergency was not placed";
  EXPECT_TRUE(s.waitForSignalType("acn"));
  EXPECT_TRUE(s.logInOrder({"System error no ecall number programmed OCCURRED", "Error failed to obtain PSAP number",
                            "System error no ecall number programmed CLEARED", "Calling 911"}));
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1));
  cancelAndWaitForIdle(s);

  s.sim("set number none");
  const std::string noNumber = "PSAP ecall number not set in the embedded phone";
  const size_t told = countOf(s.car.serviceStderr(), noNumber);
  s.sim("crash B can");
  ASSERT_TRUE(testSupport::waitUntil([&] { return countOf(s.car.serviceStderr(), noNumber) > told; }, kLong));
  EXPECT_TRUE(s.waitForLogCount("System error message generated again due to no ecall number programmed", 1))
      << "a second loss of the number is not told as a system error again";
  EXPECT_EQ(s.car.call("exitEcall"), kOk);
  s.sim("set number 911");
  s.sim("phone on");
  s.sim("wait 61000");
  EXPECT_TRUE(dials(s).empty()) << "a cancelled emergency was placed";
}

// Hung peers cost one bounded wait each; what they refine keeps its last value.
TEST(NeverLost, HungPeersDoNotHoldTheCall) {
  Scene s(carOptions(kScale, {"peer platform hang", "set brand 9"}));
  EXPECT_TRUE(s.car.waitForTrace("The variant query timed out", kLong));
  EXPECT_TRUE(s.car.waitForTrace("ERROR Obtaining VARIANT_ECELL!!!!  5 attempts were made", kLong));
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1));
  EXPECT_FALSE(s.waitForRecord(isAnnouncementWithPosition).isNull());
  cancelAndWaitForIdle(s);

  for (const char* hang : {"peer VehicleConfig hang getProperties", "peer VehicleStatus hang getProperties",
                           "peer AudioMixerManager hang", "peer NDR hang JSON_GetProperties"}) s.sim(hang);
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "a hung peer held the dial";
  EXPECT_TRUE(s.car.waitForSlog("The vehicle brand query timed out after"));
  EXPECT_TRUE(s.car.waitForSlog("The language query timed out after"));
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1));
  // The announcement still names the brand and the position last known.
  EXPECT_FALSE(s.waitForRecord(isAnnouncementWithPosition).isNull());
  EXPECT_TRUE(s.car.waitForSlog("The position query timed out after"));
}

// A silent phone costs the start-up one bounded wait; a press meanwhile is kept.
TEST(NeverLost, SilentPhoneAtStartUpNeitherDelaysTheInputsNorLosesAPress) {
  constexpr double scale = 0.1;
  Scene s(carOptions(scale, {"peer EmbeddedPhone hang"}, false));
  s.car.startService();
  const Json::Value query = s.car.waitForRequest("EmbeddedPhone", "getProperties");
  ASSERT_FALSE(query.isNull());
  s.sim("button ecall tap");
  const Json::Value connected =
      s.car.waitForRecord([](const Json::Value& r) { return r["kind"] == "vehicle" && r["event"] == "connected"; });
  ASSERT_FALSE(connected.isNull());
  EXPECT_LT(at(connected) - at(query), atMost(1000, scale)) << "the inputs waited for the silent phone";
  s.sim("peer EmbeddedPhone normal");
  s.sim("phone on");
  EXPECT_FALSE(s.car.waitForRequest("EmbeddedPhone", "ecallDial").isNull()) << "the press during start-up was lost";
}
