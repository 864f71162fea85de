// The main state machine of the processor, as its own thread sees it: the
// state and the per-pulse flags live here, owned by the thread function and
// touched by nobody else. The loop and the pulse handling are in
// stateMachine.cpp, the step of each state in stateSteps.cpp.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "common/ecallTypes.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"

// Blocks until the state machine thread has made its channel and timers
// (true) or could not (false), at most for limit.
bool waitForStateMachineStart(std::chrono::milliseconds limit);

// The prompt for the emergency centre is two readouts chained by the
// "ttsPlayState" completions on the bus thread while the state machine may
// be deciding to start it: activeTts, firstPsapTtsCount and
// firstPsapTtsWaitForComplete change together under this lock (held only
// for the change, never across a bus request).
extern std::mutex promptSequenceMutex;

class ecallStateMachine {
 public:
  // Receives and handles pulses for ever.
  [[noreturn]] void run();

 private:
  // The loop's parts (stateMachine.cpp).
  void receivePulse();
  void handlePulse(int code);
  void checkRequest();
  void endCall();
  void runStep();

  // The steps of the states (stateSteps.cpp).
  void stepIdle();
  bool readNumberOrRaiseFailure();
  void startEmergency();
  void startCallback();
  void stepCallDelay();
  void stepMakeCall();
  void dial();
  void retryDialLater();
  void stepWaitToConnect();
  void stepWaitForPsapTts();
  void stepCallActive();
  void stepWaitForEndFromHmi();
  void endEmergencyMode();
  void stepOpenAudioForRingTones();
  void stepWaitRingTonesComplete();
  void stepAnswer();
  void stepWaitForCallActive();

  // The "ecall" signal as the state machine sends it: ecallSignalActive
  // follows the boolean, the number is sent only with true.
  void emitEcall(bool ecall, ecallMain::eEmergencyType type, ecallMain::eCallModeType mode);
  void playPrompt(eECallTtsPrompt prompt);

  ecallStateMachineStates state = ECALL_SM_IDLE;
  bool dialAllowed = true;
  bool callFailedLogged = false;  // "Error Call Failed" once per emergency
  eECallTtsPrompt psapPrompt = TTS_PROMPT_NONE;

  // The pulse being handled.
  int pulseCode = 0;
  bool act = false;
  bool startCall = false;
  bool delayStart = false;
  bool callEnded = false;

  // The request as read at the start of the step.
  ecallMain::eEmergencyType type = ecallMain::NONE;
  ecallMain::eCallModeType mode = ecallMain::CALL_NONE;
};
