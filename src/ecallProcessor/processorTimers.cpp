// The nine one-shot timers of the processor. Every expiry is a pulse to the
// state machine's channel, so every reaction to a time-out runs on the state
// machine thread.
//
// The timers are started and stopped from many threads (state machine, bus
// callbacks, input readers). A short internal lock keeps each timer record
// whole while a start reads its duration and a stop writes it back; it is
// held only around the platform's timer calls.
#include "ecallProcessor/processorTimers.h"

#include <errno.h>

#include <cstring>
#include <mutex>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "platform/slog.h"

ecallProcessorTimer timerStateMachine{};
ecallProcessorTimer timerStartEcall{};
ecallProcessorTimer timerRequestDelayStart{};
ecallProcessorTimer timerDelayEcallStart{};
ecallProcessorTimer timerTimeoutCallConnect{};
ecallProcessorTimer timerTimeoutAssistNeverActive{};
ecallProcessorTimer timerTimeoutPhoneNotPresent{};
ecallProcessorTimer timerTimeoutAntennaFault{};
ecallProcessorTimer timerDelaySysErr4NoSierraComm{};

namespace {

constexpr long NS_PER_MS = 1000000;

// Pulse code and default duration of each timer, in creation order.
struct timerDefinition {
  ecallProcessorTimer* timer;
  ecallStateMachinePulse code;
  time_t seconds;
  long nanoseconds;
};

const timerDefinition timerTable[] = {
    {&timerStateMachine, ECALL_PULSE_RUN_STATE_MACHINE, 0, 0},  // duration given at each start
    {&timerStartEcall, ECALL_PULSE_START_CALL, 0, 1 * NS_PER_MS},
    {&timerRequestDelayStart, ECALL_PULSE_DELAY_START, 0, 1 * NS_PER_MS},
    {&timerDelayEcallStart, ECALL_PULSE_START_CALL, 10, 0},
    {&timerTimeoutCallConnect, ECALL_PULSE_CONNECT_TIMEOUT, 60, 0},
    {&timerTimeoutAssistNeverActive, ECALL_PULSE_ASSIST_NEVER_ACTIVE, 40, 0},
    {&timerTimeoutPhoneNotPresent, ECALL_PULSE_PHONE_NOT_PRESENT, 30, 0},
    {&timerTimeoutAntennaFault, ECALL_PULSE_ANTENNA_FAULT, 10, 0},
    {&timerDelaySysErr4NoSierraComm, ECALL_PULSE_DELAY_SYS_ERR_NO_SIERRA_COMM, 300, 0},
};

std::mutex timerMutex;
bool timersCreated = false;  // guarded by timerMutex

const timerDefinition& definitionOf(const ecallProcessorTimer& timer) {
  for (const timerDefinition& definition : timerTable)
    if (definition.timer == &timer) return definition;
  return timerTable[0];
}

itimerspec defaultExpiry(const timerDefinition& definition) {
  itimerspec expiry{};
  expiry.it_value.tv_sec = definition.seconds;
  expiry.it_value.tv_nsec = definition.nanoseconds;
  return expiry;
}

// Before the state machine thread has made the timers, a start or stop has
// nothing to act on.
int notCreated() {
  errno = EINVAL;
  return -1;
}

void createTimer(const timerDefinition& definition, int receiveChannelId) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  ecallProcessorTimer& timer = *definition.timer;
  timer.event = qnx::sigevent{};
  timer.event.sigev_notify = qnx::SIGEV_PULSE;
  timer.event.sigev_coid = qnx::ConnectAttach(0, 0, receiveChannelId, qnx::_NTO_SIDE_CHANNEL, 0);
  timer.event.sigev_value = 0;
  timer.event.sigev_code = static_cast<int16_t>(definition.code);
  timer.event.sigev_priority = static_cast<int16_t>(qnx::getprio(0));
  if (qnx::timer_create(CLOCK_MONOTONIC, &timer.event, &timer.timerId) != 0) {
    // The timer will never fire; the service goes on without this time-out.
    const int err = errno;
    scope.sendFormattedError("Failed to create timer for pulse %d, errno %d (%s)\n", definition.code, err,
                             strerror(err));
    sendtoSlog(_SLOG_WARNING, "Failed to create timer for pulse %d, errno %d (%s)\n", definition.code, err,
               strerror(err));
  }
  timer.expiry = defaultExpiry(definition);
}

// Arms the timer with the duration its record holds.
int startTimer(ecallProcessorTimer& timer) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(timerMutex);
  if (!timersCreated) return notCreated();
  return qnx::timer_settime(timer.timerId, 0, &timer.expiry, nullptr);
}

// Disarms the timer and puts its default duration back for the next start.
// A pulse already queued by an expiry stays queued.
int stopTimer(ecallProcessorTimer& timer) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(timerMutex);
  if (!timersCreated) return notCreated();
  timer.expiry.it_value.tv_sec = 0;
  timer.expiry.it_value.tv_nsec = 0;
  const int result = qnx::timer_settime(timer.timerId, 0, &timer.expiry, nullptr);
  timer.expiry = defaultExpiry(definitionOf(timer));
  return result;
}

}  // namespace

void createProcessorTimers(int receiveChannelId) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(timerMutex);
  if (timersCreated) {
    // A second creation replaces the timers rather than leaking them.
    for (const timerDefinition& definition : timerTable) {
      qnx::timer_delete(definition.timer->timerId);
      qnx::ConnectDetach(definition.timer->event.sigev_coid);
    }
  }
  for (const timerDefinition& definition : timerTable) createTimer(definition, receiveChannelId);
  timersCreated = true;
}

int startEcallStateMachineTimer(unsigned int ms) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(timerMutex);
  if (!timersCreated) return notCreated();
  timerStateMachine.expiry.it_value.tv_sec = static_cast<time_t>(ms / 1000);
  timerStateMachine.expiry.it_value.tv_nsec = static_cast<long>(ms % 1000) * NS_PER_MS;
  timerStateMachine.expiry.it_interval = timespec{};
  return qnx::timer_settime(timerStateMachine.timerId, 0, &timerStateMachine.expiry, nullptr);
}

int startEcallImmediateTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerStartEcall);
}

int startDelayEcallRequest() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerRequestDelayStart);
}

int startDelayEcallStartTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerDelayEcallStart);
}

int startEcallTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerTimeoutCallConnect);
}

int startPhoneNotPresentTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerTimeoutPhoneNotPresent);
}

int startSierraNoCommTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerDelaySysErr4NoSierraComm);
}

int startAntennaFaultTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerTimeoutAntennaFault);
}

int startAssistTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("Starting assist xlet never active timeout timer\n");
  return startTimer(timerTimeoutAssistNeverActive);
}

// Stops the 10 s delay before dialling; the 1 ms request timers are never
// stopped.
int stopDelayEcallRequest() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerDelayEcallStart);
}

int stopEcallTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerTimeoutCallConnect);
}

int stopPhoneNotPresentTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerTimeoutPhoneNotPresent);
}

int stopSierraNoCommTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerDelaySysErr4NoSierraComm);
}

int stopAntennaFaultTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerTimeoutAntennaFault);
}

int stopAssistTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("Stopping assist xlet never active timeout timer\n");
  return stopTimer(timerTimeoutAssistNeverActive);
}

bool isTimerActive(const ecallProcessorTimer& timer) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(timerMutex);
  if (!timersCreated) return false;
  itimerspec left{};
  if (qnx::timer_gettime(timer.timerId, &left) != 0) return false;
  return left.it_value.tv_sec != 0 || left.it_value.tv_nsec != 0;
}

bool isRunningAssistTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return isTimerActive(timerTimeoutAssistNeverActive);
}
