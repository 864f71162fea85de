#include "ecallProcessor/processorTimers.h"

// Work in progress.
ecallProcessorTimer timerStateMachine{};
ecallProcessorTimer timerStartEcall{};
ecallProcessorTimer timerRequestDelayStart{};
ecallProcessorTimer timerDelayEcallStart{};
ecallProcessorTimer timerTimeoutCallConnect{};
ecallProcessorTimer timerTimeoutAssistNeverActive{};
ecallProcessorTimer timerTimeoutPhoneNotPresent{};
ecallProcessorTimer timerTimeoutAntennaFault{};
ecallProcessorTimer timerDelaySysErr4NoSierraComm{};

void createProcessorTimers(int receiveChannelId) {}
int startEcallStateMachineTimer(unsigned int ms) { return 0; }
int startEcallImmediateTimer() { return 0; }
int startDelayEcallRequest() { return 0; }
int startDelayEcallStartTimer() { return 0; }
int startEcallTimeoutTimer() { return 0; }
int startPhoneNotPresentTimeoutTimer() { return 0; }
int startSierraNoCommTimer() { return 0; }
int startAntennaFaultTimeoutTimer() { return 0; }
int startAssistTimeoutTimer() { return 0; }
int stopDelayEcallRequest() { return 0; }
int stopEcallTimeoutTimer() { return 0; }
int stopPhoneNotPresentTimeoutTimer() { return 0; }
int stopSierraNoCommTimer() { return 0; }
int stopAntennaFaultTimeoutTimer() { return 0; }
int stopAssistTimeoutTimer() { return 0; }
bool isTimerActive(const ecallProcessorTimer& timer) { return false; }
bool isRunningAssistTimeoutTimer() { return false; }
