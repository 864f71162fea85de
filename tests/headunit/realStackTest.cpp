// ecallService on the real stack behind ecall-headunit (see realHeadUnit.h).
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <regex>

#include "common/jsonText.h"
#include "msd/msd.h"
#include "realHeadUnit.h"
#include "support/testSupport.h"

namespace {

using ms = std::chrono::milliseconds;

// Seconds of speech in a WAV file espeak-ng wrote (16-bit mono).
double wavSeconds(const std::string& path) {
  const std::string data = testSupport::readFile(path);
  if (data.size() < 44 || data.compare(0, 4, "RIFF") != 0) return 0;
  uint32_t rate;
  memcpy(&rate, data.data() + 24, 4);
  return rate ? (data.size() - 44) / 2.0 / rate : 0;
}

// The texts the bridge was asked to speak; the Nth is spoken to NNN-TYPE.wav.
std::vector<std::string> readouts(const std::string& log) {
  static const std::regex readout(R"re(ttsReadout \{"data":"([^"]*)")re");
  std::vector<std::string> texts;
  for (std::sregex_iterator it(log.begin(), log.end(), readout), end; it != end; ++it) texts.push_back((*it)[1]);
  return texts;
}

// Each prompt's file lasts as its text takes to say (4 to 40 characters a second).
void expectSpokenFiles(const std::string& log) {
  static const std::regex spoken(R"re(spoken to (\S+/([0-9]{3})-[A-Z]+\.wav))re");
  const auto texts = readouts(log);
  int files = 0;
  for (std::sregex_iterator it(log.begin(), log.end(), spoken), end; it != end; ++it, ++files) {
    const size_t n = std::stoul((*it)[2]);
    ASSERT_LE(n, texts.size());
    const double seconds = wavSeconds((*it)[1]), characters = static_cast<double>(texts[n - 1].size());
    EXPECT_GT(seconds, characters / 40) << (*it)[1] << ": " << texts[n - 1];
    EXPECT_LT(seconds, characters / 4 + 1) << (*it)[1] << ": " << texts[n - 1];
  }
  EXPECT_GE(files, 3) << log;
}

// A bridge service's answer, "error" for an error reply.
std::string ask(RealHeadUnit& car, const std::string& service, const std::string& method, const std::string& params) {
  std::string reply;
  return SVCIPC_IS_ERROR(car.harness.invoke(service, method, params, 20000, &reply)) ? "error" : reply;
}

// NDR's answer once it has both earlier positions (4 s into the 20 s drive),
// else null; each query's log line paces the next.
Json::Value ndrWithEarlierPositions(RealHeadUnit& car) {
  Json::Value ndr;
  const bool full = car.bridge->waitForOutput([&] {
    jsonParse(ask(car, "NDR", "JSON_GetProperties", R"({"inprop":["POS_Position","POS_History"]})").c_str(), ndr);
    const Json::Value &now = ndr["outprop"]["POS_Position"], &earlier = ndr["outprop"]["POS_History"];
    return earlier.size() == 2 && now["DR_latitude"].asInt() - earlier[1]["DR_latitude"].asInt() >= 400;
  }, ms(30000));
  return full ? ndr : Json::Value();
}

std::string dial(const std::string& kind, const std::string& msd) {
  return R"({"address":"112","callType":"MVA","ecallKind":")" + kind + R"(","msd":")" + msd +
         R"(","vehicleType":"Corvane"})";
}

}  // namespace

// A crash dials ATD911; the operator hears gpsd's position and calls back.
TEST(RealStack, CrashCallsTheOperatorWithGpsdsPositionAndTakesTheCallBack) {
  RealHeadUnit car;
  const auto crashAt = std::chrono::steady_clock::now();
  car.harness.sim("crash B can");
  ASSERT_TRUE(car.waitForModem("at ATD911;"));
  printf("crash to ATD911 through oFono: %lld ms\n",
         static_cast<long long>(std::chrono::duration_cast<ms>(std::chrono::steady_clock::now() - crashAt).count()));
  ASSERT_TRUE(car.waitForBridge("CALL_STATE_ALERTING"));
  car.network("answer");

  // The drive runs around 45.501 N 73.568 W.
  ASSERT_TRUE(car.waitForBridge("Longitude... -73.56")) << car.bridgeLog();
  EXPECT_TRUE(std::regex_search(car.bridgeLog(), std::regex("ttsReadout \\{\"data\":\"A crash has occurred in a Vetta "
                                                            "vehicle: Latitude\\.\\.\\. 45\\.50[0-9]{3}\\. Longitude")));
  const auto texts = readouts(car.bridgeLog());
  const size_t position = std::find_if(texts.begin(), texts.end(), [](const std::string& t) {
                            return t.find("Longitude") != std::string::npos;
                          }) - texts.begin() + 1;
  char file[32];
  snprintf(file, sizeof file, "/%03zu-ECALL.wav", position);
  ASSERT_TRUE(car.waitForBridge("spoken to " + car.speechFolder() + file)) << car.bridgeLog();

  const size_t mark = car.modemMark();
  car.network("hangup");
  ASSERT_TRUE(car.waitForBridge("CALL_STATE_TERMINATED"));
  car.network("ring 911");
  EXPECT_TRUE(car.waitForModem("at ATA", mark)) << car.bridgeLog();
  EXPECT_TRUE(car.waitForBridge("\"callState\":\"CALL_STATE_ACTIVE\",\"callType\":2"));
  expectSpokenFiles(car.bridgeLog());
}

// A test call dials the test number only; operator and occupants hear it is a test.
TEST(RealStack, TestCallDialsTheTestNumberThroughOfono) {
  RealHeadUnit car;
  const auto askedAt = std::chrono::steady_clock::now();
  const auto since = [&] { return static_cast<long long>((std::chrono::steady_clock::now() - askedAt) / ms(1)); };
  ASSERT_EQ(car.harness.call("startTestEcall"), "{\"result\":\"OK\"}\n");
  ASSERT_TRUE(car.waitForModem("at ATD5550100;"));
  const long long dialMs = since();
  ASSERT_TRUE(car.waitForBridge("CALL_STATE_ALERTING"));
  car.network("answer");
  ASSERT_TRUE(car.waitForBridge("\"callState\":\"CALL_STATE_ACTIVE\",\"callType\":1,\"number\":\"5550100\""))
      << car.bridgeLog();
  printf("test call request to ATD5550100 through oFono: %lld ms, to the call active: %lld ms\n", dialMs, since());
  ASSERT_TRUE(car.waitForBridge("This is a test call, not an emergency. Test call from a Vetta")) << car.bridgeLog();
  car.network("hangup");
  EXPECT_TRUE(car.waitForBridge("Test call ended.")) << car.bridgeLog();
  ASSERT_TRUE(car.harness.waitForEmergencyLog("Call timings"));
  printf("test call timings: %s", car.harness.call("getLastCallTimings").c_str());
  // Every number the modem was asked to dial is the test number.
  const std::string modem = car.modem->out();
  static const std::regex dial("at ATD(\\S*)");
  for (std::sregex_iterator it(modem.begin(), modem.end(), dial), end; it != end; ++it) EXPECT_EQ((*it)[1], "5550100;");
}

// A module refusing its power-up is retried (logged once); the crash is dialled
// without a SIM, with a PIN, on a network not its own (antenna never reported
// working); a broken line resets the module; SIGTERM ends the bridge cleanly.
TEST(RealStack, CrashIsPlacedWhateverStateTheModemComesUpIn) {
  RealHeadUnit car("off");
  ASSERT_TRUE(car.waitForBridge("cannot power the modem: Operation failed")) << car.bridgeLog();
  car.harness.sim("crash B can");
  ASSERT_TRUE(car.harness.waitForTrace("embedded phone not available"));
  size_t mark = car.modemMark();
  car.network("state silent");
  ASSERT_TRUE(car.waitForModem("at AT", mark));
  std::string reply;
  EXPECT_FALSE(SVCIPC_IS_ERROR(car.harness.invoke("EmbeddedPhone", "getProperties", "{}", 10000, &reply)));
  EXPECT_NE(reply.find("{\"status\":false}"), std::string::npos) << reply;
  car.network("state nosim");
  for (const std::string next : {"pin", "limited", ""}) {
    ASSERT_TRUE(car.waitForModem("at ATD911;", mark, ms(40000))) << car.bridgeLog() << car.modem->err();
    if (next.empty()) break;
    car.network("state " + next);
    mark = car.modemMark();
    car.ofono->signal(SIGTERM);
    car.ofono->wait(ms(5000));
    car.startOfono();
  }
  ASSERT_TRUE(car.waitForBridge(" is up after "));
  const std::string log = car.bridgeLog();
  std::smatch up;
  EXPECT_TRUE(std::regex_search(log, up, std::regex("up after ([2-9]|[0-9]{2,}) refusals in [0-9.]+ s"))) << log;
  printf("modem refusing its power-up: phone %s\n", up.str().c_str());
  EXPECT_EQ(log.find("cannot power the modem"), log.rfind("cannot power the modem")) << log;
  EXPECT_EQ(log.find("PHONE_DIAG_ANTENNA_NORMAL"), std::string::npos) << log;
  car.network("drop");
  EXPECT_TRUE(car.harness.waitForChannelMessage({3}, ms(20000)));
  car.bridge->signal(SIGTERM);
  EXPECT_EQ(car.bridge->wait(ms(10000)), 0) << car.bridge->err();
}

// A European crash loads an MSD of gpsd's drive before AT+CECALL=3; the
// centre's request for a fresh one brings message 2.
TEST(RealStack, EuropeanCrashSendsGpsdsDriveInTheMsdThroughTheModem) {
  RealHeadUnit car({.europe = true});
  ASSERT_FALSE(ndrWithEarlierPositions(car).isNull()) << car.bridgeLog();
  car.harness.sim("crash B can");
  ASSERT_TRUE(car.waitForModem("ecall at AT+CECALL=3")) << car.bridgeLog();
  const std::string said = car.modem->out();
  EXPECT_LT(said.find("ecall at AT+MSDLOAD=\"02"), said.find("ecall at AT+CECALL=3")) << said;
  for (const char* field : {"activation: automatic\nmsd| call: emergency\nmsd| position can be trusted: yes",
                            "VIN: NRD1ECALL0T000042\nmsd| propulsion: gasoline, electric", "direction: 46 degrees",
                            "passengers: 2"})
    EXPECT_NE(said.find(std::string("msd| ") + field), std::string::npos) << field << "\n" << said;
  // The drive starts at 45.50123 N and goes 0.0001 degrees north a second.
  std::smatch latitude;
  ASSERT_TRUE(std::regex_search(said, latitude, std::regex(R"(msd\| latitude: ([0-9.]+) N)"))) << said;
  const double seconds = (std::stod(latitude[1]) - 45.50123) / 0.0001;
  EXPECT_TRUE(seconds > -0.01 && seconds < 19.01) << said;
  const auto npos = std::string::npos;
  EXPECT_TRUE(seconds < 3.99 || (said.find("N1: -7, -6") != npos && said.find("N2: -7, -6") != npos)) << said;
  ASSERT_TRUE(car.waitForBridge("CALL_STATE_ALERTING")) << car.bridgeLog();
  car.network("answer");
  ASSERT_TRUE(car.waitForBridge(R"("callState":"CALL_STATE_ACTIVE","callType":1,"number":"112")")) << car.bridgeLog();
  const size_t mark = car.modemMark();
  car.network("msdrequest");
  EXPECT_TRUE(car.waitForModem("msd| message identifier: 2", mark)) << car.bridgeLog();
}

// Without its eCall port, a European call is dialled plain (no MSD), and logged.
TEST(RealStack, EuropeanCallWithoutItsEcallPortIsDialledPlain) {
  RealHeadUnit car({.europe = true, .service = false});
  msd::Session session({true, false, time(nullptr)}, {msd::VehicleType::passengerM1, "NRD1ECALL0T000042", {}});
  const std::string msd = msd::toHex(msd::encode(session.next({}, 2).content).octets);
  size_t mark = car.modemMark();
  ASSERT_EQ(ask(car, "EmbeddedPhone", "ecallDial", dial("automatic", msd)), "{\"result\":\"OK\"}\n") << car.bridgeLog();
  ASSERT_TRUE(car.waitForModem("ecall at AT+CECALL=3", mark)) << car.bridgeLog();
  ASSERT_TRUE(car.waitForBridge(R"("callState":"CALL_STATE_ALERTING","callType":1,"number":"112")")) << car.bridgeLog();
  car.network("hangup");
  ASSERT_TRUE(car.waitForBridge("CALL_STATE_TERMINATED"));
  car.network("ecalloff");
  mark = car.modemMark();
  EXPECT_EQ(ask(car, "EmbeddedPhone", "ecallDial", dial("manual", msd)), "{\"result\":\"OK\"}\n");
  EXPECT_TRUE(car.waitForModem("at ATD112;", mark)) << car.bridgeLog();
  EXPECT_TRUE(car.waitForBridge("did not place the eCall (")) << car.bridgeLog();
}
