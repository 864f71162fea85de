// The nine one-shot timers of the processor. Every expiry is a pulse to the
// state machine's channel, so every reaction to a time-out runs on the state
// machine thread.
#include "ecallProcessor/processorTimers.h"

#include <errno.h>

#include <cstring>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "platform/slog.h"

namespace {

constexpr long NS_PER_MS = 1000000;

// Pulse code and default duration of each timer, in creation order.
struct timerDefinition {
  ecallStateMachinePulse code;
  time_t seconds;
  long nanoseconds;
};

const timerDefinition timerTable[processorTimers::timerCount] = {
    {ECALL_PULSE_RUN_STATE_MACHINE, 0, 0},  // duration given at each start
    {ECALL_PULSE_START_CALL, 0, 1 * NS_PER_MS},
    {ECALL_PULSE_DELAY_START, 0, 1 * NS_PER_MS},
    {ECALL_PULSE_START_CALL, 10, 0},
    {ECALL_PULSE_CONNECT_TIMEOUT, 60, 0},
    {ECALL_PULSE_ASSIST_NEVER_ACTIVE, 40, 0},
    {ECALL_PULSE_PHONE_NOT_PRESENT, 30, 0},
    {ECALL_PULSE_ANTENNA_FAULT, 10, 0},
    {ECALL_PULSE_DELAY_SYS_ERR_NO_SIERRA_COMM, 300, 0},
};

itimerspec defaultExpiry(processorTimers::timerKind kind) {
  itimerspec expiry{};
  expiry.it_value.tv_sec = timerTable[kind].seconds;
  expiry.it_value.tv_nsec = timerTable[kind].nanoseconds;
  return expiry;
}

// Before the state machine thread has made the timers, a start or stop has
// nothing to act on.
int notCreated() {
  errno = EINVAL;
  return -1;
}

}  // namespace

void processorTimers::create(int receiveChannelId) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCreated) {
    // A second creation replaces the timers rather than leaking them.
    for (timer& each : mTimers) {
      qnx::timer_delete(each.timerId);
      qnx::ConnectDetach(each.event.sigev_coid);
    }
  }
  for (int kind = 0; kind < timerCount; ++kind) {
    const timerDefinition& definition = timerTable[kind];
    timer& each = mTimers[kind];
    each.event = qnx::sigevent{};
    each.event.sigev_notify = qnx::SIGEV_PULSE;
    each.event.sigev_coid = qnx::ConnectAttach(0, 0, receiveChannelId, qnx::_NTO_SIDE_CHANNEL, 0);
    each.event.sigev_value = 0;
    each.event.sigev_code = static_cast<int16_t>(definition.code);
    each.event.sigev_priority = static_cast<int16_t>(qnx::getprio(0));
    if (qnx::timer_create(CLOCK_MONOTONIC, &each.event, &each.timerId) != 0) {
      // The timer will never fire; the service goes on without this time-out.
      const int err = errno;
      scope.sendFormattedError("Failed to create timer for pulse %d, errno %d (%s)\n", definition.code, err,
                               strerror(err));
      sendtoSlog(_SLOG_WARNING, "Failed to create timer for pulse %d, errno %d (%s)\n", definition.code, err,
                 strerror(err));
    }
    each.expiry = defaultExpiry(static_cast<timerKind>(kind));
  }
  mCreated = true;
}

// Arms the timer with the duration its record holds.
int processorTimers::startTimer(timerKind kind) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mCreated) return notCreated();
  return qnx::timer_settime(mTimers[kind].timerId, 0, &mTimers[kind].expiry, nullptr);
}

// Disarms the timer and puts its default duration back for the next start.
// A pulse already queued by an expiry stays queued.
int processorTimers::stopTimer(timerKind kind) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mCreated) return notCreated();
  timer& each = mTimers[kind];
  each.expiry.it_value.tv_sec = 0;
  each.expiry.it_value.tv_nsec = 0;
  const int result = qnx::timer_settime(each.timerId, 0, &each.expiry, nullptr);
  each.expiry = defaultExpiry(kind);
  return result;
}

int processorTimers::startEcallStateMachineTimer(unsigned int ms) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mCreated) return notCreated();
  timer& each = mTimers[timerStateMachine];
  each.expiry.it_value.tv_sec = static_cast<time_t>(ms / 1000);
  each.expiry.it_value.tv_nsec = static_cast<long>(ms % 1000) * NS_PER_MS;
  each.expiry.it_interval = timespec{};
  return qnx::timer_settime(each.timerId, 0, &each.expiry, nullptr);
}

int processorTimers::startEcallImmediateTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerStartEcall);
}

int processorTimers::startDelayEcallRequest() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerRequestDelayStart);
}

int processorTimers::startDelayEcallStartTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerDelayEcallStart);
}

int processorTimers::startEcallTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerTimeoutCallConnect);
}

int processorTimers::startPhoneNotPresentTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerTimeoutPhoneNotPresent);
}

int processorTimers::startSierraNoCommTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerDelaySysErr4NoSierraComm);
}

int processorTimers::startAntennaFaultTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return startTimer(timerTimeoutAntennaFault);
}

int processorTimers::startAssistTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("Starting assist xlet never active timeout timer\n");
  return startTimer(timerTimeoutAssistNeverActive);
}

// Stops the 10 s delay before dialling; the 1 ms request timers are never
// stopped.
int processorTimers::stopDelayEcallRequest() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerDelayEcallStart);
}

int processorTimers::stopEcallTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerTimeoutCallConnect);
}

int processorTimers::stopPhoneNotPresentTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerTimeoutPhoneNotPresent);
}

int processorTimers::stopSierraNoCommTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerDelaySysErr4NoSierraComm);
}

int processorTimers::stopAntennaFaultTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return stopTimer(timerTimeoutAntennaFault);
}

int processorTimers::stopAssistTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("Stopping assist xlet never active timeout timer\n");
  return stopTimer(timerTimeoutAssistNeverActive);
}

bool processorTimers::isTimerActive(timerKind kind) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mCreated) return false;
  itimerspec left{};
  if (qnx::timer_gettime(mTimers[kind].timerId, &left) != 0) return false;
  return left.it_value.tv_sec != 0 || left.it_value.tv_nsec != 0;
}

bool processorTimers::isRunningAssistTimeoutTimer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return isTimerActive(timerTimeoutAssistNeverActive);
}
