// The embedded phone's presence on the bus, its ON/OFF status and its
// antenna, and the system-failure word that collects every reason why an
// emergency call is impossible.
//
// The status is learnt two ways: the synchronous query (at registration and
// whenever the phone service gets a new owner) and the phone's own
// "embeddedPhoneStatus" signal. Both take the same decisions about the
// phone-not-present and delay timers; the query may block (it runs on the
// callers' threads), the signal handler runs on the bus thread and therefore
// only sends asynchronous requests. The antenna is judged by one evaluation,
// whether the report is a query reply or an "antennaStatus" signal.
#include <string>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/slog.h"

namespace {

constexpr int PHONE_NOT_PRESENT_TIMEOUT_MS = 30000;
constexpr int32_t PHONE_UNKNOWN = -1;
constexpr int32_t PHONE_OFF = 0;
constexpr int32_t PHONE_ON = 1;

const char* phoneStatusText(int32_t status) {
  if (status < PHONE_UNKNOWN || status > PHONE_ON) status = PHONE_UNKNOWN;
  return ecallProcessor::sEmbPhoneStatusString[status + 1];
}

const char* textOrNull(const char* text) { return text != nullptr ? text : "NULL"; }

// Decides the LED for a change of the failure word: red when the first
// source fails, off when the last one clears, but only if the LED still
// shows the error (a call may have taken it over).
bool ledChangeFor(uint32_t oldWord, uint32_t newWord, eLedStatus lastLed, eLedStatus& newLed) {
  if (oldWord == 0 && newWord != 0) {
    newLed = LED_RED;
    return true;
  }
  if (oldWord != 0 && newWord == 0 && lastLed == LED_RED) {
    newLed = LED_OFF;
    return true;
  }
  return false;
}

}  // namespace

// One antenna report, from a query reply or from the phone's signal. Only a
// successful diagnosis counts. A fault starts (or restarts) the antenna fault
// time; the failure is raised only if no normal report comes before it ends.
void ecallProcessor::evaluateAntennaStatus(const char* report) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const embeddedPhone::antennaReport antenna = embeddedPhone::parseAntennaStatus(report);
  if (!antenna.diagnosed) return;
  scope.sendFormattedMessage("Embedded phone status is: %s\n", antenna.status.c_str());
  if (antenna.normal) {
    scope.sendFormattedMessage("Embedded antenna normal, stop timer and clear system fault\n");
    timers().stopAntennaFaultTimeoutTimer();
    setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, false);
  } else {
    scope.sendFormattedMessage("Embedded antenna fault, start system fault timer\n");
    timers().startAntennaFaultTimeoutTimer();
  }
}

// A module that stays silent is reset by the vehicle micro a limited number
// of times; with the resets used up, the phone counts as not present.
void ecallProcessor::requestModuleReset(const char* requestedText, const char* exhaustedText) {
  if (canIpcEmergencyHandler.v850ResetSierra()) {
    addEntryToEmergencyLog(requestedText);
    timers().startSierraNoCommTimer();
  } else {
    addEntryToEmergencyLog(exhaustedText);
    setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, true);
  }
}

// What seeing the phone OFF means: it must come back within the
// phone-not-present time, and an OFF at start-up (nothing known before)
// gives the module five minutes before any system error is shown.
void ecallProcessor::phoneSeenOff(CQVTraceScope& scope, int32_t oldStatus) {
  if (!timers().isTimerActive(processorTimers::timerTimeoutPhoneNotPresent)) {
    scope.sendFormattedMessage("Get Embedded Phone Status: OFF, start Phone not present timer");
    timers().startPhoneNotPresentTimeoutTimer();
  }
  if (oldStatus == PHONE_UNKNOWN && !timers().isTimerActive(processorTimers::timerDelaySysErr4NoSierraComm)) {
    scope.sendFormattedMessage("Got Phone Status: OFF at startup. Start delay System Error popup timer\n");
    addEntryToEmergencyLog("Got Phone Status: OFF at startup. Start delay System Error popup timer\n");
    timers().startSierraNoCommTimer();
  }
}

// What seeing the phone ON means, whichever way it was seen: it is present,
// its modules resets start counting afresh, and no delayed system error is
// pending any more.
void ecallProcessor::phoneSeenOn(CQVTraceScope& scope) {
  timers().stopPhoneNotPresentTimeoutTimer();
  canIpcEmergencyHandler.resetV850ResetPhCounter();
  setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, false);
  if (timers().isTimerActive(processorTimers::timerDelaySysErr4NoSierraComm)) {
    const int word = static_cast<int>(systemError.load());
    scope.sendFormattedMessage("Got Phone Status: ON. Stop delay System Error popup timer. syste err %d", word);
    addFormattedEntryToEmergencyLog(
        "Got Phone Status: ON. Stop delay System Error popup timer. Roll back reset counter. System err %d\n", word);
    timers().stopSierraNoCommTimer();
  }
}

void ecallProcessor::setEcallSystemFailureState(ecallSystemFailure::eSource source, bool failed) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (source < ecallSystemFailure::SOURCE_NONE || source >= ecallSystemFailure::SOURCE_COUNT) {
    scope.sendFormattedWarning("Ecall System failure source %d unknown, ignored\n", static_cast<int>(source));
    return;
  }
  const char* description = ecallSystemFailure::sDescription[source].c_str();
  scope.sendFormattedMessage("Ecall System failure source received \"%s\":%s\n", description,
                             failed ? "true" : "false");
  const eLedStatus lastLed = canIpcEmergencyHandler.getLastLedSetStatus();

  eLedStatus newLed = LED_OFF;
  bool ledChange = false;
  uint32_t newWord = 0;
  {
    const bool locked = useGeneralEcallProcessorMutex.load();
    if (locked) pthread_mutex_lock(&generalEcallProcessorMutex);
    const uint32_t oldWord = systemError.load();
    const uint32_t mask = ecallSystemFailure::bitMask[source];
    newWord = failed ? (oldWord | mask) : (oldWord & ~mask);
    systemError.store(newWord);
    ledChange = ledChangeFor(oldWord, newWord, lastLed, newLed);
    if (locked) pthread_mutex_unlock(&generalEcallProcessorMutex);
  }

  const char* sense = failed ? "occurred" : "cleared";
  if (!extServHandle.getEmebeddedPhoneEnabledInVariant()) {
    // Without an embedded phone nobody can be called, so the user is not
    // told; the word is still kept, and the first event is recorded once.
    scope.sendFormattedMessage(
        "System error occurred, but since the VARIANT_ECELL indicates no embedded phone, do not act on the event\n");
    if (!systemErrorSent.exchange(true)) {
      addFormattedEntryToEmergencyLog(
          "System error %s, but since the VARIANT_ECELL indicates no embedded phone, do not act on the event\n",
          sense);
    }
    return;
  }

  scope.sendFormattedMessage("System error %s due to %s", sense, description);
  scope.sendFormattedMessage("current SystemError value %d", static_cast<int>(newWord));
  addFormattedEntryToEmergencyLog("System error %s %s\n", description, failed ? "OCCURRED" : "CLEARED");

  // The user hears of a system error once per run, and not while a silent
  // module is still being given its chance to come up.
  if (failed && !systemErrorSent.load()) {
    if (timers().isTimerActive(processorTimers::timerDelaySysErr4NoSierraComm)) {
      scope.sendFormattedMessage("Suppress emitting System error. delaySysErrTimer is active. emdPhOn = %d\n",
                                 static_cast<int>(emdPhOn.load()));
      addFormattedEntryToEmergencyLog(
          "Suppress emitting System error %s. delaySysErrTimer is active. current SystemError = %d\n", description,
          static_cast<int>(newWord));
    } else if (!systemErrorSent.exchange(true)) {
      scope.sendFormattedMessage("emit First System error message\n");
      addFormattedEntryToEmergencyLog("First System error message generated due to %s, current SystemError = %d\n",
                                      description, static_cast<int>(newWord));
      emitEmergencySignal(ecallSignalActive.load(), curECallType.load(), "", ecallMain::CALL_SYSTEM_ERROR,
                          btCallActive.load(), ecallModeActive.load());
    }
  }

  if (ledChange) {
    canIpcEmergencyHandler.setLedStatus(newLed);
    addFormattedEntryToEmergencyLog("System error handling set LED to %d\n", static_cast<int>(newLed));
  }
}

void ecallProcessor::registerEmdPhSvc() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  SVCIPC_tError rc = embeddedPhone::watchOwner(onEmbeddedPhoneOwnerChange, this, &embeddedPhOwnerSubHnd);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedError("failed to subscribe emdph owner change, rc = 0x%0X\n", static_cast<unsigned>(rc));
    sendtoSlog(_SLOG_WARNING, "failed to subscribe emdph owner change, rc = 0x%0X\n", static_cast<unsigned>(rc));
  }

  int hasOwner = 0;
  rc = embeddedPhone::hasOwner(hasOwner);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedError("has owner error 0x%0X\n", static_cast<unsigned>(rc));
    sendtoSlog(_SLOG_WARNING, "has owner error 0x%0X\n", static_cast<unsigned>(rc));
  } else {
    embeddedPhAvail.store(hasOwner != 0 ? 1 : 0);
  }

  subscribeEmbPhSignals("callState");
  subscribeEmbPhSignals("embeddedPhoneStatus");
  subscribeEmbPhSignals("wendReason");
  subscribeEmbPhSignals("antennaStatus");
  subscribeEmbPhSignals("msdRequest");
  subscribeTtsSignals("ttsPlayState");
  subscribeBtSignals("callState");
  subscribeAudioCtrlSignals("DTMF");
  subscribeAppManagerSignals("operStatus");
  subscribeAppManagerSignals("appStarted");
  subscribeAppManagerSignals("appStopped");
  subscribeAppManagerSignals("appPaused");

  scope.sendFormattedMessage("register embeddedPhoneSvc, avail %d\n", embeddedPhAvail.load());
  if (!timers().isTimerActive(processorTimers::timerTimeoutPhoneNotPresent)) {
    scope.sendFormattedMessage(
        "just start Phone not Present timer when we register with EmbPhoneSvc. Expect to get everything in 30s");
    timers().startPhoneNotPresentTimeoutTimer();
  }
  if (embeddedPhAvail.load() != 0) getEmdPhStatus();
}

void ecallProcessor::onEmbeddedPhoneOwnerChange(const char* busName, const char* oldOwner, const char* newOwner,
                                                void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  auto& self = *static_cast<ecallProcessor*>(context);
  scope.sendFormattedMessage("onEmbeddedPhoneOwnerChange: oldOwner: %s, newOwner %s", textOrNull(oldOwner),
                             textOrNull(newOwner));
  if (newOwner == nullptr || newOwner[0] == '\0') {
    // The service is gone, so its phone is as good as OFF; losing the
    // service becomes a failure only if it stays away.
    self.embeddedPhAvail.store(0);
    self.emdPhOn.store(PHONE_OFF);
    if (!self.timers().isTimerActive(processorTimers::timerTimeoutPhoneNotPresent)) {
      scope.sendFormattedMessage("onEmbeddedPhoneOwnerChange to none, start Phone Not Present Timer");
      self.timers().startPhoneNotPresentTimeoutTimer();
    }
  } else {
    self.embeddedPhAvail.store(1);
    self.getEmdPhStatus();
    self.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_SERVICE_NOT_RUNNING, false);
  }
  scope.sendFormattedMessage("embeddedPhone owner changed, avail %d\n", self.embeddedPhAvail.load());
}

void ecallProcessor::getEmdPhStatus() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const unsigned reportsBefore = phoneStatusReports.load();
  std::string reply;
  const SVCIPC_tError rc = embeddedPhone::readStatus(reply);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedWarning("failed to get embPh status, rc %d\n", rc);
    sendtoSlog(_SLOG_ERROR, "failed to get embPh status, rc %d, resp is %s\n", rc, answerState(reply));
    return;
  }
  bool on = false;
  if (!embeddedPhone::parseStatus(reply.c_str(), false, on)) return;
  const int32_t newStatus = on ? PHONE_ON : PHONE_OFF;
  int32_t oldStatus;
  {
    // The phone's own report may have come while this answer was on its
    // way: the report is newer, and the answer must not undo it.
    std::lock_guard<std::mutex> lock(mPhoneStatusMutex);
    if (phoneStatusReports != reportsBefore) {
      scope.sendFormattedMessage("embPh status answer %s overtaken by the phone's own report, keeping %s\n",
                                 phoneStatusText(newStatus), phoneStatusText(emdPhOn.load()));
      return;
    }
    oldStatus = emdPhOn.exchange(newStatus);
  }
  scope.sendFormattedMessage("current EmbPh Status %d, embeddPhoneSvc status %d, curECallType %d\n", oldStatus,
                             newStatus, static_cast<int>(curECallType.load()));

  if (on) {
    if (oldStatus != PHONE_ON) {
      addFormattedEntryToEmergencyLog("Get Embedded Phone Status: change from %s to ON\n", phoneStatusText(oldStatus));
    }
    phoneSeenOn(scope);
    readECallNumber();
    // An emergency raised while the phone could not call was only recorded;
    // serve it now (from OFF or from nothing known yet).
    servePhoneReturn();
    checkAntennaStatus();
  } else {
    if (oldStatus != PHONE_OFF) {
      const std::string ports = getSWIUSBPorts();
      addFormattedEntryToEmergencyLog("Get Embedded Phone Status: change from %s to OFF. SWIUSB ports: %s\n",
                                      phoneStatusText(oldStatus), ports.c_str());
    }
    phoneSeenOff(scope, oldStatus);
  }
}

// The phone's own status report. It runs on the bus thread, so every request
// it makes is asynchronous. ON: the phone is present again; its numbers and
// antenna may have changed, and an emergency recorded while it was not ON is
// served (its marker says so; a request in hand is never taken for one). OFF: the module's ports
// are recorded on the change, and the phone must come back in time.
void ecallProcessor::processEmdPhStatusSignal(const char* data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  bool on = false;
  if (!embeddedPhone::parseStatus(data, true, on)) {
    scope.sendFormattedWarning("embedded phone status signal without status ignored: %s\n", textOrNull(data));
    return;
  }
  const int32_t newStatus = on ? PHONE_ON : PHONE_OFF;
  int32_t oldStatus;
  {
    std::lock_guard<std::mutex> lock(mPhoneStatusMutex);
    ++phoneStatusReports;
    oldStatus = emdPhOn.exchange(newStatus);
  }
  scope.sendFormattedMessage("embedded phone status signal: change from %s to %s\n", phoneStatusText(oldStatus),
                             phoneStatusText(newStatus));
  if (on) {
    phoneSeenOn(scope);
    asyncReadECallNumber();
    processCachedEcallStatus();
    asyncCheckAntennaStatus();
  } else {
    if (oldStatus != PHONE_OFF) asyncRequestSWIUSBPorts();
    phoneSeenOff(scope, oldStatus);
  }
}

void ecallProcessor::processAntennaStatusSignal(const char* data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("received embedded phone antenna status %s\n", textOrNull(data));
  evaluateAntennaStatus(data);
}

void ecallProcessor::checkAntennaStatus() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::string result;
  const SVCIPC_tError rc = embeddedPhone::readAntennaStatus(result);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedWarning("Failed to get embedded phone antenna status, rc %d\n", rc);
    sendtoSlog(_SLOG_ERROR, "Failed to get embedded phone antenna status, rc is %d\n", rc);
    return;
  }
  scope.sendFormattedMessage("Get embedded phone antenna status result %s\n", result.c_str());
  evaluateAntennaStatus(result.c_str());
}

void ecallProcessor::asyncCheckAntennaStatus() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc = embeddedPhone::requestAntennaStatus(onAsyncAntennaStatusResult, this);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedError("failed to send async request to get antenna status, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "failed to send async request to get antenna status, rc 0x%0X\n",
               static_cast<unsigned>(rc));
  }
}

void ecallProcessor::onAsyncAntennaStatusResult(const SVCIPC_tCallbackStatus* status, const char* result,
                                                void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("receive async antenna status result %s", textOrNull(result));
  // A failed request carries no diagnosis; the antenna keeps its state.
  if ((status != nullptr && SVCIPC_IS_ERROR(status->errCode)) || result == nullptr) return;
  static_cast<ecallProcessor*>(context)->evaluateAntennaStatus(result);
}

// Pulse 8: the phone has not been seen ON within the phone-not-present time.
void ecallProcessor::onPhoneNotPresentTimeout() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (embeddedPhAvail.load() == 0) {
    scope.sendFormattedError("Phone service not available after a timeout of %dms\n", PHONE_NOT_PRESENT_TIMEOUT_MS);
    setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_SERVICE_NOT_RUNNING, true);
  }
  if (emdPhOn.load() == PHONE_ON) return;
  if (timers().isTimerActive(processorTimers::timerDelaySysErr4NoSierraComm)) {
    scope.sendFormattedMessage("Phone not present timer is off. Delay Sys Err popup timer is still active. do nothing");
    addEntryToEmergencyLog("Phone not present timer is off. Delay Sys Err popup timer is still active. do nothing\n");
    return;
  }
  requestModuleReset("Phone not present timer is off. Already requested V850 to reset Sierra Module. Start 5 min timer\n",
                     "Phone still not present after all V850 resets. Set system error\n");
}

// Pulse 9: the antenna fault lasted for the whole antenna fault time.
void ecallProcessor::onAntennaFaultTimeout() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, true);
}

// Pulse 10: the module was given five minutes (after start-up or a reset).
void ecallProcessor::onDelaySysErrTimeout() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (emdPhOn.load() == PHONE_ON) {
    scope.sendFormattedWarning(
        "Delay System Error timer is off. embedded Phone is ON. Should not be here. Check logic err in code");
    return;
  }
  scope.sendFormattedMessage("Delay System Error timer is off. embedded Phone still OFF.");
  requestModuleReset(
      "Delay System Error timer is off. Already requested V850 to reset Sierra Module. Restart 5 min timer\n",
      "After all V850 resets, Emb Phone status is still OFF. Set System error\n");
}
