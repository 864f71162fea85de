// Start-up of the processor: its two locks, the state machine thread, the
// Assist identifier, the registration with the embedded phone service with
// the signal subscriptions, and the default volumes.
#include <pthread.h>

#include <chrono>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/appManager.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace {

// How long start-up waits for the state machine thread to have made its
// timers.
constexpr auto STATE_MACHINE_READY_LIMIT = std::chrono::seconds(2);

// The outcome of one subscription; a failure is reported with the service's
// own words and start-up goes on.
void reportSubscription(SVCIPC_tError rc, const char* sigName, const char* traceFormat, const char* slogFormat) {
  CQVTraceScope scope(ecallProcessorTraceScope, "subscribeSignal");
  if (SVCIPC_IS_ERROR(rc)) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    scope.sendFormattedError(traceFormat, sigName, static_cast<unsigned>(rc));
    sendtoSlog(_SLOG_WARNING, slogFormat, sigName, static_cast<unsigned>(rc));
#pragma GCC diagnostic pop
  }
}

void subscribeSignal(const char* objPath, const char* sigName, SVCIPC_tSignalCallback handler, ecallProcessor* context,
                     const char* traceFormat, const char* slogFormat) {
  SVCIPC_tSigSubHnd subscription = nullptr;
  reportSubscription(SVCIPC_subscribe(ecallFrame().connection(), objPath, sigName, handler, context, &subscription),
                     sigName, traceFormat, slogFormat);
}

}  // namespace

void ecallProcessor::initLocks() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const bool logMutexMade = pthread_mutex_init(&logWriteMutex, nullptr) == 0;
  if (logMutexMade) {
    scope.sendFormattedMessage("Log file mutex init success\n");
  } else {
    scope.sendFormattedError("Log file mutex init failed, not thread safe log writes may occur!!!\n");
  }
  uselogWriteMutex.store(logMutexMade);

  const bool generalMutexMade = pthread_mutex_init(&generalEcallProcessorMutex, nullptr) == 0;
  if (generalMutexMade) {
    scope.sendFormattedMessage("General use mutex for ecallProcessor init success\n");
  } else {
    scope.sendFormattedError(
        "General use mutex for ecallProcessor init failed, not thread safe interactions may occur!!!\n");
  }
  useGeneralEcallProcessorMutex.store(generalMutexMade);
}

void ecallProcessor::initEcallProcessor() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  initLocks();
  startLogSyncer();
  if (!mStateMachine.startThread()) {
    scope.sendFormattedError("Failed to create ecall state machine thread.  Ecalls WILL NOT WORK!!!\n");
    sendtoSlog(_SLOG_WARNING, "Failed to create ecall state machine thread.  Ecalls WILL NOT WORK!!!\n");
  } else if (!mStateMachine.waitForStart(STATE_MACHINE_READY_LIMIT)) {
    // The registration that follows starts the phone-not-present timer, and
    // the timers are made by the state machine thread before its first
    // receive: a short, bounded wait at start-up only.
    scope.sendFormattedWarning("ecall state machine not ready, its timers may not run\n");
  }

  // The emergency mode is off at start: a marker that a run killed in its
  // emergency mode left behind goes, and a resumed emergency or call-back
  // period makes it again.
  setEcallModeActive(false);
  // Before the phone is known: a resumed emergency waits for the phone's
  // ON report like any other.
  resumeFromJournal();
  getAssistAppUUID();
  registerEmdPhSvc();
  getDefaultVolumes();
}

void ecallProcessor::resumeFromJournal() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const emergencyJournal::startUp found =
      mJournal.open(emergencyJournalPath, emergencyJournalAsidePath, platform::scaledMs(EMERGENCY_RESUME_AGE_LIMIT_MS),
                    platform::scaledMs(CALLBACK_PERIOD_MS));
  if (found.setAside) {
    addFormattedEntryToEmergencyLog("Emergency journal %s: set aside as %s, nothing resumed from it\n",
                                    found.load.problem.c_str(), emergencyJournalAsidePath.c_str());
    sendtoSlog(_SLOG_WARNING, "Emergency journal %s: set aside as %s, nothing resumed from it\n",
               found.load.problem.c_str(), emergencyJournalAsidePath.c_str());
  } else if (!found.load.problem.empty()) {
    addFormattedEntryToEmergencyLog("Emergency journal %s\n", found.load.problem.c_str());
    sendtoSlog(_SLOG_WARNING, "Emergency journal %s\n", found.load.problem.c_str());
  }

  const journal::journalResume& resume = found.resume;
  const char* event = ecallMain::EmergencyEvent[resume.type].c_str();
  const char* mode = ecallMain::eCallModeTypeString[resume.mode].c_str();
  const long long ageSeconds = static_cast<long long>(platform::unscaledMs(resume.ageMs) / 1000);
  switch (resume.action) {
    case journal::resumeAction::raise:
      addFormattedEntryToEmergencyLog("Emergency resumed after a restart: %s, mode %s, requested %lld s ago\n", event,
                                      mode, ageSeconds);
      sendtoSlog(_SLOG_WARNING, "Emergency resumed after a restart: %s, mode %s, requested %lld s ago\n", event, mode,
                 ageSeconds);
      // As it first came: a crash is a crash call, a press gets its delay.
      emergencyHappened(static_cast<ecallMain::eEmergencyType>(resume.type));
      break;
    case journal::resumeAction::callbackPeriod:
      resumedCallbackPeriodMs = platform::unscaledMs(resume.periodMs);
      addFormattedEntryToEmergencyLog("Call-back period resumed after a restart: %s, %lld ms left\n", event,
                                      static_cast<long long>(resumedCallbackPeriodMs.load()));
      sendtoSlog(_SLOG_INFO, "Call-back period resumed after a restart: %s, %lld ms left\n", event,
                 static_cast<long long>(resumedCallbackPeriodMs.load()));
      mJournal.callbackPeriod(resume.periodMs);
      sendStateMachinePulse(ECALL_PULSE_RESUME_CALLBACK_PERIOD);
      break;
    case journal::resumeAction::tooOld:
      addFormattedEntryToEmergencyLog(
          "Emergency not resumed after a restart: %s, mode %s, requested %lld s ago, over an hour\n", event, mode,
          ageSeconds);
      sendtoSlog(_SLOG_WARNING,
                 "Emergency not resumed after a restart: %s, mode %s, requested %lld s ago, over an hour\n", event,
                 mode, ageSeconds);
      break;
    case journal::resumeAction::nothing:
      scope.sendFormattedMessage("Emergency journal: nothing to resume (%s)\n",
                                 journal::kindName(found.load.record.kind));
      break;
  }
}

void ecallProcessor::subscribeEmbPhSignals(const char* sigName) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  reportSubscription(embeddedPhone::subscribe(sigName, onSubcribedSignal, this), sigName,
                     "Failed to subscribe with embeddedPh signal %s, error=0x%0X\n",
                     "Failed to subscribe with embeddedPh signal %s, error=0x%0X\n");
}

void ecallProcessor::subscribeTtsSignals(const char* sigName) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  subscribeSignal(TTS_PATH, sigName, onSubcribedSignal, this,
                  "Failed to subscribe with TTS service signal %s, error=0x%0X\n",
                  "Failed to subscribe with TTS service signal %s, error=0x%0X\n");
}

void ecallProcessor::subscribeBtSignals(const char* sigName) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  subscribeSignal(BLUETOOTH_PATH, sigName, onSubcribedBTSignal, this,
                  "Failed to subscribe with BT service signal %s, error=0x%0X\n",
                  "Failed to subscribe with BT service signal %s, error=0x%0X\n");
}

void ecallProcessor::subscribeAudioCtrlSignals(const char* sigName) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  subscribeSignal(AUDIO_CTRL_PATH, sigName, onSubcribedSignal, this,
                  "Failed to subscribe with audio control service signal %s, error=0x%0X\n",
                  "Failed to subscribe with audio control signal %s, error=0x%0X\n");
}

void ecallProcessor::subscribeAppManagerSignals(const char* sigName) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  reportSubscription(appManager::subscribe(sigName, onSubcribedAppMngrSignal, this), sigName,
                     "Failed to subscribe with app manager service signal %s, error=0x%0X\n",
                     "Failed to subscribe with app manager signal %s, error=0x%0X\n");
}
