// A simulated car whose service has finished starting, and the marks from
// which an end-to-end test looks at what happened: the simulator's record,
// the emergency log and the messages on the airbag controller channel.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/e2eHarness.h"
#include "support/testSupport.h"

namespace carScene {

using Strings = std::vector<std::string>;
using Bytes = std::vector<int>;
using ms = std::chrono::milliseconds;
using testSupport::E2eHarness;
using testSupport::E2eOptions;

// Deadline of every wait: far beyond the longest scaled duration.
inline const ms kLong{20000};
inline const std::string kOk = "{\"result\":\"OK\"}\n";
inline const std::string kAssistApp = "3305261F-B524-4E27-8048-C5778A672389";

inline E2eOptions carOptions(double scale, Strings commands = {}) {
  E2eOptions options;
  options.timeScale = scale;
  options.simCommands = std::move(commands);
  return options;
}

// The "ecall" signal of an emergency in progress, as the service emits it.
inline std::string activeSignal(const std::string& type, const std::string& event, const std::string& detail,
                                const std::string& number = "911") {
  return testSupport::ecallSignalText(true, type, true, number, event, detail);
}
inline std::string endedSignal(bool modeActive) { return testSupport::ecallSignalText(false, "none", modeActive); }
inline std::string systemErrorSignal() { return testSupport::ecallSignalText(false, "systemError", false); }

struct Scene {
  // buttonsRead: also wait until the mirror button reader has logged its
  // first read (a car whose variant has the embedded phone).
  explicit Scene(E2eOptions options, bool buttonsRead = true) : car(std::move(options)) {
    EXPECT_TRUE(car.waitForServiceStarted()) << "the service did not finish starting";
    if (buttonsRead) {
      EXPECT_TRUE(car.waitForEmergencyLog("ecallBtn = 0\n")) << "the mirror buttons were not read";
    }
    markNow();
  }

  // From here on, the "...Since" views look only at what happens next.
  void markNow() {
    mark = car.recordMark();
    logMark = car.emergencyLogMessages().size();
  }

  void sim(const std::string& command) {
    std::string reply = car.sim(command);
    EXPECT_EQ(reply.rfind("ok", 0), 0u) << command << ": " << reply;
  }

  Strings signals() { return car.ecallSignalTextsSince(mark); }
  Json::Value waitForSignal(const std::function<bool(const Json::Value&)>& pred) {
    return car.waitForEcallSignalSince(mark, pred, kLong);
  }
  bool waitForEmergency() {
    return !waitForSignal([](const Json::Value& s) { return s["ecall"].asBool(); }).isNull();
  }
  // The "ecall" signal that closes the emergency mode, and the log line
  // written after it, when the LED has been turned off too.
  bool waitForIdle() {
    auto idle = [](const Json::Value& s) { return !s["ecall"].asBool() && !s["ecallModeActive"].asBool(); };
    if (waitForSignal(idle).isNull()) return false;
    size_t ends = 0;
    for (const auto& text : signals()) ends += text == endedSignal(false) ? 1 : 0;
    return waitForLogCount("End emergency mode", ends);
  }

  // Every message the service wrote on the channel since the mark.
  std::vector<Bytes> channel() {
    std::vector<Bytes> out;
    for (const auto& r : car.recordsSince(mark, "channel")) {
      Bytes bytes;
      for (const auto& b : r["bytes"]) bytes.push_back(b.asInt());
      out.push_back(bytes);
    }
    return out;
  }
  // Only the mirror LED messages.
  std::vector<Bytes> led() {
    std::vector<Bytes> out;
    for (const auto& m : channel())
      if (!m.empty() && m[0] == 1) out.push_back(m);
    return out;
  }
  bool waitForLed(const std::vector<Bytes>& wanted) {
    return testSupport::waitUntil([&] { return led() == wanted; }, kLong);
  }
  bool waitForChannel(const std::vector<Bytes>& wanted) {
    return testSupport::waitUntil([&] { return channel() == wanted; }, kLong);
  }

  Strings log() {
    Strings all = car.emergencyLogMessages();
    return Strings(all.begin() + static_cast<long>(std::min(logMark, all.size())), all.end());
  }
  size_t countInLog(const std::string& message) {
    Strings all = log();
    return static_cast<size_t>(std::count(all.begin(), all.end(), message));
  }
  bool waitForLogCount(const std::string& message, size_t count) {
    return testSupport::waitUntil([&] { return countInLog(message) >= count; }, kLong);
  }

  size_t countInTrace(const std::string& part) {
    std::string trace = car.trace();
    size_t n = 0;
    for (size_t at = trace.find(part); at != std::string::npos; at = trace.find(part, at + part.size())) ++n;
    return n;
  }
  // A mirror button ("ecall" or "assist") pressed or released, and seen by
  // the service: the button object reports changes only, so a press and a
  // release in quick succession could otherwise pass unseen.
  void button(const std::string& which, bool pressed) {
    const std::string seen =
        std::string(which == "ecall" ? "ecallBtn" : "UcallBtn") + " pps value " + (pressed ? "1" : "0");
    const size_t before = countInTrace(seen);
    sim("button " + which + (pressed ? " press" : " release"));
    EXPECT_TRUE(testSupport::waitUntil([&] { return countInTrace(seen) > before; }, kLong))
        << "the service did not see " << seen;
  }

  Strings spoken() { return testSupport::spokenTexts(car.requestsSince(mark, "TextToSpeechService")); }
  Strings requests(const std::string& service, const std::string& method = "") {
    return testSupport::requestTexts(car.requestsSince(mark, service, method));
  }
  bool waitForRequestCount(const std::string& service, const std::string& method, size_t count) {
    return testSupport::waitUntil([&] { return car.requestsSince(mark, service, method).size() >= count; }, kLong);
  }

  E2eHarness car;
  size_t mark = 0;
  size_t logMark = 0;
};

}  // namespace carScene
