// The European call: 112 with the car's minimum set of data (MSD), nothing spoken into it.
#include <cmath>
#include <ctime>

#include "carScene.h"
#include "common/jsonText.h"
#include "msd/msd.h"

using namespace carScene;

namespace {

// The dial's parameters, and the MSD it carries as the centre decodes it.
Json::Value paramsOf(const Json::Value& request) {
  Json::Value params;
  jsonParse(request["params"].asString().c_str(), params);
  return params;
}
msd::Content decoded(const Json::Value& params) {
  const msd::Decoded msd = msd::decode(msd::fromHex(params["msd"].asString()).value_or(std::vector<uint8_t>{}));
  EXPECT_EQ(msd.error, "") << params;
  return msd.content;
}
Json::Value nextRequest(Scene& s, const std::string& method) {
  const Json::Value request = s.car.waitForRequestSince(s.mark, "EmbeddedPhone", method, kLong);
  s.markNow();
  return request;
}

}  // namespace

// A van's crash at 72 km/h dials 112 with an automatic MSD (configuration, position,
// heading, two earlier positions); the centre's request gets message 2.
TEST(EuropeanCall, CrashDials112WithTheCarsAutomaticMsdAndNothingIsSpokenIntoTheCall) {
  Scene s(carOptions(kScale, {"set market EU", "set number 911", "set language fr_CA", "set vin KRN4A2ZX6P1000231",
                              "set category N1", "set propulsion diesel,electric", "set belts 2", "set drive 30 72"}));
  const int64_t before = time(nullptr);
  s.sim("crash B can");
  const Json::Value dial = paramsOf(nextRequest(s, "ecallDial"));
  const int64_t after = time(nullptr);
  EXPECT_EQ(dial["address"], "112");
  EXPECT_EQ(dial["callType"], "MVA");
  EXPECT_EQ(dial["ecallKind"], "automatic");
  const msd::Content first = decoded(dial);
  printf("the crash's MSD: %s\n%s", dial["msd"].asCString(), msd::render(first).c_str());
  EXPECT_EQ(first.messageIdentifier, 1);
  EXPECT_TRUE(first.automaticActivation && first.positionCanBeTrusted && !first.testCall);
  EXPECT_EQ(first.vehicleType, msd::VehicleType::lightCommercialN1);
  EXPECT_EQ(first.vin, "KRN4A2ZX6P1000231");
  EXPECT_TRUE(first.propulsion.diesel && first.propulsion.electric && !first.propulsion.gasoline);
  EXPECT_TRUE(first.timestamp >= before && first.timestamp <= after) << first.timestamp;
  // On the drive from where it started (42.331427, -83.045754) at 30 degrees.
  const double north = (*first.latitude / 3600000.0 - 42.331427) * 111195;
  const double east = (*first.longitude / 3600000.0 + 83.045754) * 111195 * std::cos(42.331427 * M_PI / 180);
  EXPECT_GT(north, 0);
  EXPECT_NEAR(east, north * std::tan(M_PI / 6), 2);
  EXPECT_EQ(first.direction, 15);
  // 40 m back at 30 degrees, twice: 11 steps of 100 mas south, 9 west.
  for (const auto& delta : {first.n1, first.n2}) {
    ASSERT_TRUE(delta.has_value());
    EXPECT_NEAR(delta->latitude, -11, 1);
    EXPECT_NEAR(delta->longitude, -9, 1);
  }
  EXPECT_EQ(first.passengers, 2);

  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull());
  s.sim("dtmf 1");
  ASSERT_TRUE(s.waitForLogCount("Rx DTMF: 1", 1));
  s.sim("wait 7000");  // past the moment the announcement would start
  s.sim("psap msd");
  const msd::Content second = decoded(paramsOf(nextRequest(s, "sendMsd")));
  EXPECT_EQ(second.messageIdentifier, 2);
  EXPECT_EQ(second.timestamp, first.timestamp);
  EXPECT_GT(*second.latitude, *first.latitude);
  EXPECT_GT(*second.longitude, *first.longitude);
  const testSupport::Outcome shown = testSupport::run({ECALLCTL_BIN, "--bus", s.car.busAddress(), "msd"});
  EXPECT_EQ(shown.out, msd::render(second));
  const auto secondRead = [](const Json::Value& r) { return r["kind"] == "msd" && r["messageIdentifier"] == 2; };
  EXPECT_FALSE(s.car.waitForRecord(secondRead).isNull()) << "the centre did not read the MSD";

  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());
  EXPECT_EQ(testSupport::spokenTexts(s.car.requestsSince(0, "TextToSpeechService")), (Strings{"PMSG: Appel du 1-1-2.",
                     "PMSG: Fin de l'appel au 1-1-2. Pour rappeler, appuyez sur le bouton 1-1-2 sur le retroviseur."}));
  EXPECT_TRUE(containsInOrder(s.car.emergencyLogMessages(),
                              {"Vehicle market EU", "Calling 112", "Call Active.  The centre reads the MSD, no PSAP TTS",
                               "Rx DTMF: 1"}));
  EXPECT_TRUE(s.car.waitForEmergencyLog("MSD 1 sent with the dial: 38 octets, position 42.3", kLong));
  EXPECT_TRUE(s.car.waitForEmergencyLog("MSD 2 sent on the centre's request: 38 octets, position 42.3", kLong));
}

// Manual and test MSDs; a configuration the MSD cannot carry and no fix still call.
TEST(EuropeanCall, ButtonAndTestCallMsdsAndBadConfigurationStillCalls) {
  Scene s(carOptions(kScale, {"set market EU", "set vin CRV1E23C4N5OIQ017", "set category M9", "set propulsion none",
                              "set belts unknown", "set gps none"}));
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  const Json::Value dial = paramsOf(nextRequest(s, "ecallDial"));
  EXPECT_EQ(dial["ecallKind"], "manual");
  msd::Content expected;
  expected.vin = "CRV1E23C4N5000017";
  expected.timestamp = decoded(dial).timestamp;
  EXPECT_EQ(decoded(dial), expected);
  EXPECT_TRUE(s.car.waitForEmergencyLog("MSD: vehicle category \"M9\" unknown, sent as M1", kLong));
  EXPECT_TRUE(s.car.waitForEmergencyLog("characters 12, 13, 14 outside the VIN alphabet sent as 0", kLong));
  EXPECT_TRUE(s.car.waitForEmergencyLog("MSD 1 sent with the dial: 32 octets, position unknown", kLong));
  ASSERT_TRUE(s.waitForLogCount("Call Active.  The centre reads the MSD, no PSAP TTS", 1));
  ASSERT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_TRUE(s.waitForIdle());

  ASSERT_EQ(s.car.call("startTestEcall"), kOk);
  const Json::Value test = paramsOf(nextRequest(s, "ecallDial"));
  EXPECT_EQ(test["address"], "5550100");
  EXPECT_EQ(test["callType"], "TEST");
  EXPECT_EQ(test["ecallKind"], "test");
  EXPECT_TRUE(decoded(test).testCall && !decoded(test).automaticActivation);
  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull());
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());
  const Strings spoken = testSupport::spokenTexts(s.car.requestsSince(0, "TextToSpeechService"));
  EXPECT_EQ(spoken.at(0), "PMSG: Starting 1-1-2 call. To cancel press the 1-1-2 button on the mirror.");
  EXPECT_TRUE(containsInOrder(spoken, {"PMSG: Starting a test call. This is not a 1-1-2 call.", "PMSG: Test call ended."}));
  for (const std::string& text : spoken) EXPECT_EQ(text.rfind("ECALL", 0), std::string::npos) << text;
}
