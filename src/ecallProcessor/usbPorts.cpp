// The USB ports of the cellular module that the embedded phone service still
// sees: recorded in the emergency log when the phone goes OFF, as a
// diagnostic of the module's state.
#include <json/json.h>

#include <string>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "platform/slog.h"

namespace {

const char* const portsReadFailure = "Read Failure";

}  // namespace

std::string ecallProcessor::parseSWIUSBPortsStr(const char* reply) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("Get swiusb port result %s\n", reply != nullptr ? reply : "NULL");
  Json::Value value;
  jsonParse(reply, value);
  const int code = jsonGetInt(value, "code", 0);
  if (code != 0) {
    scope.sendFormattedWarning("get swiusb ports failed. error code %d\n", code);
    sendtoSlog(_SLOG_ERROR, "get swiusb ports failed. error code %d\n", code);
    return portsReadFailure;
  }
  // A port that is not a name keeps its place in the list, so the count of
  // ports stays visible.
  std::string ports;
  const Json::Value list = value.isObject() ? value.get("ports", Json::Value()) : Json::Value();
  if (!list.isArray()) return ports;
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    if (list[i].isString()) ports += list[i].asString();
    if (i + 1 < list.size()) ports += ", ";
  }
  return ports;
}

std::string ecallProcessor::getSWIUSBPorts() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  SVCIPC_tResponse* response = nullptr;
  const SVCIPC_tError rc = SVCIPC_invoke(ecallFrame().connection(), EMBEDDED_PHONE_SERVICE, EMBEDDED_PHONE_PATH,
                                         "getUsbPorts", "", SVCIPC_TIMEOUT_DEFAULT, &response);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedWarning("Failed to get swiusb ports, rc %d\n", rc);
    sendtoSlog(_SLOG_ERROR, "Failed to get swiusb ports %d, resp is %s\n", rc,
               response != nullptr ? "not NULL" : "NULL");
    if (response != nullptr) SVCIPC_freeResponse(response);
    return portsReadFailure;
  }
  const std::string ports = parseSWIUSBPortsStr(response != nullptr ? response->result : nullptr);
  if (response != nullptr) SVCIPC_freeResponse(response);
  return ports;
}

void ecallProcessor::asyncRequestSWIUSBPorts() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc =
      SVCIPC_asyncInvoke(ecallFrame().connection(), EMBEDDED_PHONE_SERVICE, EMBEDDED_PHONE_PATH, "getUsbPorts", "", 0,
                         SVCIPC_TIMEOUT_DEFAULT, onAsyncSWIUSBPortsResult, this);
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
