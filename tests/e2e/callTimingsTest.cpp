// Stage timings: bus method, `ecallctl timings` and log agree, and match what the car saw.
#include <cmath>
#include <regex>

#include "callTimings/callTimings.h"
#include "carScene.h"
#include "common/jsonText.h"

using namespace carScene;

namespace {

using Pred = std::function<bool(const Json::Value&)>;

// A stage came no earlier than a record made before the service saw it, or no later than one after.
struct bound {
  const char* stage;
  bool notBefore;
  Pred record;
};

Pred phone(const std::string& state) {
  return [state](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", "CALL_STATE_" + state); };
}
Pred request(const std::string& method, const std::string& part = "") {
  return [=](const Json::Value& r) {
    return r["kind"] == "request" && r["method"] == method && r["params"].asString().find(part) != std::string::npos;
  };
}
const Pred kEnded = [](const Json::Value& r) { return r["kind"] == "ecall" && r["data"] == endedSignal(true); };
const Strings kDialled = {"numberRead", "dialSent", "dialling", "alerting", "active", "announcementStarted",
                          "announcementFinished", "end"};

Json::Value checkCall(Scene& s, const Strings& happened, unsigned dials, const std::vector<bound>& bounds) {
  EXPECT_TRUE(testSupport::waitUntil([&] { return countOf(testing::PrintToString(s.log()), "Call timings") > 0; },
                                     kLong));
  Json::Value timings;
  jsonParse(s.car.call("getLastCallTimings").c_str(), timings);
  const Json::Value& stages = timings["stages"];
  Strings present;  // in the order a call goes through them
  std::string line = "Call timings (ms after trigger):";
  std::vector<std::pair<long long, std::string>> rows = {{0, "trigger"}};
  for (const auto& name : callTimings::stageNames) {
    if (!stages.isMember(name.member)) continue;
    EXPECT_GE(stages[name.member].asInt64(), rows.back().first) << name.member << " before the stage before it";
    present.push_back(name.member);
    rows.push_back({stages[name.member].asInt64(), name.label});
    line += (rows.size() == 2 ? " " : ", ") + std::string(name.logWord) + " " + std::to_string(rows.back().first);
  }
  EXPECT_EQ(present, happened);
  EXPECT_EQ(timings["dials"].asUInt(), dials);
  EXPECT_EQ(s.countInLog(line + "; dials " + std::to_string(dials)), 1u) << testing::PrintToString(s.log());

  std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string table = "stage ms after trigger ms since previous\n";
  for (size_t i = 0; i < rows.size(); ++i)
    table += rows[i].second + " " + std::to_string(rows[i].first) + " " +
             (i == 0 ? "-" : std::to_string(rows[i].first - rows[i - 1].first)) + "\n";
  table += "dial attempts: " + std::to_string(dials) + "\n";
  EXPECT_EQ(std::regex_replace(ctl(s.car, {"timings"}).out, std::regex(" +"), " "), table);

  for (const bound& b : bounds) {
    const Json::Value record = s.waitForRecord(b.record, ms(0));
    const double seen = record.isNull() ? NAN : at(record) * 1000;  // nothing seen fails both ways
    const int64_t stageMs = timings["trigger"].asInt64() + stages[b.stage].asInt64();
    if (b.notBefore) EXPECT_GE(stageMs, std::floor(seen)) << b.stage << " before what the car saw";
    else EXPECT_LE(stageMs, seen) << b.stage << " after what the car saw of it";
  }
  return timings;
}

}  // namespace

// A crash; the centre's call-back (no dial stages); a button call from the press.
TEST(CallTimings, CrashCallTheCentresCallBackAndAButtonCall) {
  Scene s(carOptions(kScale));
  EXPECT_EQ(s.car.call("getLastCallTimings"), "{}\n") << "no call yet";
  s.sim("crash B can");
  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull());
  s.sim("psap hangup");
  checkCall(s, kDialled, 1,
            {{"trigger", true, [](const Json::Value& r) { return r["kind"] == "vehicle" && r.isMember("bytes"); }},
             {"numberRead", true, request("getEmergencyNumbers")}, {"dialSent", false, request("ecallDial")},
             {"dialling", true, phone("DIALING")}, {"alerting", true, phone("ALERTING")},
             {"active", true, phone("ACTIVE")}, {"announcementStarted", false, request("ttsReadout", "\"ECALL\"")},
             {"announcementFinished", false, isMicrophoneOpened},
             {"end", true, phone("TERMINATED")}, {"end", false, kEnded}});

  ASSERT_FALSE(s.waitForRecord(kEnded).isNull());
  s.markNow();
  s.sim("psap callback");
  ASSERT_TRUE(s.car.waitForEmergencyLog("Incoming Call - Active\n", kLong));
  s.sim("psap hangup");
  checkCall(s, {"callbackAnswered", "active", "end"}, 0,
            {{"trigger", true, phone("RINGING")}, {"callbackAnswered", false, request("acceptIncomingCall")},
             {"active", true, phone("ACTIVE")}, {"end", true, phone("TERMINATED")}, {"end", false, kEnded}});

  ASSERT_TRUE(s.waitForIdle());
  s.markNow();
  s.button("ecall", true);
  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull());
  s.sim("psap hangup");
  const Json::Value button = checkCall(
      s, kDialled, 1,
      {{"trigger", true, [](const Json::Value& r) { return r["kind"] == "vehicle" && r["value"] == 1; }},
       {"numberRead", true, request("getEmergencyNumbers")}, {"dialSent", false, request("ecallDial")},
       {"end", false, kEnded}});
  EXPECT_GE(button["stages"]["dialSent"].asInt64() - button["stages"]["numberRead"].asInt64(), atLeast(10000) * 1000)
      << "the delay before the dial";
}
