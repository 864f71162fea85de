// The USB ports of the cellular module that the embedded phone service still
// sees: recorded in the emergency log when the phone goes OFF, as a
// diagnostic of the module's state.
#include <string>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "platform/slog.h"

namespace {

const char* const portsReadFailure = "Read Failure";

}  // namespace

std::string ecallProcessor::parseSWIUSBPortsStr(const char* reply) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("Get swiusb port result %s\n", reply != nullptr ? reply : "NULL");
  const embeddedPhone::usbPorts parsed = embeddedPhone::parseUsbPorts(reply);
  if (parsed.code != 0) {
    scope.sendFormattedWarning("get swiusb ports failed. error code %d\n", parsed.code);
    sendtoSlog(_SLOG_ERROR, "get swiusb ports failed. error code %d\n", parsed.code);
    return portsReadFailure;
  }
  return parsed.ports;
}

std::string ecallProcessor::getSWIUSBPorts() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::string reply;
  const SVCIPC_tError rc = embeddedPhone::readUsbPorts(reply);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedWarning("Failed to get swiusb ports, rc %d\n", rc);
    sendtoSlog(_SLOG_ERROR, "Failed to get swiusb ports %d, resp is %s\n", rc, answerState(reply));
    return portsReadFailure;
  }
  return parseSWIUSBPortsStr(reply.c_str());
}

void ecallProcessor::asyncRequestSWIUSBPorts() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc = embeddedPhone::requestUsbPorts(onAsyncSWIUSBPortsResult, this);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedError("failed to send async request to get swiusb ports, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "failed to send async request to get swiusb ports, rc 0x%0X\n",
               static_cast<unsigned>(rc));
  }
}

void ecallProcessor::onAsyncSWIUSBPortsResult(const SVCIPC_tCallbackStatus* status, const char* result,
                                              void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  // A request that failed on the way is a read failure like an error reply.
  const bool failed = (status != nullptr && SVCIPC_IS_ERROR(status->errCode)) || result == nullptr;
  const std::string ports = failed ? portsReadFailure : parseSWIUSBPortsStr(result);
  static_cast<ecallProcessor*>(context)->addFormattedEntryToEmergencyLog("SWIUSB ports: %s\n", ports.c_str());
}
