// Emergency requests and call modes. Every emergency (impact, mirror button,
// bus request, the centre's callback, a button press cached while the phone
// was off) enters through emergencyHappened on the caller's thread; it
// records type and mode and hands over to the state machine by the 1 ms
// request timers, never by a direct call.
#include <cstdio>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/hmiGateway.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/clocks.h"
#include "platform/slog.h"

using ecallMain::eCallModeType;
using ecallMain::eEmergencyType;

namespace {

bool isImpact(eEmergencyType type) { return type >= ecallMain::CAN_IMPACT_A && type <= ecallMain::SERIAL_IMPACT_X; }

// The emergencies that are dialled (not the centre's call-back).
bool isDialled(eEmergencyType type) { return type == ecallMain::E_CALL_BtnStat || isImpact(type); }

}  // namespace

// The failure word, read under the processor's general lock when it exists.
uint32_t ecallProcessor::readSystemError() {
  if (!useGeneralEcallProcessorMutex) return systemError.load();
  pthread_mutex_lock(&generalEcallProcessorMutex);
  const uint32_t value = systemError.load();
  pthread_mutex_unlock(&generalEcallProcessorMutex);
  return value;
}

void ecallProcessor::setEcallFailedToStart() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  curECallType = ecallMain::NONE;
  curCallModeType = ecallMain::CALL_NONE;
}

void ecallProcessor::clearECallEvent() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  bool testCall;
  {
    // A cancel also drops an emergency that waits for the phone or a number.
    std::lock_guard<std::mutex> lock(mRequestMutex);
    waitingForPhone = false;
    waitingForNumber = false;
    testCall = curECallType.exchange(ecallMain::NONE) == ecallMain::TEST_CALL;
    curCallModeType = ecallMain::CALL_NONE;
  }
  // A test call is never in the journal.
  if (!testCall) mJournal.closed();
  timers().stopDelayEcallRequest();
  // The state machine sees the cleared request and ends the emergency.
  timers().startEcallStateMachineTimer(1);
}

// The flag file tells other components that the emergency mode is on.
void ecallProcessor::setEcallModeActive(bool active) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  ecallModeActive = active;
  createFlagInTmp(active, embeddedCallActiveFlag);
}

// Takes the cellular module out of its emergency mode.
void ecallProcessor::exitEmergencyMode() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc = embeddedPhone::leaveEmergencyMode();
  if (rc < 0) {
    scope.sendFormattedError("Failed to exit emergency mode, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to exit emergency mode, rc 0x%0X\n", static_cast<unsigned>(rc));
  }
}

// The Assist button: if Assist does not come up within the time-out, the
// state machine turns the mirror LED off again.
void ecallProcessor::assistButtonPressed() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (timers().isRunningAssistTimeoutTimer() || bAssistAppActive || ecallModeActive) return;
  timers().startAssistTimeoutTimer();
}

// The signal's path to the phone's return: the same rule as every other.
void ecallProcessor::processCachedEcallStatus() { servePhoneReturn(); }

// An emergency recorded while the phone could not call (a crash, the button,
// a request of the head unit) is handed over when the phone is back, once:
// the marker is taken under the request lock, so two reports of the return
// serve it once, and an emergency that comes meanwhile is judged against the
// whole hand-over. A cancel meanwhile cleared the marker and the request.
void ecallProcessor::servePhoneReturn() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::unique_lock<std::mutex> lock(mRequestMutex);
  const eEmergencyType type = curECallType;
  const eCallModeType mode = curCallModeType;
  const std::string callState = curCallState.get();
  if (!waitingForPhone.exchange(false) || type == ecallMain::NONE) {
    scope.sendFormattedMessage("Ecall caching status not handled. curECallType: %d, curCallModeType: %d, curCallState %s",
                               type, mode, callState.c_str());
    return;
  }
  scope.sendFormattedMessage("Handle Ecall caching status. curECallType: %d, curCallModeType: %d, curCallState %s",
                             type, mode, callState.c_str());
  addFormattedEntryToEmergencyLog("Handle Ecall caching status. curECallType: %d, curCallModeType: %d, curCallState %s\n",
                                  type, mode, callState.c_str());
  // Handed over as if it happened now: the mode table decides afresh.
  curECallType = ecallMain::NONE;
  curCallModeType = ecallMain::CALL_NONE;
  const requestNotices notices = decideEmergency(type);
  lock.unlock();
  tellRequestNotices(notices);
}

void ecallProcessor::emergencyHappened(eEmergencyType newType) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (!extServHandle.getEmebeddedPhoneEnabledInVariant()) {
    const char* text =
        "Emergency event detected but since the VARIANT_ECELL indicates no embedded phone, do not act on the event\n";
    scope.sendFormattedMessage("%s", text);
    addEntryToEmergencyLog(text);
    return;
  }
  scope.sendFormattedMessage("emergency happened");
  if (newType == ecallMain::NONE) {
    scope.sendFormattedWarning("Emergency request with type 0 (none).  Current active type %d\n",
                               curECallType.load());
    return;
  }
  if (newType < ecallMain::NONE || newType >= ecallMain::EMERGENCY_TYPE_COUNT || newType == ecallMain::TEST_CALL) {
    // A test call is no emergency: it starts only as a test call.
    scope.sendFormattedWarning("Emergency request with type %d out of range, ignored\n", newType);
    return;
  }
  std::unique_lock<std::mutex> lock(mRequestMutex);
  const requestNotices notices = decideEmergency(newType);
  lock.unlock();
  tellRequestNotices(notices);
}

// The decision on one emergency request, taken whole under the request lock
// (held by the caller); what the user is told about it comes after, since
// telling may wait on a peer.
ecallProcessor::requestNotices ecallProcessor::decideEmergency(eEmergencyType newType) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  requestNotices notices;
  if (curECallType == ecallMain::TEST_CALL && isDialled(newType)) {
    // An emergency ends a test call at once and is decided as on an idle
    // service: a crash is dialled now, a press gets its own cancel window.
    scope.sendFormattedMessage("emergency during a test call, type %d: the test call ends\n", newType);
    curECallType = ecallMain::NONE;
    curCallModeType = ecallMain::CALL_NONE;
    timers().startEcallStateMachineTimer(1);
  }
  // The mode: a repeat keeps it, an impact is a crash notification, the
  // first button press starts the delay, a later one calls at once.
  eCallModeType newMode = ecallMain::CALL_NONE;
  if (newType == curECallType) {
    newMode = curCallModeType;
  } else if (isImpact(newType)) {
    newMode = ecallMain::CALL_ACN;
  } else if (newType == ecallMain::E_CALL_BtnStat && curCallModeType == ecallMain::CALL_NONE) {
    // The user hears why nothing happens before the press is taken.
    if (readSystemError() != 0) ++notices.systemErrorNotices;
    newMode = ecallMain::CALL_ECALL_DELAY;
  } else if (newType == ecallMain::E_CALL_BtnStat) {
    newMode = ecallMain::CALL_ECALL;
  } else if (newType == ecallMain::Emergency_Callback) {
    newMode = ecallMain::CALL_EMERGENCY_CALLBACK;
  }
  scope.sendFormattedMessage("emergency happened. curCallModeType %d, newCallModeType %d, curECallType %d",
                             curCallModeType.load(), newMode, curECallType.load());

  // A press during an emergency in hand: cancels during the delay, redials
  // in the callback period, blinks the LED during a call.
  const bool waits = waitingForPhone || waitingForNumber;
  if (newType == ecallMain::E_CALL_BtnStat && curCallModeType != ecallMain::CALL_NONE && emdPhOn == 1 && !waits) {
    scope.sendFormattedMessage("start delay ecall request");
    timers().startDelayEcallRequest();
  }

  // A crash that waits (for the phone or for a number) is never turned into
  // a lesser call by a press: the operator must hear of the crash.
  const bool crashWaits = waits && isImpact(curECallType) && !isImpact(newType);
  const bool phoneAway = !embeddedPhAvail || emdPhOn != 1;
  if (phoneAway || waitingForPhone) {
    // The phone cannot call now, or its return is being taken: the request
    // is kept with the one that waits, and served when the phone is back.
    scope.sendFormattedWarning("emergency happened. type %d, embedded phone not available\n", newType);
    if (phoneAway) ++notices.systemErrorNotices;
    if (crashWaits) {
      scope.sendFormattedMessage("keeping the waiting crash, type %d\n", curECallType.load());
      return notices;
    }
    // Marked as waiting unless an emergency is in hand already: the state
    // machine's own retries carry that one (and this request with it).
    if (curECallType.exchange(newType) == ecallMain::NONE) {
      waitingForPhone = true;
      mStageClock.begin(platform::monotonicMs());
    }
    curCallModeType = newMode;
    if (isDialled(newType)) mJournal.requested(newType, newMode);
    scope.sendFormattedMessage("Emergency happened. type %d. mode %s.\n", newType,
                               ecallMain::eCallModeTypeString[newMode].c_str());
    return notices;
  }

  if (curCallModeType == ecallMain::CALL_ECALL && newMode == ecallMain::CALL_ACN) {
    // A crash during a button call turns it into a crash notification.
    scope.sendFormattedMessage("stop delay ecall request.");
    timers().stopDelayEcallRequest();
  } else if (curECallType != ecallMain::NONE && (!waitingForNumber || crashWaits)) {
    // One in hand, or a crash waiting for its number, which a press leaves
    // as it is.
    scope.sendFormattedMessage("ecall already requested. Current type %d", curECallType.load());
    notices.repeatedPress = curCallModeType != ecallMain::CALL_ECALL_DELAY && newType == ecallMain::E_CALL_BtnStat;
    return notices;
  }

  // A new emergency is a new call; one taken up again keeps its trigger.
  if (curECallType == ecallMain::NONE) mStageClock.begin(platform::monotonicMs());
  curECallType = newType;
  curCallModeType = newMode;
  // Written before the state machine is woken (into the kernel; made
  // durable by the journal's own thread).
  if (isDialled(newType)) mJournal.requested(newType, newMode);
  scope.sendFormattedMessage("Emergency happened. type %d. mode %s.\n", newType,
                             ecallMain::eCallModeTypeString[newMode].c_str());
  if (newMode == ecallMain::CALL_ACN) {
    timers().startEcallImmediateTimer();
  } else if (newMode == ecallMain::CALL_ECALL_DELAY) {
    timers().startDelayEcallRequest();
  } else {
    // The callback is started by the call state, not from here.
    const char* notRecognized =
        "Ecall type %d not recognized.  Someone added types and code without updating function emergencyHappened()\n";
    scope.sendFormattedError(notRecognized, newMode);
    sendtoSlog(_SLOG_WARNING, notRecognized, newMode);
  }
  return notices;
}

void ecallProcessor::tellRequestNotices(const requestNotices& notices) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  for (int i = 0; i < notices.systemErrorNotices; ++i) processEcallBtnPressWithSystemError();
  if (!notices.repeatedPress) return;
  scope.sendFormattedMessage("ecall ongoing, blink LED");
  addEntryToEmergencyLog("ECall Button pressed again during ecall process. Send LED blink green\n");
  printf("start delay ecall request. blink LED\n");
  fflush(stdout);
  canIpcEmergencyHandler.setLedStatus(LED_BLINKING_GREEN);
  canIpcEmergencyHandler.startBlinkTimer();
  emitEmergencySignal(true, curECallType, "", ecallMain::CALL_ECALL_BUTTON_REPEAT, btCallActive, ecallModeActive);
}

// A button press that cannot be served: while the phone may still come up the
// user is asked to wait, otherwise told of the system error.
void ecallProcessor::processEcallBtnPressWithSystemError() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const uint32_t error = systemError;
  if (error == 0 || error == ecallSystemFailure::bitMask[ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT]) {
    if (timers().isTimerActive(processorTimers::timerDelaySysErr4NoSierraComm) ||
        timers().isTimerActive(processorTimers::timerTimeoutPhoneNotPresent)) {
      scope.sendFormattedMessage(
          "ECall Button pressed but embedded Phone is OFF. Request HMI to display please wait popup. system error: %d\n", error);
      addFormattedEntryToEmergencyLog(
          "ECall Button pressed but embedded Phone is OFF. Request HMI to display please wait popup. System error: %d\n", error);
      requestHMIDisplayPleaseWaitPopup();
    }
    return;
  }
  scope.sendFormattedMessage("Send System error message due to ECall Button press\n");
  addFormattedEntryToEmergencyLog("Send System error message due to ECall Button press. System error %d\n", error);
  emitEmergencySignal(ecallSignalActive, curECallType, "", ecallMain::CALL_SYSTEM_ERROR, btCallActive,
                      ecallModeActive);
}

void ecallProcessor::requestHMIDisplayPleaseWaitPopup() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc = hmiGateway::displayPleaseWaitPopup();
  if (rc < 0) {
    const char* failure =
        "Failed to request HMI to display please wait popup for ecall button press but no emb phone comm.";
    scope.sendFormattedError("%s rc %d\n", failure, rc);
    sendtoSlog(_SLOG_WARNING, "%s rc 0x%0X\n", failure, static_cast<unsigned>(rc));
  }
}
