// The emergency input handler: its descriptors, the PPS object of the mirror
// buttons, and the start of the two input reader threads.
#include "orcImpact/CANImpactECallHandler.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/processorInputs.h"
#include "platform/ipcChannel.h"
#include "platform/pps.h"
#include "platform/slog.h"

CANImpactECallHandler::CANImpactECallHandler(processorInputs& processor, externalServiceHandling& services)
    : mProcessor(processor), mServices(services) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  int fd = -1;
  openPPSObj(ecallBtnPPSPath, fd);
  mPpsFd = fd;
}

CANImpactECallHandler::~CANImpactECallHandler() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  int ppsFd = mPpsFd.load();
  if (ppsFd != 0) {
    closePPSObj(ppsFd);
    mPpsFd = ppsFd;
  }
  mOrcChannel.close();
}

int CANImpactECallHandler::openPPSObj(std::string path, int& fd) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  int err = 0;
  if (path.empty()) {
    // Nothing to open; only a descriptor that is still unopened is a failure.
    if (fd == -1) err = ENOENT;
  } else {
    do {
      fd = platform::ppsOpen(path.c_str(), O_RDONLY);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
      err = errno;
      fd = -1;
    }
  }
  if (err != 0) {
    scope.sendFormattedError("failed to open pps %s, err: %d - %s\n", path.c_str(), err, strerror(err));
    slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR, "failed to open pps %s, err: %d - %s\n", path.c_str(), err, strerror(err));
  }
  return err;
}

int CANImpactECallHandler::closePPSObj(int& fd) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  if (fd < 0) return 0;
  int rc;
  do {
    rc = platform::ppsClose(fd);
  } while (rc < 0 && errno == EINTR);
  int err = rc < 0 ? errno : 0;
  fd = 0;
  return err;
}

bool CANImpactECallHandler::openOrcIpcChannel() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  if (!mOrcChannel.open()) {
    scope.sendFormattedError("cannot open ORC IPC channel %s", orcIpcChannelPath.c_str());
    sendtoSlog(_SLOG_WARNING, "cannot open ORC IPC channel %s", orcIpcChannelPath.c_str());
    return false;
  }
  return true;
}

void CANImpactECallHandler::monitorCANForEmergency() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  pthread_t buttonThread{};
  bool buttonThreadRunning = pthread_create(&buttonThread, nullptr, ecallReadThrdFunc, this) == 0;
  if (!buttonThreadRunning) {
    scope.sendFormattedError("Failed to create ecall reading thread");
    sendtoSlog(_SLOG_WARNING, "Failed to create ecall reading thread");
  }
  mButtonThreadRunning = buttonThreadRunning;

  // The Assist status may only be sent to the controller once its channel
  // is read and written by a running input side. A micro that is not up yet
  // is waited for: the reader thread opens the channel every second until
  // it can, as after a loss, since an impact must never go unheard for the
  // rest of the drive; the Assist side starts then (orcChannelReturned).
  mProcessor.setOrcMonitoringStarted(openOrcIpcChannel() && buttonThreadRunning);
  pthread_t channelThread{};
  bool channelThreadRunning = pthread_create(&channelThread, nullptr, canImpactThrdFunc, this) == 0;
  if (!channelThreadRunning) {
    mProcessor.setOrcMonitoringStarted(false);
    scope.sendFormattedError("Failed to create canImpact reading thread");
    sendtoSlog(_SLOG_WARNING, "Failed to create canImpact reading thread");
  }

  if (buttonThreadRunning) pthread_join(buttonThread, nullptr);
  if (channelThreadRunning) pthread_join(channelThread, nullptr);
}
