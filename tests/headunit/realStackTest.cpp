// ecallService on the real stack: ofonod with the modem emulator as the
// network and the emergency centre, gpsd fed with the project's drive, and
// espeak-ng writing the prompts, all behind ecall-headunit.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <regex>

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

// The texts the bridge was asked to speak, in order: the Nth is written to
// NNN-TYPE.wav once spoken.
std::vector<std::string> readouts(const std::string& log) {
  static const std::regex readout(R"re(ttsReadout \{"data":"([^"]*)")re");
  std::vector<std::string> texts;
  for (std::sregex_iterator it(log.begin(), log.end(), readout), end; it != end; ++it) texts.push_back((*it)[1]);
  return texts;
}

// Every prompt spoken is a file of speech as long as its text takes to say
// (a synthetic voice says 4 to 40 characters a second).
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

}  // namespace

// A crash: the micro's impact becomes ATD911 on the modem, the operator
// hears where gpsd put the car, hangs up and calls back, and the car answers.
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

// The modem's line breaks: oFono powers it down, the phone is reported OFF,
// and the service asks the micro to reset the module, as with any phone.
TEST(RealStack, ModemGoingOfflineIsAPhoneFailure) {
  RealHeadUnit car;
  car.network("drop");
  ASSERT_TRUE(car.waitForBridge("\"embeddedPhoneStatus\":{\"status\":false}"));
  EXPECT_TRUE(car.harness.waitForTrace("Get Embedded Phone Status: OFF, start Phone not present timer"));
  EXPECT_TRUE(car.harness.waitForChannelMessage({3}, ms(20000)));
  // The bridge runs without a console and ends cleanly on SIGTERM.
  car.bridge->signal(SIGTERM);
  EXPECT_EQ(car.bridge->wait(ms(10000)), 0) << car.bridge->err();
}
