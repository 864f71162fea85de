// The nine one-shot timers of the processor, owned by its state machine. Each
// delivers a pulse with its code to the state machine's channel; no code runs
// on a timer thread, so all reactions to time-outs run on the state machine
// thread in arrival order.
#pragma once

#include <time.h>

#include <mutex>

#include "platform/pulses.h"

class processorTimers {
 public:
  // The timers, in creation order.
  enum timerKind : int {
    timerStateMachine,              // code 1, duration given at each start
    timerStartEcall,                // code 2, 1 ms
    timerRequestDelayStart,         // code 3, 1 ms
    timerDelayEcallStart,           // code 2, 10 s
    timerTimeoutCallConnect,        // code 5, 60 s
    timerTimeoutAssistNeverActive,  // code 7, 40 s
    timerTimeoutPhoneNotPresent,    // code 8, 30 s
    timerTimeoutAntennaFault,       // code 9, 10 s
    timerDelaySysErr4NoSierraComm,  // code 10, 300 s
    timerCount
  };

  processorTimers() = default;
  processorTimers(const processorTimers&) = delete;
  processorTimers& operator=(const processorTimers&) = delete;

  // Creates the nine timers on the state machine's receive channel, in the
  // order above. Called by the state machine thread before its first
  // receive; a second call replaces them.
  void create(int receiveChannelId);

  // Arms timerStateMachine for ms milliseconds (0 disarms it).
  int startEcallStateMachineTimer(unsigned int ms);
  int startEcallImmediateTimer();
  int startDelayEcallRequest();
  int startDelayEcallStartTimer();  // timerDelayEcallStart, armed by the state machine on entering the delay
  int startEcallTimeoutTimer();
  int startPhoneNotPresentTimeoutTimer();
  int startSierraNoCommTimer();
  int startAntennaFaultTimeoutTimer();
  int startAssistTimeoutTimer();

  int stopDelayEcallRequest();  // stops timerDelayEcallStart (the 10 s delay)
  int stopEcallTimeoutTimer();
  int stopPhoneNotPresentTimeoutTimer();
  int stopSierraNoCommTimer();
  int stopAntennaFaultTimeoutTimer();
  int stopAssistTimeoutTimer();

  // True while the timer is armed and has not yet expired.
  bool isTimerActive(timerKind kind);
  bool isRunningAssistTimeoutTimer();

 private:
  friend struct processProbe;  // the unit tests' view

  struct timer {
    qnx::sigevent event;   // pulse notification: connection, code, priority
    itimerspec expiry;     // it_value holds the default duration while idle
    qnx::timer_t timerId;  // the timer, on CLOCK_MONOTONIC
  };

  int startTimer(timerKind kind);
  int stopTimer(timerKind kind);

  // The timers are started and stopped from many threads (state machine,
  // bus callbacks, input readers): the lock keeps each record whole while a
  // start reads its duration and a stop writes it back; it is held only
  // around the platform's timer calls.
  std::mutex mMutex;
  bool mCreated = false;  // guarded by mMutex
  timer mTimers[timerCount]{};
};
