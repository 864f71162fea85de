// Bad input from clients, the airbag controller and the vehicle object: nothing
// overflows, and the next request still calls.
#include <cctype>
#include <map>

#include "carScene.h"

using namespace carScene;

namespace {

constexpr size_t kMiB = 1024 * 1024;
// One line of the emergency log: the entry buffer less its terminator.
constexpr size_t kLogLineMax = 255;
// "<N>" + "ecallService: " + a system log text of at most 499 bytes.
constexpr size_t kSlogLineMax = 3 + 14 + 499;

size_t longestLine(const std::string& text) {
  size_t longest = 0;
  for (const auto& line : testSupport::splitLines(text)) longest = std::max(longest, line.size());
  return longest;
}

bool timeStampAt(const std::string& text, size_t pos) {
  return pos < text.size() && text.size() - pos >= 9 && isdigit(static_cast<unsigned char>(text[pos])) && text[pos + 2] == ':' &&
         text[pos + 5] == ':' && text[pos + 8] == ' ';
}

// An entry cut to the log's line fills it and still ends it.
void expectCutEntryEndsItsLine(const std::string& log, size_t lineStart, size_t end) {
  EXPECT_EQ(end - lineStart, kLogLineMax - 1);
  EXPECT_EQ(log.substr(end, 1), "\n") << "the cut entry does not end its line";
  EXPECT_TRUE(timeStampAt(log, end + 1)) << "the next entry does not follow the cut";
}

std::string hexBytes(const std::vector<int>& bytes) {
  std::string text;
  char byte[4];
  for (int b : bytes) {
    snprintf(byte, sizeof byte, " %02x", b);
    text += byte;
  }
  return text;
}

void refuseRequest(SVCIPC_tReqContext context, const char*, const char*, int, SVCIPC_tUserToken) {
  SVCIPC_freeReqContext(context);
}

class SignalForger {
 public:
  explicit SignalForger(const std::string& address) {
    EXPECT_FALSE(SVCIPC_IS_ERROR(SVCIPC_getConnectionByAddress(address.c_str(), &mConnection)));
  }
  ~SignalForger() {
    if (mConnection) SVCIPC_closeConnection(mConnection);
  }
  bool emit(const std::string& service, const std::string& signal, const std::string& data) {
    SVCIPC_tSvcRegHnd& registration = mRegistrations[service];
    if (registration == nullptr) {
      const std::string name = "com.nordak.test.Forger" + std::to_string(mRegistrations.size());
      const std::string path = "/com/nordak/service/" + service;
      if (SVCIPC_IS_ERROR(SVCIPC_registerService(mConnection, name.c_str(), path.c_str(), 0, refuseRequest, nullptr,
                                                 &registration)))
        return false;
    }
    return !SVCIPC_IS_ERROR(SVCIPC_asyncEmit(registration, signal.c_str(), data.c_str(), nullptr, nullptr));
  }
  // Answered once the service has had every signal sent before it.
  bool roundTrip() {
    return !SVCIPC_IS_ERROR(testSupport::invokeOn(mConnection, "ecallService", "IsECallInProgess", "{}", 10000, nullptr));
  }

 private:
  SVCIPC_tConnection mConnection = nullptr;
  std::map<std::string, SVCIPC_tSvcRegHnd> mRegistrations;
};

}  // namespace

// Airbag messages of 0xFF or too long, a vehicle object of 1 MiB, not UTF-8 or with a NUL.
TEST(BadInput, GarbageOnTheAirbagChannelAndInTheVehicleObject) {
  Scene s(carOptions(kScale));

  std::string allFf = "impact";
  for (int i = 0; i < 254; ++i) allFf += " ff";
  s.sim(allFf);
  // Kind A only (logged, never called), padded to 300 bytes: a read takes 254.
  std::vector<int> longMessage = {0, 1, 1, 0, 0, 0, 0};
  longMessage.resize(300, 0xff);
  s.sim("impact" + hexBytes(longMessage));
  const std::string dump = "Read Impact: 00" + hexBytes(std::vector<int>(longMessage.begin() + 1, longMessage.begin() + 253));
  ASSERT_TRUE(
      testSupport::waitUntil([&] { return s.car.serviceStdout().find(dump + "\n") != std::string::npos; }, kLong))
      << s.car.serviceStdout();
  ASSERT_TRUE(s.car.waitForEmergencyLog("Rx ORC CAN 0x0100\n", kLong));
  EXPECT_EQ(s.car.serviceStdout().find("Read Impact: ff"), std::string::npos) << "a message of kind 0xFF was taken";
  EXPECT_EQ(s.countInLog("Rx ORC CAN 0x0100"), 1u);

  // 1 MiB in front of the buttons and the odometer, beyond what is read.
  replaceVehicleObject(s.car, "@vehstat\nAAA_JUNK::" + std::string(kMiB, 'j') +
                                  "\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::1234567\n");
  ASSERT_TRUE(logThrough(s.car, "with the big object", "ODO N/A:with the big object"));
  // A button value of 1 MiB not UTF-8, then one cut by a NUL.
  std::string notUtf8;
  for (size_t i = 0; i < kMiB / 2; ++i) notUtf8 += "\xfe\xff";
  replaceVehicleObject(s.car, "@vehstat\nE_CALL_BtnStat::" + notUtf8 + "\nU_CALL_BtnStat::0\nODO::1234567\n");
  const std::string odd = "ecallBtn = \xfe\xff\xfe\xff";
  ASSERT_TRUE(s.car.waitForEmergencyLog(odd, kLong));
  replaceVehicleObject(s.car, std::string("@vehstat\nE_CALL_BtnStat::0\0\nU_CALL_BtnStat::1\n", 46));
  ASSERT_TRUE(testSupport::waitUntil([&] { return s.countInTrace("ecallBtn pps value 0") == 2; }, kLong));
  // Traced before it is logged: wait for the entry behind the cut one.
  std::string log;
  size_t at = std::string::npos;
  const auto cutEntryAndNext = [&] {
    log = s.car.emergencyLog();
    at = log.find(odd);
    return at != std::string::npos && log.find("ecallBtn = 0\n", at) != std::string::npos;
  };
  ASSERT_TRUE(testSupport::waitUntil(cutEntryAndNext, kLong)) << log;
  const size_t lineStart = log.rfind('\n', at) + 1;
  const size_t end = log.find_first_not_of("\xfe\xff", at + 11);
  expectCutEntryEndsItsLine(log, lineStart, end);
  EXPECT_TRUE(s.signals().empty()) << "the garbage started an emergency";
  EXPECT_EQ(s.countInTrace("UcallBtn pps value 1"), 0u) << "a line behind a NUL was read";

  const size_t before = s.car.recordMark();
  s.button("ecall", true);
  EXPECT_FALSE(s.car.waitForRequestSince(before, "EmbeddedPhone", "ecallDial", kLong).isNull());
  EXPECT_TRUE(s.car.serviceRunning());
}

// Parameters of 1 MiB, 100,000 deep or with a NUL, a 10 kB log entry, a 64 kB name,
// garbage signals change nothing; forged by another client, they are not heard.
TEST(BadInput, BusParametersNamesLoggedStringsAndSignalsOfAnySizeDepthOrContent) {
  Scene s(carOptions(kScale));

  const std::string padding(kMiB, 'p');
  EXPECT_EQ(s.car.call("setEcallRetryHmiState", "{\"pad\":\"" + padding + "\",\"state\":0}"), kOk);
  EXPECT_EQ(s.car.call("setEcallRetryHmiState", "{\"pad\":\"" + padding + "\",\"state\":2}"), kOk);
  const std::string deep(100000, '[');
  EXPECT_EQ(s.car.call("setEcallRetryHmiState", deep + std::string(100000, ']')), kOk);
  EXPECT_EQ(s.car.call("setEcallRetryHmiState", "{\"state\":0,\"x\":" + deep + "}"), kOk);
  EXPECT_EQ(s.car.call("setEcallRetryHmiState", std::string("{\"state\":0") + "\x01\x02garbage"), kOk);
  EXPECT_EQ(s.car.call("IsECallInProgess", padding), "{\"ecallInProgress\":false}\n");

  ASSERT_TRUE(s.waitForLogCount("TTS rqst 5", 1)) << "the state behind the padding was not read";

  ASSERT_TRUE(s.car.notify("logStringToEcallLog", "{\"message\":\"before NUL\\u0000after NUL\\n\"}"));
  ASSERT_TRUE(logThrough(s.car, "next entry"));
  std::string log = s.car.emergencyLog();
  EXPECT_NE(log.find("before NUL"), std::string::npos);
  EXPECT_EQ(log.find("after NUL"), std::string::npos);

  // Bytes that are not UTF-8 never leave the caller.
  std::string reply;
  EXPECT_TRUE(
      SVCIPC_IS_ERROR(s.car.invoke("ecallService", "setEcallRetryHmiState", "{\"state\":\"\xff\xfe\"}", 5000, &reply)));

  EXPECT_TRUE(s.car.waitForSlog("ecallRequest: setEcallRetryHmiState, params: {\"pad\":\"ppp", kLong));

  const std::string message(10000, 'm');
  ASSERT_TRUE(s.car.notify("logStringToEcallLog", "{\"message\":\"" + message + "\"}"));
  ASSERT_TRUE(logThrough(s.car, "after the long one"));
  log = s.car.emergencyLog();
  const size_t first = log.find("mmmm");
  ASSERT_NE(first, std::string::npos);
  const size_t lineStart = log.rfind('\n', first) + 1;
  const size_t end = log.find_first_not_of('m', first);
  expectCutEntryEndsItsLine(log, lineStart, end);
  EXPECT_EQ(log.find("mmmm", end), std::string::npos) << "the rest of the message was written as well";
  EXPECT_TRUE(s.car.waitForTrace("logStringToEcallLog: " + message, kLong));

  const std::string name = "startEcall" + std::string(64 * 1024 - 10, 'n');
  ASSERT_TRUE(s.car.notify(name));
  EXPECT_EQ(s.car.call(name, "{}", 1000), E2eHarness::kNoReply);
  ASSERT_TRUE(s.car.waitForTrace("ecallRequest: startEcallnnnn", kLong));
  EXPECT_TRUE(s.signals().empty()) << "a long name was taken for startEcall";

  const Strings payloads = {"\"" + std::string(kMiB, 'g') + "\"", deep + std::string(100000, ']'),
                            "{\"state\":" + deep + "}", "not JSON at all", "", "null", "[]", "42",
                            "{\"x\":\"\\u0000\\u00ff\",\"y\":[{}]}"};
  const std::vector<std::pair<std::string, std::string>> signals = {
      {"TextToSpeechService", "ttsPlayState"}, {"EmbeddedPhone", "callState"},  {"EmbeddedPhone", "embeddedPhoneStatus"},
      {"EmbeddedPhone", "wendReason"},         {"EmbeddedPhone", "antennaStatus"}, {"AudioCtrlSvc", "DTMF"},
      {"BluetoothService", "callState"},       {"AppManager", "operStatus"},     {"AppManager", "appStarted"},
      {"AppManager", "appPaused"},             {"AppManager", "appStopped"}};
  for (const auto& [service, signal] : signals)
    for (const auto& payload : payloads) s.sim("signal " + service + " " + signal + " " + payload);
  // Signals of one sender keep their order: its last one seen, all were.
  const std::vector<std::pair<std::string, std::string>> lastOnes = {
      {"signal EmbeddedPhone wendReason {\"last\":1}", "received embedded wendReason {\"last\":1}"},
      {"signal AudioCtrlSvc DTMF {\"KeyPressed\":77}", "dtmf detected: 77"},
      {"signal BluetoothService callState {\"last\":1}", "Received BT call state info {\"last\":1}"},
      {"signal AppManager appStopped last", "failed to parse App Manager signal appStopped data last"}};
  for (const auto& [command, seen] : lastOnes) {
    s.sim(command);
    ASSERT_TRUE(s.car.waitForTrace(seen, kLong)) << seen;
  }
  EXPECT_TRUE(s.signals().empty()) << "garbage started or ended something";
  EXPECT_EQ(s.countInTrace("Get Embedded Phone Status: OFF"), 0u) << "garbage turned the phone off";
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");
  EXPECT_LE(longestLine(s.car.serviceStderr()), kSlogLineMax);

  SignalForger forger(s.car.busAddress());
  ASSERT_TRUE(forger.emit("EmbeddedPhone", "embeddedPhoneStatus", "{\"embeddedPhoneStatus\":{\"status\":false}}"));
  ASSERT_TRUE(forger.emit("EmbeddedPhone", "wendReason", "{\"serviceNumber\":17,\"forged\":1}"));
  ASSERT_TRUE(forger.emit("AudioCtrlSvc", "DTMF", "{\"KeyPressed\":1,\"forged\":1}"));
  ASSERT_TRUE(forger.emit("BluetoothService", "callState", "{\"forged\":1}"));
  ASSERT_TRUE(forger.emit("AppManager", "appStopped", "forged"));
  ASSERT_TRUE(forger.roundTrip());
  EXPECT_EQ(s.countInTrace("forged"), 0u) << "a forged signal was heard";
  EXPECT_EQ(s.countInTrace("dtmf detected: 1"), 0u) << "a forged operator key was heard";
  EXPECT_EQ(s.countInTrace("Get Embedded Phone Status: OFF") + countOf(s.car.emergencyLog(), "to OFF"), 0u)
      << "a forged status turned the phone off";
  expectStartEcallDials(s.car);
  // Only the first call asked for the retry prompt.
  ASSERT_TRUE(s.waitForLogCount("TTS rqst 7", 1));
  EXPECT_EQ(s.countInLog("TTS rqst 5"), 1u) << testing::PrintToString(s.log());
}

