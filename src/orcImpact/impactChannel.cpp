// The restraint controller channel: impact messages become emergencies,
// link-loss (LOC) messages become system failure sources.
#include <cstdio>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/processorInputs.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/runtime.h"
#include "platform/slog.h"

using namespace ecallMain;

// Byte (within the two impact bytes of a path) and bit of each impact kind,
// in the order of the emergency types.
const orcIpcLocation orcIpcLocationTable[IMPACT_KIND_COUNT] = {
    {0, 0x01},  // A
    {0, 0x02},  // B
    {0, 0x04},  // C
    {0, 0x08},  // D
    {0, 0x20},  // F
    {0, 0x80},  // Tgl
    {1, 0x01},  // H
    {1, 0x02},  // I
    {1, 0x04},  // K
    {1, 0x08},  // L
    {1, 0x10},  // M
    {1, 0x40},  // O
    {1, 0x80},  // X
};

// The serial path also calls on rollover 2 (H); the CAN path also on the
// toggle bit and on any impact. A, D, K, M and O are only logged.
const uint8_t orcSerialTriggers[] = {1, 2, 4, 6, 7, 9, IMPACT_KIND_COUNT};
const uint8_t orcCanTriggers[] = {1, 2, 4, 5, 7, 9, 12, IMPACT_KIND_COUNT};

namespace {

// Offsets within an impact message.
constexpr int CAN_VALID = 1;
constexpr int CAN_BITS = 2;
constexpr int SERIAL_VALID = 4;
constexpr int SERIAL_BITS = 5;
// Offsets within a LOC message.
constexpr int LOC_CAN_LOST = 1;
constexpr int LOC_SERIAL_LOST = 2;
constexpr int LOC_MIRROR_LOST = 3;

// The dump covers bytes 0 to 252: two hex digits for the first, a blank and
// two for each further one, and the terminator.
constexpr int ORC_DUMP_LAST_BYTE = 252;
constexpr size_t ORC_DUMP_SIZE = (ORC_DUMP_LAST_BYTE + 1) * 3 + 1;

void formatOrcDump(const uint8_t* msg, int n, char (&dump)[ORC_DUMP_SIZE]) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  int last = n - 1 < ORC_DUMP_LAST_BYTE ? n - 1 : ORC_DUMP_LAST_BYTE;
  int used = snprintf(dump, sizeof dump, "%02x", msg[0]);
  for (int i = 1; i <= last && used > 0 && static_cast<size_t>(used) < sizeof dump; ++i) {
    used += snprintf(dump + used, sizeof dump - used, " %02x", msg[i]);
  }
}

// Prints the message to standard output and traces it.
void reportOrcRx(bool isImpact, const uint8_t* msg, int n) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  char dump[ORC_DUMP_SIZE];
  formatOrcDump(msg, n, dump);
  if (isImpact) {
    printf("Ecall - IPC %s Read Impact: %s\n", orcIpcChannelPath.c_str(), dump);
  } else {
    printf("Ecall - IPC %s Read LOC: %s\n", orcIpcChannelPath.c_str(), dump);
  }
  fflush(stdout);
  scope.sendFormattedMessage("IPC %s Rx: %s\n", orcIpcChannelPath.c_str(), dump);
}

// Starts the emergency of the first kind of the path's trigger list whose
// bit is set in the path's two impact bytes; false when none is set.
bool startTriggeredEmergency(processorInputs& processor, const uint8_t* triggers, const uint8_t* impactBytes,
                             int32_t firstType, const char* announceFormat) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  for (const uint8_t* kind = triggers; *kind < IMPACT_KIND_COUNT; ++kind) {
    const orcIpcLocation& location = orcIpcLocationTable[*kind];
    if (impactBytes[location.byte] & location.mask) {
      auto type = static_cast<eEmergencyType>(firstType + *kind);
      printf(announceFormat, EmergencyEvent[type].c_str());
      fflush(stdout);
      processor.emergencyHappened(type);
      return true;
    }
  }
  return false;
}

void processImpactMessage(processorInputs& processor, const uint8_t* msg, int n) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  reportOrcRx(true, msg, n);
  bool serialValid = msg[SERIAL_VALID] == 1;
  bool canValid = msg[CAN_VALID] == 1;
  if (serialValid) {
    processor.addFormattedEntryToEmergencyLog("Rx ORC serial 0x%02x%02x\n", msg[SERIAL_BITS], msg[SERIAL_BITS + 1]);
  }
  if (canValid) {
    processor.addFormattedEntryToEmergencyLog("Rx ORC CAN 0x%02x%02x\n", msg[CAN_BITS], msg[CAN_BITS + 1]);
  }

  // One emergency per message at most; the serial path is trusted first.
  if (serialValid && startTriggeredEmergency(processor, orcSerialTriggers, msg + SERIAL_BITS, SERIAL_IMPACT_FIRST,
                                             "Ecall - Serial Emergency %s\n")) {
    return;
  }
  if (canValid) {
    startTriggeredEmergency(processor, orcCanTriggers, msg + CAN_BITS, CAN_IMPACT_FIRST, "Ecall - CAN Emergency %s\n");
  }
}

// Every LOC message states all three links, so each source is set or cleared.
void processLocMessage(processorInputs& processor, const uint8_t* msg, int n) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  reportOrcRx(false, msg, n);
  processor.setEcallSystemFailureState(ecallSystemFailure::ORC_CAN_LOC, msg[LOC_CAN_LOST] == 1);
  processor.setEcallSystemFailureState(ecallSystemFailure::ORC_SERIAL_LOC, msg[LOC_SERIAL_LOST] == 1);
  processor.setEcallSystemFailureState(ecallSystemFailure::MIRROR_LOC, msg[LOC_MIRROR_LOST] == 1);
}

}  // namespace

void CANImpactECallHandler::processOrcMessage(const uint8_t* msg, int n) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  if (msg == nullptr || n <= 0) return;
  if (msg[0] == ORC_MSG_IMPACT && n >= ORC_IMPACT_MSG_MIN_SIZE) {
    processImpactMessage(mProcessor, msg, n);
  } else if (msg[0] == ORC_MSG_LOC && n >= ORC_LOC_MSG_MIN_SIZE) {
    processLocMessage(mProcessor, msg, n);
  }
  // Anything else (another kind, or too short for its kind) is dropped.
}

namespace {

// A loss is reported once, on the first failed read of a connection that
// worked; the reads are not retried on it: it is opened anew (the micro
// restarted) every second.
void reportOrcChannelLost(processorInputs& processor) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  scope.sendFormattedError("Error reading ORC IPC channel %s.  Attempt to read again after 1000ms.",
                           orcIpcChannelPath.c_str());
  sendtoSlog(_SLOG_WARNING, "Error reading ORC IPC channel %s.  Attempt to read again after 1000ms.",
             orcIpcChannelPath.c_str());
  processor.addFormattedEntryToEmergencyLog("ORC IPC channel %s lost. Opening it again every 1000ms\n",
                                               orcIpcChannelPath.c_str());
}

}  // namespace

void CANImpactECallHandler::orcChannelReturned() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  scope.sendFormattedMessage("ORC IPC channel %s is open again", orcIpcChannelPath.c_str());
  sendtoSlog(_SLOG_INFO, "ORC IPC channel %s is open again", orcIpcChannelPath.c_str());
  mProcessor.addFormattedEntryToEmergencyLog("ORC IPC channel %s is open again\n", orcIpcChannelPath.c_str());
  mProcessor.setOrcMonitoringStarted(mButtonThreadRunning.load());
  resendControllerState();
}

// arg points to the handler. Read failures and an end closed by
// the vehicle micro are the same to the reader: the channel is opened again
// with the read retry period, for as long as it takes, and the impacts that
// follow are handled as before. A channel opened again counts as back once
// it has brought a message or stayed up for a retry period: a micro that
// takes the connection and fails it at once, every second, is one loss and
// one return, not two log entries a second.
void* canImpactThrdFunc(void* arg) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  auto* handler = static_cast<CANImpactECallHandler*>(arg);
  platform::IpcChannel* channel = &handler->orcChannel();
  uint8_t msg[ORC_READ_SIZE];
  platform::threadProgress& progress = handler->orcReaderProgress();
  bool returning = !channel->isOpen();  // the channel has not proved itself since it was lost
  for (;;) {
    if (!channel->isOpen()) {
      {
        platform::blockingCall wait(progress);
        channel->reopenEvery(ORC_RETRY_MS);
      }
      returning = true;
    }
    if (returning) {
      bool readable;
      {
        platform::blockingCall wait(progress);
        readable = channel->readableWithin(ORC_RETRY_MS);
      }
      if (!readable) {
        handler->orcChannelReturned();
        returning = false;
        continue;
      }
    }
    ssize_t n;
    {
      platform::blockingCall wait(progress);
      n = channel->read(msg, sizeof msg);
    }
    if (n <= 0) {
      if (!returning) reportOrcChannelLost(handler->processor());
      returning = true;
      platform::blockingCall wait(progress);
      platform::sleepMs(ORC_RETRY_MS);
      continue;
    }
    if (returning) {
      handler->orcChannelReturned();
      returning = false;
    }
    handler->processOrcMessage(msg, static_cast<int>(n));
  }
  return nullptr;
}
