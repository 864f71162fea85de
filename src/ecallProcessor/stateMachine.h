// The main state machine of the processor: its thread, its channel, its nine
// timers, and the state and per-pulse flags that only its own thread
// touches. The thread, the loop and the pulse handling are in
// stateMachine.cpp; what a turn does (the request check and the step of each
// state) in stateSteps.cpp. One instance, owned by the processor.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "common/ecallTypes.h"
#include "ecallProcessor/processorTimers.h"
#include "platform/threadProgress.h"

class ecallProcessor;
class CANImpactECallHandler;
class externalServiceHandling;
enum eECallTtsPrompt : int32_t;

enum ecallStateMachineStates : int32_t {
  ECALL_SM_IDLE = 0,
  ECALL_SM_CALL_DELAY = 1,
  ECALL_SM_MAKE_CALL = 2,
  ECALL_SM_WAIT_TO_CONNECT = 3,
  ECALL_SM_CALL_ACTIVE = 4,
  ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS = 5,
  ECALL_SM_WAIT_FOR_END_FROM_HMI = 6,
  ECALL_SM_INCOMING_CALL_OPEN_AUDIO_FOR_RING_TONES = 7,
  ECALL_SM_INCOMING_CALL_WAIT_RING_TONES_COMPLETE = 8,
  ECALL_SM_INCOMING_CALL_ANSWER = 9,
  ECALL_SM_INCOMING_CALL_WAIT_FOR_CALL_ACTIVE = 10,
};

// Pulse codes of the state machine's channel (the value is always 0).
enum ecallStateMachinePulse : int {
  ECALL_PULSE_RUN_STATE_MACHINE = 1,
  ECALL_PULSE_START_CALL = 2,
  ECALL_PULSE_DELAY_START = 3,
  ECALL_PULSE_PSAP_CALL_ENDED = 4,
  ECALL_PULSE_CONNECT_TIMEOUT = 5,
  ECALL_PULSE_EMERGENCY_INCOMING_CALL = 6,
  ECALL_PULSE_ASSIST_NEVER_ACTIVE = 7,
  ECALL_PULSE_PHONE_NOT_PRESENT = 8,
  ECALL_PULSE_ANTENNA_FAULT = 9,
  ECALL_PULSE_DELAY_SYS_ERR_NO_SIERRA_COMM = 10,
  // The phone's reply to the dial request was an error (sent by the bus
  // thread, judged by the state machine).
  ECALL_PULSE_DIAL_FAILED = 11,
  // A call-back period that a restart interrupted goes on (sent once, at
  // start-up, when the emergency journal says so).
  ECALL_PULSE_RESUME_CALLBACK_PERIOD = 12,
};

// Name of a state for traces (the table has no row for state 5, kept so).
const char* getStateMachineString(ecallStateMachineStates state);

class ecallStateMachine {
 public:
  // The processor's peers are handed in with it.
  ecallStateMachine(ecallProcessor& processor, CANImpactECallHandler& inputs, externalServiceHandling& services)
      : processor(processor), canIpcEmergencyHandler(inputs), extServHandle(services) {}
  ecallStateMachine(const ecallStateMachine&) = delete;
  ecallStateMachine& operator=(const ecallStateMachine&) = delete;

  // Starts the thread; false when it could not be created.
  bool startThread();
  // Blocks until the thread has made its channel and timers (true) or could
  // not (false), at most for limit.
  bool waitForStart(std::chrono::milliseconds limit);
  // MsgSendPulse(send channel, getprio(0), code, 0).
  void sendPulse(int code);
  processorTimers& timers() { return mTimers; }

 private:
  friend struct processProbe;  // the unit tests' view

  static void* threadFunc(void* self);
  void threadMain();
  void announceStart();

  // Receives and handles pulses for ever.
  [[noreturn]] void run();

  // The loop's parts (stateMachine.cpp).
  void receivePulse();
  void handlePulse(int code);

  // One turn and the steps of the states (stateSteps.cpp).
  void checkRequest();
  void endCall();
  void runStep();
  void stepIdle();
  bool readNumberOrRaiseFailure();
  void startEmergency();
  // What every outgoing call takes: the audio, Assist and Bluetooth give
  // way, any other call is ended and the cabin microphones are closed.
  void takeCarForTheCall();
  void startCallback();
  void stepCallDelay();
  void stepMakeCall();
  void dial();
  void retryDialLater();
  // A failed attempt: the retry period, or the end of a test call after its
  // last attempt.
  void armRetry();
  void stepWaitToConnect();
  void stepWaitForPsapTts();
  void stepCallActive();
  void stepWaitForEndFromHmi();
  void endEmergencyMode();
  void resumeCallbackPeriod();
  void stepOpenAudioForRingTones();
  void stepWaitRingTonesComplete();
  void stepAnswer();
  void stepWaitForCallActive();

  // The test call (testCall.cpp).
  void startTestCall();
  void giveUpTestCall();
  // An emergency (or the centre's call) came during a test call: the test
  // call ends at once and the request is served as on an idle service.
  void yieldTestCallToEmergency();
  // True while the emergency's dial must wait for the test call to leave
  // the phone.
  bool waitForTestCallToLeave();

  // The "ecall" signal as the state machine sends it: ecallSignalActive
  // follows the boolean, the number is sent only with true.
  void emitEcall(bool ecall, ecallMain::eEmergencyType type, ecallMain::eCallModeType mode);
  void playPrompt(eECallTtsPrompt prompt);
  bool callStateIs(const char* part) const;

  ecallProcessor& processor;
  CANImpactECallHandler& canIpcEmergencyHandler;
  externalServiceHandling& extServHandle;
  processorTimers mTimers;
  // Waiting for a pulse is progress; one turn is at most a handful of peer
  // requests, each bounded, and the log's synchronous writes.
  platform::threadProgress mProgress{"state machine", 30000};

  std::atomic<int> mReceiveChannelId{0};
  std::atomic<int> mSendChannelId{0};
  pthread_t mThread{};

  // Start-up waits on this until the thread has its channel and timers, or
  // has given up for want of a channel.
  std::mutex mStartMutex;
  std::condition_variable mStartDecided;
  bool mStarted = false;  // guarded by mStartMutex

  ecallStateMachineStates state = ECALL_SM_IDLE;
  bool dialAllowed = true;
  bool callFailedLogged = false;  // "Error Call Failed" once per emergency
  eECallTtsPrompt psapPrompt{};  // the emergency centre's first prompt of this call (none yet)
  // A test call is tried three times at most: it is no emergency, and a
  // test line that cannot be reached must not keep the phone busy.
  static constexpr int TEST_CALL_ATTEMPTS = 3;
  // A test call is in hand, from its start to the end of its end period.
  bool testCallInHand = false;
  int testCallFailures = 0;  // its failed attempts so far
  // An emergency took over while the test call was on the phone: its dial
  // waits for the phone to report that call's end.
  bool testCallLeaving = false;

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
