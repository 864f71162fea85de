// Common ground of the processor tests: a healthy car
// on the fake bus (variant with an embedded phone, phone ON, number "911"),
// the real state machine thread and timers on a short time scale, and
// readers for what the service did.
#pragma once

#include <json/json.h>
#include <pthread.h>

#include <future>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/processorTimers.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pulses.h"
#include "unit/unitFixture.h"

namespace smTest {

// 10 s delay = 100 ms, 60 s retry and connect time-out = 600 ms, 30 s
// callback period = 300 ms.
constexpr double kTimeScale = 0.01;

// "true:ecallDelay", "false:none", ... in the order emitted.
inline std::vector<std::string> ecallSignalSummary() {
  std::vector<std::string> out;
  for (const std::string& data : fakeBus::emittedData("ecall")) {
    Json::Value s;
    Json::Reader().parse(data, s);
    out.push_back(std::string(s["ecall"].asBool() ? "true:" : "false:") + s["type"].asString());
  }
  return out;
}
inline size_t requestCount(const std::string& method) { return fakeBus::requests("", method).size(); }
inline bool waitForRequests(const std::string& method, size_t count) {
  return testSupport::waitUntil([&] { return requestCount(method) >= count; });
}

inline const SVCIPC_tError kRefused = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR);
// How the embedded phone answers method.
inline void answer(const std::string& method, const std::string& result, SVCIPC_tError rc = SVCIPC_ERROR_NONE) {
  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, method, fakeBus::Reply{rc, result});
}

class StateMachineFixture : public UnitFixture {
 protected:
  void SetUp() override {
    UnitFixture::SetUp();
    platform::setTimeScale(kTimeScale);
    healthyCar();
    answer("getEmergencyNumbers", R"({"code":0,"count":1,"numberList":["911"]})");
    fakeBus::setReply(TTS_SERVICE, "ttsReadout", {.noAnswer = true});
  }

  // Subscriptions and the command thread (prompts and mutes handed over by
  // the signal handlers); with machine, the state machine thread as the
  // processor's start-up starts it, once it takes pulses.
  void startService(bool machine = true) {
    for (const auto& [path, name] : {std::pair{EMBEDDED_PHONE_PATH, "callState"}, {EMBEDDED_PHONE_PATH, "wendReason"},
                                     {TTS_PATH, "ttsPlayState"}, {AUDIO_CTRL_PATH, "DTMF"}})
      ASSERT_EQ(SVCIPC_subscribe(svcIPCConn, path, name, ecallProcessor::onSubcribedSignal,
                                 const_cast<char*>("ecallProcessor"), nullptr), SVCIPC_ERROR_NONE);
    extServHandle.initExternalServiceHandling();
    if (!machine) return;
    ASSERT_EQ(pthread_create(&mainStateMachineThreadHnd, nullptr, mainStateMachineThreadFunc, nullptr), 0);
    ASSERT_TRUE(testSupport::waitUntil([] { return stateMachineThreadSendChannelId > 0; }));
  }

  static void signal(const char* path, const char* name, const std::string& data) {
    ASSERT_EQ(fakeBus::deliverSignal(path, name, data), 1) << name;
  }
  static void promptFinished() { signal(TTS_PATH, "ttsPlayState", R"({"state":"notPlaying"})"); }

  bool waitForLog(const std::string& part, size_t count = 1) const {
    return testSupport::waitUntil([&] { return logCount(part) >= count; });
  }
  // Back in idle, no timer of the machine's own pending.
  bool waitForIdle() const { return waitForLog("End emergency mode"); }

  // Waits until the machine has finished the pulses queued so far: a run
  // pulse of the test's own comes after them, and once it is handled the
  // machine is back at the top of its loop.
  void waitUntilMachineCaughtUp() const {
    const size_t before = log.countTrace("Received run state machine pulse");
    sendStateMachinePulse(ECALL_PULSE_RUN_STATE_MACHINE);
    ASSERT_TRUE(testSupport::waitUntil([&] {
      size_t received = 0;
      for (const std::string& trace : log.traces()) {
        received += trace.find("Received run state machine pulse") != std::string::npos;
        if (received > before && trace.find("step 0: stateMachine before switch") != std::string::npos) return true;
      }
      return false;
    }));
  }
};

// The phone status, emergency number, USB port and start-up tests look at
// timers while they run.
class PhoneFixture : public StateMachineFixture {
 protected:
  void SetUp() override {
    StateMachineFixture::SetUp();
    platform::setTimeScale(1.0);
  }
};

// A channel of the test in place of the state machine's: the timers and the
// pulse senders deliver to it, so a test sees which pulse a request produces
// without a state machine reacting.
class PulseProbe {
 public:
  PulseProbe() : mChannel(qnx::ChannelCreate(0)), mConnection(qnx::ConnectAttach(0, 0, mChannel, qnx::_NTO_SIDE_CHANNEL, 0)) {
    createProcessorTimers(mChannel);
    stateMachineThreadSendChannelId = mConnection;
  }
  // The code of the next pulse, or -1 when none came within the deadline
  // (the channel is then destroyed to free the receiver).
  int next(std::chrono::milliseconds deadline = std::chrono::seconds(2)) {
    auto received = std::async(std::launch::async, [this] {
      qnx::_pulse pulse{};
      return qnx::MsgReceive(mChannel, &pulse, sizeof pulse, nullptr) == 0 ? pulse.code : -1;
    });
    if (received.wait_for(deadline) == std::future_status::timeout) qnx::ChannelDestroy(mChannel);
    return received.get();
  }
  void send(int code) const { ASSERT_EQ(qnx::MsgSendPulse(mConnection, qnx::getprio(0), code, 0), 0); }

 private:
  int mChannel;
  int mConnection;
};

}  // namespace smTest
