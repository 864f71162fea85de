// The nine one-shot timers of the processor. Each delivers a pulse with its
// code to the state machine's channel; no code runs on a timer thread, so all
// reactions to time-outs run on the state machine thread in arrival order.
#pragma once

#include <time.h>

#include "platform/pulses.h"

struct ecallProcessorTimer {
  qnx::sigevent event;    // pulse notification: connection, code, priority
  itimerspec expiry;      // it_value holds the default duration while idle
  qnx::timer_t timerId;   // the timer, on CLOCK_MONOTONIC
};

extern ecallProcessorTimer timerStateMachine;              // code 1, duration given at each start
extern ecallProcessorTimer timerStartEcall;                // code 2, 1 ms
extern ecallProcessorTimer timerRequestDelayStart;         // code 3, 1 ms
extern ecallProcessorTimer timerDelayEcallStart;           // code 2, 10 s
extern ecallProcessorTimer timerTimeoutCallConnect;        // code 5, 60 s
extern ecallProcessorTimer timerTimeoutAssistNeverActive;  // code 7, 40 s
extern ecallProcessorTimer timerTimeoutPhoneNotPresent;    // code 8, 30 s
extern ecallProcessorTimer timerTimeoutAntennaFault;       // code 9, 10 s
extern ecallProcessorTimer timerDelaySysErr4NoSierraComm;  // code 10, 300 s

// Creates the nine timers on the state machine's receive channel, in the
// order above. Called once by the state machine thread before its first
// receive.
void createProcessorTimers(int receiveChannelId);

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
bool isTimerActive(const ecallProcessorTimer& timer);
bool isRunningAssistTimeoutTimer();
