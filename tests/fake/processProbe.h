// The tests' view into the process objects: each function returns the
// member of that name (a friend of the classes).
#pragma once

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"

#define PROCESS_PROBE_MEMBER(object, member) \
  static auto& member() { return (object).member; }

struct processProbe {
  PROCESS_PROBE_MEMBER(ecallHandler, curECallType)
  PROCESS_PROBE_MEMBER(ecallHandler, curCallModeType)
  PROCESS_PROBE_MEMBER(ecallHandler, curCallState)
  PROCESS_PROBE_MEMBER(ecallHandler, callConnected)
  PROCESS_PROBE_MEMBER(ecallHandler, emdPhOn)
  PROCESS_PROBE_MEMBER(ecallHandler, localEcallNumber)
  PROCESS_PROBE_MEMBER(ecallHandler, btCallActive)
  PROCESS_PROBE_MEMBER(ecallHandler, ecallModeActive)
  PROCESS_PROBE_MEMBER(ecallHandler, bAssistAppActive)
  PROCESS_PROBE_MEMBER(ecallHandler, ecallSignalActive)
  PROCESS_PROBE_MEMBER(ecallHandler, orcMonitoringStarted)
  PROCESS_PROBE_MEMBER(ecallHandler, systemError)
  PROCESS_PROBE_MEMBER(ecallHandler, mWillDisconnBT)
  PROCESS_PROBE_MEMBER(ecallHandler, waitingForPhone)
  PROCESS_PROBE_MEMBER(ecallHandler, waitingForNumber)
  PROCESS_PROBE_MEMBER(ecallHandler, activeTts)
  PROCESS_PROBE_MEMBER(ecallHandler, firstPsapTtsWaitForComplete)
  PROCESS_PROBE_MEMBER(ecallHandler, firstPsapTtsCount)
  PROCESS_PROBE_MEMBER(ecallHandler, errorSentForNoEcallNumberLoaded)
  PROCESS_PROBE_MEMBER(ecallHandler, embeddedPhAvail)
  PROCESS_PROBE_MEMBER(ecallHandler, systemErrorSent)
  PROCESS_PROBE_MEMBER(ecallHandler, assistAppUUID)
  PROCESS_PROBE_MEMBER(ecallHandler, defaultPhoneVol)
  PROCESS_PROBE_MEMBER(ecallHandler, defaultPromptVol)
  PROCESS_PROBE_MEMBER(ecallHandler, uselogWriteMutex)
  static processorTimers& timers() { return ecallHandler.timers(); }
  static std::atomic<int>& stateMachineSendChannel() { return ecallHandler.mStateMachine.mSendChannelId; }
  static qnx::timer_t timerId(processorTimers& timers, processorTimers::timerKind kind) {
    return timers.mTimers[kind].timerId;
  }

  PROCESS_PROBE_MEMBER(extServHandle, mCurrentTtsPrompt)
  PROCESS_PROBE_MEMBER(extServHandle, mReadoutType)
  PROCESS_PROBE_MEMBER(extServHandle, mTtsLanguage)
  PROCESS_PROBE_MEMBER(extServHandle, mVehicleBrandIndex)
  PROCESS_PROBE_MEMBER(extServHandle, mEmbeddedPhoneEnabled)
  PROCESS_PROBE_MEMBER(extServHandle, mVariantInfoKnown)

  PROCESS_PROBE_MEMBER(canIpcEmergencyHandler, mLastLedSetStatus)
};

#undef PROCESS_PROBE_MEMBER
