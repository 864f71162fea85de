// The mirror LED and the Assist status, both sent to the vehicle micro over
// the restraint controller channel, and the 5-second blink timer.
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "ecallProcessor/processorInputs.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pulses.h"
#include "platform/runtime.h"

namespace {

constexpr int BLINK_TIMER_PULSE_CODE = 2;
constexpr time_t BLINK_TIMER_SECONDS = 5;

// The blink timer threads are detached, yet they use the process objects
// when they end; the process waits for them before it destroys those
// objects. Never destroyed, so that a thread still leaving at exit finds
// them whole.
struct blinkTimerCount {
  std::mutex mutex;
  std::condition_variable ended;
  int running = 0;  // guarded by mutex
};

blinkTimerCount& blinkTimers() {
  static blinkTimerCount* count = new blinkTimerCount;
  return *count;
}

void blinkTimerStarts() {
  std::lock_guard<std::mutex> lock(blinkTimers().mutex);
  ++blinkTimers().running;
}

void blinkTimerEnds() {
  std::lock_guard<std::mutex> lock(blinkTimers().mutex);
  --blinkTimers().running;
  blinkTimers().ended.notify_all();
}

// Counts a blink timer thread for its whole life, trace scope included.
struct blinkTimerLife {
  ~blinkTimerLife() { blinkTimerEnds(); }
};

// Waits on a private channel for the timer's pulse. False when the timer
// could not be set up or the wait failed.
bool waitForBlinkTimer() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  int chid = qnx::ChannelCreate(0);
  int coid = chid > 0 ? qnx::ConnectAttach(0, 0, chid, qnx::_NTO_SIDE_CHANNEL, 0) : -1;
  qnx::timer_t timerId = -1;
  bool armed = false;
  if (coid > 0) {
    qnx::sigevent event{};
    event.sigev_notify = qnx::SIGEV_PULSE;
    event.sigev_coid = coid;
    event.sigev_value = 0;
    event.sigev_code = BLINK_TIMER_PULSE_CODE;
    event.sigev_priority = static_cast<int16_t>(qnx::getprio(0));
    if (qnx::timer_create(CLOCK_MONOTONIC, &event, &timerId) == 0) {
      itimerspec expiry{};
      expiry.it_value.tv_sec = BLINK_TIMER_SECONDS;
      armed = qnx::timer_settime(timerId, 0, &expiry, nullptr) == 0;
    }
  }

  bool expired = false;
  while (armed) {
    qnx::_pulse pulse{};
    if (qnx::MsgReceive(chid, &pulse, sizeof pulse, nullptr) == 0) {
      if (pulse.type == qnx::_PULSE_TYPE && pulse.code == BLINK_TIMER_PULSE_CODE) {
        expired = true;
        break;
      }
    } else if (errno != EINTR) {
      break;
    }
  }
  if (!expired) scope.sendFormattedError("blink timer failed, chid %d, coid %d, errno %d", chid, coid, errno);

  // Released so that repeated blinking cannot use up descriptors.
  if (timerId != -1) qnx::timer_delete(timerId);
  if (coid > 0) qnx::ConnectDetach(coid);
  if (chid > 0) qnx::ChannelDestroy(chid);
  return expired;
}

}  // namespace

// Every message to the vehicle micro is one write; its result is not
// checked (a closed channel just loses the message; the micro gets the
// states again when the channel returns).
void CANImpactECallHandler::writeOrcMessage(uint8_t kind, uint8_t value) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  const uint8_t msg[2] = {kind, value};
  ssize_t rc = mOrcChannel.write(msg, sizeof msg);
  (void)rc;
}

void CANImpactECallHandler::setLedStatus(eLedStatus status) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  if (!mServices.getEmebeddedPhoneEnabledInVariant()) return;

  eLedStatus last = mLastLedSetStatus.load();
  if (status == LED_RED && (last == LED_SOLID_GREEN || last == LED_BLINKING_GREEN)) {
    // A call in progress keeps its green LED.
    scope.sendFormattedMessage("system error happened during ecall. ignore setting LED status to red request");
    return;
  }
  if (status == LED_OFF && mProcessor.getSystemError() != 0) {
    // A system error is never hidden behind a dark LED.
    scope.sendFormattedMessage("system error exist. maybe happened during the call. change LED_OFF request to LED_RED");
    status = LED_RED;
  }

  {
    std::lock_guard<std::mutex> lock(mLedMutex);
    mLastLedSetStatus = status;
    writeOrcMessage(ORC_MSG_LED_STATUS, static_cast<uint8_t>(status));
  }
  mProcessor.addFormattedEntryToEmergencyLog("send LED status %d\n", static_cast<int>(status));
}

void CANImpactECallHandler::sendAssistAppStatus(bool active) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  writeOrcMessage(ORC_MSG_ASSIST_STATUS, active ? 1 : 0);
}

void CANImpactECallHandler::resendControllerState() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  if (mServices.getEmebeddedPhoneEnabledInVariant()) {
    std::lock_guard<std::mutex> lock(mLedMutex);
    writeOrcMessage(ORC_MSG_LED_STATUS, static_cast<uint8_t>(mLastLedSetStatus.load()));
  }
  mProcessor.sendAssistStatus();
}

void CANImpactECallHandler::startBlinkTimer() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  pthread_t thread{};
  blinkTimerStarts();
  if (platform::startDetachedThread(&thread, BlinkTimerThreadFunc, this) != 0) {
    blinkTimerEnds();
    printf("Failed to create blink timer thread!\n");
    fflush(stdout);
  } else {
    std::lock_guard<std::mutex> lock(mBlinkThreadMutex);
    mBlinkThread = thread;
  }
}

// One blink timer (arg is the handler): after 5 seconds the LED returns to the steady state of the
// moment, solid green in an emergency, otherwise off (red on a system error).
void* BlinkTimerThreadFunc(void* arg) {
  blinkTimerLife life;
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  scope.sendFormattedMessage("start 5 seconds blink timer");
  if (!waitForBlinkTimer()) {
    // Without a timer the pause is slept, so the LED still stops blinking.
    platform::sleepMs(BLINK_TIMER_SECONDS * 1000);
  }
  auto* handler = static_cast<CANImpactECallHandler*>(arg);
  if (handler->processor().getEcallModeActive()) {
    handler->setLedStatus(LED_SOLID_GREEN);
  } else {
    handler->setLedStatus(LED_OFF);
  }
  return nullptr;
}

bool waitForBlinkTimers() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  // A blink ends 5 seconds after its start; twice that, and a second for
  // the threads to be scheduled on a busy processor, is more than enough.
  const auto deadline = std::chrono::milliseconds(platform::scaledMs(2 * BLINK_TIMER_SECONDS * 1000) + 1000);
  std::unique_lock<std::mutex> lock(blinkTimers().mutex);
  return blinkTimers().ended.wait_for(lock, deadline, [] { return blinkTimers().running == 0; });
}
