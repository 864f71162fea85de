// Common ground of the state machine, emergency request and call state
// tests: a temporary root, a healthy car on the fake bus (variant with an
// embedded phone, phone ON, number "911"), the real state machine thread with
// its real timers on a shortened time scale, the phone's signals, and readers
// for what the service did (the "ecall" signals, the requests, the emergency
// log's entries).
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ecallMain/ecallMain.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "platform/pulses.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace smTest {

using namespace std::chrono_literals;

// 10 s delay = 100 ms, 60 s retry and connect time-out = 600 ms, 30 s end
// of the emergency mode = 300 ms.
constexpr double kTimeScale = 0.01;

inline const SVCIPC_tError kRefused = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR);

// One "ecall" signal, reduced to what the tests compare.
struct EcallSignal {
  bool ecall = false;
  std::string type;
  std::string event;
  std::string phoneNumber;
  bool modeActive = false;
};

inline std::vector<EcallSignal> ecallSignals() {
  std::vector<EcallSignal> out;
  for (const std::string& data : fakeBus::emittedData("ecall")) {
    Json::Value v;
    Json::Reader().parse(data, v);
    out.push_back({v["ecall"].asBool(), v["type"].asString(), v["event"].asString(), v["phoneNumber"].asString(),
                   v["ecallModeActive"].asBool()});
  }
  return out;
}

// "true:ecallDelay", "false:none", ... in the order emitted.
inline std::vector<std::string> ecallSignalSummary() {
  std::vector<std::string> out;
  for (const EcallSignal& s : ecallSignals()) out.push_back(std::string(s.ecall ? "true:" : "false:") + s.type);
  return out;
}

// Every request to another service as "method params", in order.
inline std::vector<std::string> requestLog() {
  std::vector<std::string> out;
  for (const auto& c : fakeBus::calls())
    if (c.kind == fakeBus::Call::Invoke || c.kind == fakeBus::Call::AsyncInvoke) out.push_back(c.method + " " + c.params);
  return out;
}

inline size_t requestCount(const std::string& method) { return fakeBus::requests("", method).size(); }

// Each expected part is found, as a substring, in a later element of seen
// than the part before it.
inline ::testing::AssertionResult inOrder(const std::vector<std::string>& seen, const std::vector<std::string>& expected) {
  size_t at = 0;
  for (const std::string& part : expected) {
    while (at < seen.size() && seen[at].find(part) == std::string::npos) ++at;
    if (at == seen.size()) {
      std::string all;
      for (const std::string& s : seen) all += "\n  " + s;
      return ::testing::AssertionFailure() << "missing (in order): \"" << part << "\" in:" << all;
    }
    ++at;
  }
  return ::testing::AssertionSuccess();
}

inline void answer(const std::string& busName, const std::string& method, const std::string& result) {
  fakeBus::Reply reply;
  reply.result = result;
  fakeBus::setReply(busName, method, reply);
}

inline void refuse(const std::string& busName, const std::string& method) {
  fakeBus::Reply reply;
  reply.rc = kRefused;
  fakeBus::setReply(busName, method, reply);
}

class StateMachineFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setTimeScale(kTimeScale);
    fakeBus::reset();
    createProcessObjects();
    extServHandle.mVariantInfoKnown = true;
    extServHandle.mEmbeddedPhoneEnabled = true;
    ecallHandler.emdPhOn = 1;
    embeddedPhAvail = 1;
    answer(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers", R"({"code":0,"count":1,"numberList":["911"]})");
    // The speech service's replies are of no interest here.
    fakeBus::Reply silent;
    silent.noAnswer = true;
    fakeBus::setReply(TTS_SERVICE, "ttsReadout", silent);
  }

  // Starts the state machine thread as the processor's start-up does and
  // waits until it takes pulses.
  void startStateMachine() {
    ASSERT_EQ(pthread_create(&mainStateMachineThreadHnd, nullptr, mainStateMachineThreadFunc, nullptr), 0);
    ASSERT_TRUE(testSupport::waitUntil([] { return stateMachineThreadSendChannelId > 0; }));
  }

  // The command thread runs the prompts and mutes that the signal handlers
  // hand over.
  void startCommandThread() { extServHandle.initExternalServiceHandling(); }

  void subscribeSignals() {
    for (const char* name : {"callState", "embeddedPhoneStatus", "wendReason", "antennaStatus"})
      ASSERT_EQ(SVCIPC_subscribe(svcIPCConn, EMBEDDED_PHONE_PATH, name, ecallProcessor::onSubcribedSignal,
                                 const_cast<char*>("ecallProcessor"), nullptr),
                SVCIPC_ERROR_NONE);
    ASSERT_EQ(SVCIPC_subscribe(svcIPCConn, TTS_PATH, "ttsPlayState", ecallProcessor::onSubcribedSignal,
                               const_cast<char*>("ecallProcessor"), nullptr),
              SVCIPC_ERROR_NONE);
    ASSERT_EQ(SVCIPC_subscribe(svcIPCConn, AUDIO_CTRL_PATH, "DTMF", ecallProcessor::onSubcribedSignal,
                               const_cast<char*>("ecallProcessor"), nullptr),
              SVCIPC_ERROR_NONE);
  }

  // Everything a call test needs: signals, the command thread, the machine.
  void startService() {
    ASSERT_NO_FATAL_FAILURE(subscribeSignals());
    startCommandThread();
    ASSERT_NO_FATAL_FAILURE(startStateMachine());
  }

  // ---- The phone and the other services speak ----

  static void callState(const std::string& state, const std::string& number = "911", int callType = 1) {
    Json::Value entry(Json::objectValue);
    entry["callState"] = state;
    entry["number"] = number;
    entry["callType"] = callType;
    Json::Value root(Json::objectValue);
    root["callStateInfo"].append(entry);
    ASSERT_EQ(fakeBus::deliverSignal(EMBEDDED_PHONE_PATH, "callState", Json::FastWriter().write(root)), 1);
  }
  static void wendReason(int serviceNumber) {
    ASSERT_EQ(fakeBus::deliverSignal(EMBEDDED_PHONE_PATH, "wendReason",
                                     "{\"serviceNumber\":" + std::to_string(serviceNumber) + "}"),
              1);
  }
  static void promptFinished() {
    ASSERT_EQ(fakeBus::deliverSignal(TTS_PATH, "ttsPlayState", R"({"state":"notPlaying"})"), 1);
  }
  static void dtmf(int key) {
    ASSERT_EQ(fakeBus::deliverSignal(AUDIO_CTRL_PATH, "DTMF", "{\"KeyPressed\":" + std::to_string(key) + "}"), 1);
  }

  // ---- The emergency log ----

  // The entries' texts, without time stamp and odometer field.
  std::vector<std::string> logEntries() const {
    std::vector<std::string> out;
    for (const std::string& line : testSupport::splitLines(testSupport::readFile(root.path(emergencyLogPath)))) {
      const size_t stamp = line.find(" GMT:");
      if (stamp == std::string::npos) continue;
      std::string rest = line.substr(stamp + 5);
      const size_t odometerEnd = rest.find(':');
      out.push_back(odometerEnd == std::string::npos ? rest : rest.substr(odometerEnd + 1));
    }
    return out;
  }
  size_t logCount(const std::string& part) const {
    size_t n = 0;
    for (const std::string& entry : logEntries())
      if (entry.find(part) != std::string::npos) ++n;
    return n;
  }
  bool waitForLog(const std::string& part, size_t count = 1,
                  std::chrono::milliseconds deadline = std::chrono::seconds(5)) const {
    return testSupport::waitUntil([&] { return logCount(part) >= count; }, deadline);
  }

  // Waits until the state machine has finished the pulses queued so far: a
  // run pulse of the test's own comes after them, and the machine is back
  // at the top of its loop once it has handled it.
  void waitUntilMachineCaughtUp() const {
    const size_t before = log.countTrace("Received run state machine pulse");
    sendStateMachinePulse(ECALL_PULSE_RUN_STATE_MACHINE);
    ASSERT_TRUE(testSupport::waitUntil([&] {
      size_t received = 0;
      for (const std::string& trace : log.traces()) {
        if (trace.find("Received run state machine pulse") != std::string::npos) ++received;
        if (received > before && trace.find("step 0: stateMachine before switch") != std::string::npos) return true;
      }
      return false;
    }));
  }

  // The emergency mode is over and the machine is back in idle with no
  // timer of its own pending.
  bool waitForIdle(size_t endings = 1) const { return waitForLog("End emergency mode", endings); }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
};

// A channel of the test that stands in for the state machine's: the
// processor timers and the pulse senders deliver to it, so that a test sees
// which pulses a request produces without a state machine reacting.
class PulseProbe {
 public:
  PulseProbe() {
    mChannel = qnx::ChannelCreate(0);
    mConnection = qnx::ConnectAttach(0, 0, mChannel, qnx::_NTO_SIDE_CHANNEL, 0);
    createProcessorTimers(mChannel);
    stateMachineThreadReceiveChannelId = mChannel;
    stateMachineThreadSendChannelId = mConnection;
  }

  // The code of the next pulse, or -1 when none came within the deadline.
  int next(std::chrono::milliseconds deadline = std::chrono::seconds(2)) {
    std::mutex mutex;
    std::condition_variable done;
    bool received = false;
    // Bounds the wait: the watchdog sends a pulse of its own at the deadline.
    std::thread watchdog([&] {
      std::unique_lock<std::mutex> lock(mutex);
      if (!done.wait_for(lock, deadline, [&] { return received; })) qnx::MsgSendPulse(mConnection, 0, kDeadline, 0);
    });
    qnx::_pulse pulse{};
    const int rc = qnx::MsgReceive(mChannel, &pulse, sizeof(pulse), nullptr);
    {
      std::lock_guard<std::mutex> lock(mutex);
      received = true;
    }
    done.notify_all();
    watchdog.join();
    if (rc != 0 || pulse.code == kDeadline) return -1;
    return pulse.code;
  }

 private:
  static constexpr int kDeadline = 100;
  int mChannel = -1;
  int mConnection = -1;
};

}  // namespace smTest
