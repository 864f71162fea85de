// Reset of the cellular module by the vehicle micro, limited to a few
// requests until the module is seen working again.
#include <cerrno>
#include <cstring>

#include "ecallProcessor/processorInputs.h"
#include "orcImpact/CANImpactECallHandler.h"

bool CANImpactECallHandler::v850ResetSierra() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  uint32_t counted = mV850ResetCounter.load();
  while (counted < V850_RESET_LIMIT) {
    // The attempt is counted before it is made, failed or not, so a dead
    // channel cannot retry for ever; two callers never share an attempt.
    if (!mV850ResetCounter.compare_exchange_weak(counted, counted + 1)) continue;
    uint32_t attempt = ++counted;
    const uint8_t msg = ORC_MSG_RESET_CELL_MODULE;
    ssize_t rc = mOrcChannel.write(&msg, sizeof msg);
    int err = errno;
    scope.sendFormattedMessage("write IPC for reset, rc %d", static_cast<int>(rc));
    if (rc == 1) {
      mProcessor.createFlagInTmp(true, resetMarkerFile);
      mProcessor.addFormattedEntryToEmergencyLog("Sent IPC message to V850 to reset Sierra %dth time\n",
                                                   static_cast<int>(attempt));
      return true;
    }
    mProcessor.addFormattedEntryToEmergencyLog("Failed to send IPC msg to reset Sierra.  err %s,  ResetCounter %d.",
                                                 strerror(err), static_cast<int>(attempt));
  }
  return false;
}

void CANImpactECallHandler::resetV850ResetPhCounter() {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  mV850ResetCounter = 0;
  mProcessor.createFlagInTmp(false, resetMarkerFile);
}
