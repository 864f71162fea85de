// The main state machine thread: its start, its channel, the loop and the
// pulse table, and the requests the state machine makes of the embedded
// phone. What a turn does in each state is in stateSteps.cpp.
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/serviceRequests.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pulses.h"
#include "platform/slog.h"

namespace {

// Names for traces. There is no row for the wait before the emergency
// centre's prompt, so the states after it trace the name of their successor;
// traces only, kept as it is.
const char* const stateMachineString[] = {
    "ECALL_SM_IDLE",
    "ECALL_SM_CALL_DELAY",
    "ECALL_SM_MAKE_CALL",
    "ECALL_SM_WAIT_TO_CONNECT",
    "ECALL_SM_CALL_ACTIVE",
    "ECALL_SM_WAIT_FOR_END_FROM_HMI",
    "ECALL_SM_INCOMING_CALL_OPEN_AUDIO_FOR_RING_TONES",
    "ECALL_SM_INCOMING_CALL_WAIT_RING_TONES_COMPLETE",
    "ECALL_SM_INCOMING_CALL_ANSWER",
    "ECALL_SM_INCOMING_CALL_WAIT_FOR_CALL_ACTIVE",
    "NONE",
};
constexpr int stateMachineStringCount = sizeof(stateMachineString) / sizeof(stateMachineString[0]);

}  // namespace

const char* getStateMachineString(ecallStateMachineStates state) {
  if (state < 0 || state >= stateMachineStringCount) return "NONE";
  return stateMachineString[state];
}

bool ecallStateMachine::startThread() {
  return pthread_create(&mThread, nullptr, threadFunc, this) == 0;
}

void* ecallStateMachine::threadFunc(void* self) {
  static_cast<ecallStateMachine*>(self)->threadMain();
  return nullptr;
}

void ecallStateMachine::announceStart() {
  {
    std::lock_guard<std::mutex> lock(mStartMutex);
    mStarted = true;
  }
  mStartDecided.notify_all();
}

bool ecallStateMachine::waitForStart(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mStartMutex);
  mStartDecided.wait_for(lock, limit, [this] { return mStarted; });
  return mSendChannelId.load() > 0;
}

void ecallStateMachine::sendPulse(int code) {
  qnx::MsgSendPulse(mSendChannelId.load(), qnx::getprio(0), code, 0);
}

void ecallStateMachine::threadMain() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  scope.sendFormattedMessage("Starting ecall state machine thread\n");
  const int chid = qnx::ChannelCreate(0);
  if (chid < 0) {
    // Without its channel the machine could only spin on failed receives.
    scope.sendFormattedError("Failed to create the state machine channel, errno %d\n", errno);
    sendtoSlog(_SLOG_ERROR, "Failed to create the state machine channel, errno %d\n", errno);
    announceStart();
    return;
  }
  mReceiveChannelId = chid;
  const int coid = qnx::ConnectAttach(0, 0, chid, qnx::_NTO_SIDE_CHANNEL, 0);
  mTimers.create(chid);
  // Published last: a sender that sees the connection finds the timers ready.
  mSendChannelId = coid;
  announceStart();
  run();
}

void ecallStateMachine::run() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  for (;;) {
    receivePulse();
    if (!extServHandle.getEmebeddedPhoneEnabledInVariant()) {
      scope.sendFormattedMessage(
          "ecallService state machine triggered, but since the VARIANT_ECELL indicates no embedded phone, do not act on the event\n");
      act = false;
    }
    if (!act) continue;
    scope.sendFormattedMessage("step 1: stateMachine before switch %s", getStateMachineString(state));
    type = processor.getCurECallType();
    mode = processor.getCurCallModeType();
    if (testCallInHand && type != ecallMain::NONE && type != ecallMain::TEST_CALL) yieldTestCallToEmergency();
    checkRequest();
    if (delayStart && (state == ECALL_SM_MAKE_CALL || state == ECALL_SM_WAIT_TO_CONNECT ||
                       state == ECALL_SM_CALL_ACTIVE)) {
      // A button press during a call: the LED blinks to acknowledge it.
      canIpcEmergencyHandler.setLedStatus(LED_BLINKING_GREEN);
    }
    if (!act) continue;
    scope.sendFormattedMessage("step 2: stateMachine before switch %s", getStateMachineString(state));
    runStep();
  }
}

// Blocks for the next pulse and sets the flags of the pulse table. Pulses
// 7 to 10 are time-outs handled here, without a state step.
void ecallStateMachine::receivePulse() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  scope.sendFormattedMessage("step 0: stateMachine before switch %s", getStateMachineString(state));
  act = startCall = delayStart = callEnded = false;
  pulseCode = 0;
  qnx::_pulse pulse{};
  int received;
  {
    platform::blockingCall wait(mProgress);
    received = qnx::MsgReceive(mReceiveChannelId.load(), &pulse, sizeof(pulse), nullptr);
  }
  if (received != 0) return;
  pulseCode = pulse.code;
  handlePulse(pulseCode);
}

void ecallStateMachine::handlePulse(int code) {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  switch (code) {
    case ECALL_PULSE_RUN_STATE_MACHINE:
      scope.sendFormattedMessage("Received run state machine pulse\n");
      act = true;
      break;
    case ECALL_PULSE_START_CALL:
      scope.sendFormattedMessage("Received ecall start call pulse\n");
      act = startCall = true;
      break;
    case ECALL_PULSE_DELAY_START:
      scope.sendFormattedMessage("Received ecall delay start pulse\n");
      if (processor.errorSentForNoEcallNumberLoaded) {
        scope.sendFormattedMessage("Error msg active when ecall delay start pulse received, ignoring the pulse\n");
      } else {
        scope.sendFormattedMessage("Acting on ecall delay start pulse\n");
        act = delayStart = true;
      }
      break;
    case ECALL_PULSE_PSAP_CALL_ENDED:
      scope.sendFormattedMessage("Received PSAP call ended\n");
      act = callEnded = true;
      break;
    case ECALL_PULSE_CONNECT_TIMEOUT:
      scope.sendFormattedMessage("Received ecall connect timeout\n");
      act = true;
      break;
    case ECALL_PULSE_EMERGENCY_INCOMING_CALL:
      scope.sendFormattedMessage("Received emergency incoming call \n");
      act = true;
      break;
    case ECALL_PULSE_ASSIST_NEVER_ACTIVE:
      scope.sendFormattedMessage("Received assist xlet never active timeout \n");
      processor.onAssistNeverActiveTimeout();
      break;
    case ECALL_PULSE_PHONE_NOT_PRESENT:
      scope.sendFormattedMessage("Received timeout for phone not being present\n");
      processor.onPhoneNotPresentTimeout();
      break;
    case ECALL_PULSE_ANTENNA_FAULT:
      scope.sendFormattedMessage("Received timeout for antenna fault, set the system error\n");
      processor.onAntennaFaultTimeout();
      break;
    case ECALL_PULSE_DELAY_SYS_ERR_NO_SIERRA_COMM:
      processor.onDelaySysErrTimeout();
      break;
    case ECALL_PULSE_DIAL_FAILED:
      scope.sendFormattedMessage("Received dial failed pulse\n");
      act = true;
      break;
    case ECALL_PULSE_RESUME_CALLBACK_PERIOD:
      scope.sendFormattedMessage("Received resume call-back period pulse\n");
      resumeCallbackPeriod();
      break;
    default:
      break;
  }
}

// ---- Requests of the state machine to the embedded phone ----

void ecallProcessor::hangUpCall() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc = embeddedPhone::hangUp();
  if (rc < 0) {
    scope.sendFormattedError("failed to hangup, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "falied to hangup, rc 0x%0X\n", static_cast<unsigned>(rc));
  }
}

bool ecallProcessor::acceptEmergencyCallback() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  // The state machine looks at the call state again once the answer is sent.
  timers().startEcallStateMachineTimer(1);
  const SVCIPC_tError rc = embeddedPhone::acceptIncomingCall();
  if (rc < 0) {
    scope.sendFormattedError("failed to acceptIncomingCall, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "falied to accecptIncomingCall, rc 0x%0X\n", static_cast<unsigned>(rc));
    return false;
  }
  return true;
}

void ecallProcessor::logPsapEndedIncomingCallAndClearCall() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  addEntryToEmergencyLog("Incoming Call - PSAP ended call before it was answered\n");
  clearECallEvent();
}

// The completion of the dial request; the context is the processor. A dial
// the phone took and then failed (or never answered) is a failed dial; the
// state machine judges it against the call's state.
void ecallProcessor::onAsyncDialResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (extServ::asyncRequestFailed(status, result, "dial")) {
    static_cast<ecallProcessor*>(context)->sendStateMachinePulse(ECALL_PULSE_DIAL_FAILED);
  }
}
