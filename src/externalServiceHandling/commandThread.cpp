// The command thread of the external services, its three pulse senders and
// the watch on the platform service.
//
// Prompts and microphone muting issue synchronous bus calls of their own, so
// they must not run on the thread that delivers bus signals; that thread
// queues them here as pulses instead, and this thread runs them one after the
// other in the order they were sent.
#include <errno.h>

#include "ecallMain/ecallMain.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"
#include "platform/pulses.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace {

// Pause after a failed receive, so that a broken channel cannot spin the CPU.
constexpr int64_t kReceiveErrorPauseMs = 1000;

// Queues a command at the sender's own priority, so the command runs at the
// priority of the thread that asked for it.
void sendCommandPulse(CQVTraceScope& scope, int connection, int code, int value) {
  if (qnx::MsgSendPulse(connection, qnx::getprio(0), code, value) != 0) {
    scope.sendFormattedWarning("Failed to queue external command %d, errno %d\n", code, errno);
  }
}

}  // namespace

void externalServiceHandling::initExternalServiceHandling() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);

  mCmdChannelId = qnx::ChannelCreate(0);
  mCmdConnectionId = qnx::ConnectAttach(0, 0, mCmdChannelId, qnx::_NTO_SIDE_CHANNEL, 0);

  pthread_attr_t attr;
  pthread_attr_init(&attr);
  int rc = pthread_create(&mCmdThread, &attr, externalServiceCommandThreadFunc, this);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    scope.sendFormattedError("Failed to create ecall state machine thread.  Ecalls WILL NOT WORK!!!\n");
    sendtoSlog(_SLOG_WARNING, "Failed to create ecall state machine thread.  Ecalls WILL NOT WORK!!!\n");
  }

  SVCIPC_tError err = SVCIPC_subscribeOwnerChanged(ecallFrame().connection(), extServ::platformService.name,
                                                   onPlatformOwnerChange, this, &mPlatformOwnerSubscription);
  if (err < 0) {
    scope.sendFormattedError("failed to subscribe platform owner change, rc = 0x%0X\n", err);
    sendtoSlog(_SLOG_WARNING, "failed to subscribe platform owner change, rc = 0x%0X\n", err);
  }

  int hasOwner = 0;
  err = SVCIPC_nameHasOwner(ecallFrame().connection(), extServ::platformService.name, &hasOwner);
  if (err < 0) {
    scope.sendFormattedError("has owner error 0x%0X\n", err);
    sendtoSlog(_SLOG_WARNING, "has owner error 0x%0X\n", err);
    return;
  }
  mPlatformAvailable = hasOwner;
  if (hasOwner != 0) logSystemSWInfo();
}

void* externalServiceCommandThreadFunc(void* arg) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  auto* services = static_cast<externalServiceHandling*>(arg);
  scope.sendFormattedMessage("Starting external service command thread\n");
  for (;;) {
    qnx::_pulse pulse{};
    int rcvid = qnx::MsgReceive(services->commandChannel(), &pulse, sizeof(pulse), nullptr);
    if (rcvid != 0) {
      scope.sendFormattedError("Error for external command receive, code %d\n", rcvid);
      if (rcvid < 0) platform::sleepMs(kReceiveErrorPauseMs);
      continue;
    }
    services->processCommand(pulse.code, pulse.value);
  }
  return nullptr;
}

void externalServiceHandling::processCommand(int code, int value) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  scope.sendFormattedMessage("External service command received, pulse %d, value %d\n", code, value);
  switch (code) {
    case EXT_CMD_PLAY_TTS:
      playTtsMsg(static_cast<eECallTtsPrompt>(value));
      break;
    case EXT_CMD_ABORT_TTS:
      abortCurrentTtsMsg();
      break;
    case EXT_CMD_SET_MIC_MUTE:
      setMicInputMuteState(value != 0);
      break;
    default:
      break;
  }
}

void externalServiceHandling::asyncAbortCurrentTtsMsg() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  scope.sendFormattedMessage("Async abort TTS message.\n");
  sendCommandPulse(scope, mCmdConnectionId, EXT_CMD_ABORT_TTS, 0);
}

void externalServiceHandling::ayncPlayTtsMsg(eECallTtsPrompt prompt) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  scope.sendFormattedMessage("Async play TTS message for prompt code: %d\n", prompt);
  sendCommandPulse(scope, mCmdConnectionId, EXT_CMD_PLAY_TTS, prompt);
}

void externalServiceHandling::asyncSetMicInputMuteState(bool mute) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  scope.sendFormattedMessage("Async set mic mute state message for prompt code: %d\n", mute ? 1 : 0);
  sendCommandPulse(scope, mCmdConnectionId, EXT_CMD_SET_MIC_MUTE, mute ? 1 : 0);
}

void externalServiceHandling::onPlatformOwnerChange(const char* busName, const char* oldOwner, const char* newOwner,
                                                   void* context) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  scope.sendFormattedMessage("onPlatformOwnerChange: oldOwner: %s, newOwner %s", oldOwner ? oldOwner : "",
                             newOwner ? newOwner : "");
  if (newOwner != nullptr && newOwner[0] != '\0') {
    // The platform service has (re)started: record the software it runs.
    static_cast<externalServiceHandling*>(context)->logSystemSWInfo();
    return;
  }
  scope.sendFormattedError("platform DBUS owner gone.");
  sendtoSlog(_SLOG_WARNING, "platform DBUS owner gone.\n");
}
