// The test call: a whole call (prompts, dial, the operator's announcement,
// the end period) to the vehicle's test number, never to an emergency
// number, so that the people who fit, test and service the car can prove
// its emergency call without calling the emergency centre. It is no
// emergency: refused while one is in hand, ended at once by one, tried three
// times at most, and never written to the emergency journal, so that a
// restart forgets it.
#include <algorithm>
#include <string>
#include <vector>

#include "common/testNumber.h"
#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/clocks.h"
#include "platform/slog.h"

namespace {

constexpr int kTestCallLeaveBoundMs = 60000;  // the connect time-out

}  // namespace

// ---- The request, on the caller's thread ----

std::string ecallProcessor::testCallRefusal() const {
  if (curECallType == ecallMain::TEST_CALL) return "a test call is in progress";
  if (curECallType != ecallMain::NONE) return "an emergency is requested or in progress";
  if (ecallModeActive) return "the emergency mode is on (a call or its call-back period)";
  if (!embeddedPhAvail || emdPhOn != 1) return "the embedded phone is not available";
  return "";
}

std::string ecallProcessor::readTestNumber(std::string& number) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const std::string why = extServHandle.getTestNumber(number);
  if (!why.empty()) return why;
  if (!testNumber::isDialable(number)) return "the test number \"" + number + "\" is not a phone number";
  // Whatever the phone, its network or this service would take for an
  // emergency number is never dialled for a test.
  std::string reply;
  std::vector<std::string> emergencyNumbers;
  if (SVCIPC_IS_ERROR(embeddedPhone::readEmergencyNumbers(reply)) ||
      !embeddedPhone::parseEmergencyNumberList(reply.c_str(), emergencyNumbers))
    return "the embedded phone's emergency numbers cannot be read";
  emergencyNumbers.push_back(getLocalEcallNumber());
  if (testNumber::isAlwaysEmergency(number) ||
      std::find(emergencyNumbers.begin(), emergencyNumbers.end(), number) != emergencyNumbers.end())
    return "the test number " + number + " is an emergency number";
  return "";
}

bool ecallProcessor::startTestCall(std::string& why) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  why = extServHandle.getEmebeddedPhoneEnabledInVariant() ? "" : "the vehicle has no embedded phone";
  if (why.empty()) {
    std::lock_guard<std::mutex> lock(mRequestMutex);
    why = testCallRefusal();
  }
  // The peers are asked without the request lock, and only when the call
  // could start: an emergency in hand is never slowed by a test.
  std::string number;
  if (why.empty()) why = readTestNumber(number);
  if (why.empty()) {
    addFormattedEntryToEmergencyLog("Test call requested, test number %s\n", number.c_str());
    std::lock_guard<std::mutex> lock(mRequestMutex);
    // An emergency that came meanwhile wins.
    why = testCallRefusal();
    if (why.empty()) {
      testCallNumber.set(number);
      curECallType = ecallMain::TEST_CALL;
      curCallModeType = ecallMain::CALL_TEST;
      mStageClock.begin(platform::monotonicMs());  // a call like any other for its timings
      timers().startEcallImmediateTimer();
      return true;
    }
  }
  scope.sendFormattedWarning("Test call refused: %s\n", why.c_str());
  sendtoSlog(_SLOG_WARNING, "Test call refused: %s\n", why.c_str());
  addFormattedEntryToEmergencyLog("Test call refused: %s\n", why.c_str());
  return false;
}

void ecallProcessor::dropTestCall(const char* why) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  {
    std::lock_guard<std::mutex> lock(mRequestMutex);
    if (curECallType != ecallMain::TEST_CALL) return;
    curECallType = ecallMain::NONE;
    curCallModeType = ecallMain::CALL_NONE;
  }
  sendtoSlog(_SLOG_WARNING, "Test call refused: %s\n", why);
  addFormattedEntryToEmergencyLog("Test call refused: %s\n", why);
}

// ---- The call, on the state machine's thread ----

// As an emergency call starts, without the cancel window (whoever asked for
// the test is at the car) and without the emergency number.
void ecallStateMachine::startTestCall() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  testCallInHand = true;
  testCallFailures = 0;
  extServHandle.getCurrentLanguage();
  extServHandle.getVehicleBrand();
  processor.addEntryToEmergencyLog("Test call started\n");
  timers().startEcallStateMachineTimer(1);
  state = ECALL_SM_MAKE_CALL;
  processor.setEcallModeActive(true);
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  emitEcall(true, type, mode);
  takeCarForTheCall();
  playPrompt(TTS_PROMPT_TEST_CALLING);
}

// The last attempt failed (its "failed" signal is out): the test call ends
// as a cancelled call does, with its own prompt and end period.
void ecallStateMachine::giveUpTestCall() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  scope.sendFormattedError("Test call failed after %d attempts\n", TEST_CALL_ATTEMPTS);
  sendtoSlog(_SLOG_WARNING, "Test call failed after %d attempts\n", TEST_CALL_ATTEMPTS);
  processor.addFormattedEntryToEmergencyLog("Test call failed after %d attempts\n", TEST_CALL_ATTEMPTS);
  processor.clearECallEvent();
}

// Nothing of the test call is left to run: no retry, no prompt, no end
// period. Its call, while it is on the phone, is hung up; once the test
// call is in its end period, a call on the phone is not its own (the
// centre's call is answered as on an idle service).
void ecallStateMachine::yieldTestCallToEmergency() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  const bool onPhone = state != ECALL_SM_WAIT_FOR_END_FROM_HMI && !callStateIs("CALL_STATE_IDLE");
  timers().stopEcallTimeoutTimer();
  timers().startEcallStateMachineTimer(0);
  {
    std::lock_guard<std::mutex> lock(processor.promptSequenceMutex);
    processor.firstPsapTtsCount = 0;
    processor.firstPsapTtsWaitForComplete = false;
    processor.activeTts = TTS_PROMPT_NONE;
  }
  extServHandle.abortCurrentTtsMsg();
  const std::string& event = ecallMain::EmergencyEvent[type];
  sendtoSlog(_SLOG_INFO, "Test call ended: %s takes over\n", event.c_str());
  processor.addFormattedEntryToEmergencyLog("Test call ended: %s takes over\n", event.c_str());
  if (processor.waitingForPhone) {
    // The emergency waits for the phone: the car is given back meanwhile.
    endEmergencyMode();
    return;
  }
  if (onPhone) processor.hangUpCall();
  testCallLeaving = onPhone;
  testCallInHand = false;
  dialAllowed = true;
  callFailedLogged = false;
  state = ECALL_SM_IDLE;
}

// The phone's reports of the test call must not be taken for the
// emergency call's: the dial waits for the phone to report the test call
// gone, at most for the connect time-out, after which it dials all the same.
bool ecallStateMachine::waitForTestCallToLeave() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (pulseCode == ECALL_PULSE_CONNECT_TIMEOUT && !callStateIs("CALL_STATE_IDLE")) {
    scope.sendFormattedError("The test call is still on the phone after %d ms, dialling all the same\n",
                             kTestCallLeaveBoundMs);
    processor.curCallState.set("CALL_STATE_IDLE");
  }
  if (callStateIs("CALL_STATE_IDLE")) {
    testCallLeaving = false;
    return false;
  }
  if (!timers().isTimerActive(processorTimers::timerTimeoutCallConnect)) timers().startEcallTimeoutTimer();
  return true;
}
