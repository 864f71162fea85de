// The main state machine thread: its channel, the pulse table, the request
// check that ends a call whose request was cleared, and the requests the
// state machine makes of the embedded phone.
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>

#include "ecallMain/ecallMain.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "ecallProcessor/stateMachineInternal.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pulses.h"
#include "platform/slog.h"

std::atomic<int> stateMachineThreadReceiveChannelId{0};
std::atomic<int> stateMachineThreadSendChannelId{0};
pthread_t mainStateMachineThreadHnd{};
std::atomic<int> activeTts{TTS_PROMPT_NONE};
std::atomic<bool> firstPsapTtsWaitForComplete{false};
std::atomic<int> firstPsapTtsCount{0};
std::atomic<bool> errorSentForNoEcallNumberLoaded{false};

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

// Start-up waits on this until the thread has its channel and timers, or
// has given up for want of a channel.
std::mutex startMutex;
std::condition_variable startDecided;
bool started = false;  // guarded by startMutex

void announceStart() {
  {
    std::lock_guard<std::mutex> lock(startMutex);
    started = true;
  }
  startDecided.notify_all();
}

}  // namespace

bool waitForStateMachineStart(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(startMutex);
  startDecided.wait_for(lock, limit, [] { return started; });
  return stateMachineThreadSendChannelId.load() > 0;
}

std::mutex promptSequenceMutex;

const char* getStateMachineString(ecallStateMachineStates state) {
  if (state < 0 || state >= stateMachineStringCount) return "NONE";
  return stateMachineString[state];
}

void sendStateMachinePulse(int code) {
  qnx::MsgSendPulse(stateMachineThreadSendChannelId.load(), qnx::getprio(0), code, 0);
}

void* mainStateMachineThreadFunc(void*) {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  scope.sendFormattedMessage("Starting ecall state machine thread\n");
  const int chid = qnx::ChannelCreate(0);
  if (chid < 0) {
    // Without its channel the machine could only spin on failed receives.
    scope.sendFormattedError("Failed to create the state machine channel, errno %d\n", errno);
    sendtoSlog(_SLOG_ERROR, "Failed to create the state machine channel, errno %d\n", errno);
    announceStart();
    return nullptr;
  }
  stateMachineThreadReceiveChannelId = chid;
  const int coid = qnx::ConnectAttach(0, 0, chid, qnx::_NTO_SIDE_CHANNEL, 0);
  createProcessorTimers(chid);
  // Published last: a sender that sees the connection finds the timers ready.
  stateMachineThreadSendChannelId = coid;
  announceStart();
  ecallStateMachine stateMachine;
  stateMachine.run();
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
    type = ecallHandler.getCurECallType();
    mode = ecallHandler.getCurCallModeType();
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
  if (qnx::MsgReceive(stateMachineThreadReceiveChannelId.load(), &pulse, sizeof(pulse), nullptr) != 0) return;
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
      if (errorSentForNoEcallNumberLoaded) {
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
      ecallHandler.onAssistNeverActiveTimeout();
      break;
    case ECALL_PULSE_PHONE_NOT_PRESENT:
      scope.sendFormattedMessage("Received timeout for phone not being present\n");
      ecallHandler.onPhoneNotPresentTimeout();
      break;
    case ECALL_PULSE_ANTENNA_FAULT:
      scope.sendFormattedMessage("Received timeout for antenna fault, set the system error\n");
      ecallHandler.onAntennaFaultTimeout();
      break;
    case ECALL_PULSE_DELAY_SYS_ERR_NO_SIERRA_COMM:
      ecallHandler.onDelaySysErrTimeout();
      break;
    case ECALL_PULSE_DIAL_FAILED:
      scope.sendFormattedMessage("Received dial failed pulse\n");
      act = true;
      break;
    default:
      break;
  }
}

// Type and mode both cleared means the emergency is over (ended, cancelled,
// or failed for good): a call in progress is wound down into the 30 s
// callback period.
void ecallStateMachine::checkRequest() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (type != ecallMain::NONE || mode != ecallMain::CALL_NONE) return;
  if (state == ECALL_SM_IDLE) {
    emitEcall(false, type, mode);
  } else if (state != ECALL_SM_WAIT_FOR_END_FROM_HMI) {
    endCall();
  }
}

void ecallStateMachine::endCall() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  // No connection is awaited any more: a dial still pending must not report
  // a time-out into the callback period or idle.
  stopEcallTimeoutTimer();
  firstPsapTtsCount = 0;
  if (!ecallHandler.curCallState.contains("CALL_STATE_IDLE")) ecallHandler.hangUpCall();
  extServHandle.abortCurrentTtsMsg();
  emitEcall(false, ecallMain::NONE, ecallMain::CALL_NONE);
  startEcallStateMachineTimer(30000);
  canIpcEmergencyHandler.setLedStatus(LED_OFF);
  playPrompt(TTS_PROMPT_ENDED);
  dialAllowed = true;
  state = ECALL_SM_WAIT_FOR_END_FROM_HMI;
  act = startCall = delayStart = false;
}

void ecallStateMachine::runStep() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  switch (state) {
    case ECALL_SM_IDLE: stepIdle(); break;
    case ECALL_SM_CALL_DELAY: stepCallDelay(); break;
    case ECALL_SM_MAKE_CALL: stepMakeCall(); break;
    case ECALL_SM_WAIT_TO_CONNECT: stepWaitToConnect(); break;
    case ECALL_SM_CALL_ACTIVE: stepCallActive(); break;
    case ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS: stepWaitForPsapTts(); break;
    case ECALL_SM_WAIT_FOR_END_FROM_HMI: stepWaitForEndFromHmi(); break;
    case ECALL_SM_INCOMING_CALL_OPEN_AUDIO_FOR_RING_TONES: stepOpenAudioForRingTones(); break;
    case ECALL_SM_INCOMING_CALL_WAIT_RING_TONES_COMPLETE: stepWaitRingTonesComplete(); break;
    case ECALL_SM_INCOMING_CALL_ANSWER: stepAnswer(); break;
    case ECALL_SM_INCOMING_CALL_WAIT_FOR_CALL_ACTIVE: stepWaitForCallActive(); break;
    default:
      scope.sendFormattedWarning("Ecall State Machine in an unknown state, returning to idle.\n");
      sendtoSlog(_SLOG_ERROR, "Ecall State Machine in an unknown state, returning to idle.\n");
      ecallHandler.clearECallEvent();
      state = ECALL_SM_IDLE;
      break;
  }
}

void ecallStateMachine::emitEcall(bool ecall, ecallMain::eEmergencyType signalType,
                                  ecallMain::eCallModeType signalMode) {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  ecallHandler.ecallSignalActive = ecall;
  emitEmergencySignal(ecall, signalType, ecall ? ecallHandler.getLocalEcallNumber() : std::string(), signalMode,
                      ecallHandler.btCallActive.load(), ecallHandler.getEcallModeActive());
}

void ecallStateMachine::playPrompt(eECallTtsPrompt prompt) {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  {
    std::lock_guard<std::mutex> lock(promptSequenceMutex);
    activeTts = prompt;
  }
  extServHandle.playTtsMsg(prompt);
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
  startEcallStateMachineTimer(1);
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

// The one completion handler of the processor's asynchronous requests; the
// context is the request's name. A request the bus library cancelled itself
// is no news and is dropped silently.
void ecallProcessor::onAsyncResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const char* name = context ? static_cast<const char*>(context) : "";
  const SVCIPC_tError err = status ? status->errCode : SVCIPC_ERROR_NONE;
  if (SVCIPC_IS_ERROR(err)) {
    if (SVCIPC_ERROR_DOMAIN(err) == SVCIPC_DOMAIN_IPC_LIB && SVCIPC_ERROR_CODE(err) == SVCIPC_ERR_CANCELLED) return;
    sendtoSlog(_SLOG_WARNING, "Async call %s failed: 0x%0X\n", name, static_cast<unsigned>(err));
    // A dial the phone took and then failed (or never answered) is a failed
    // dial; the state machine judges it against the call's state.
    if (std::strcmp(name, "dial") == 0) sendStateMachinePulse(ECALL_PULSE_DIAL_FAILED);
    return;
  }
  scope.sendFormattedMessage("onAsyncResult[%s]: %s\n", name, result ? result : "");
}
