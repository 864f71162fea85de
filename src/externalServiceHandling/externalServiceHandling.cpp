// The external services object and the request helpers the module shares.
#include "externalServiceHandling/externalServiceHandling.h"

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/processorInputs.h"
#include "externalServiceHandling/serviceRequests.h"
#include "platform/slog.h"

externalServiceHandling::externalServiceHandling(processorInputs& processor) : mProcessor(processor) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
}

externalServiceHandling::~externalServiceHandling() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  unregisterMuteClient();
}

namespace extServ {

bool asyncRequestFailed(const SVCIPC_tCallbackStatus* status, const char* result, const char* name) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  const SVCIPC_tError err = status ? status->errCode : SVCIPC_ERROR_NONE;
  if (SVCIPC_IS_ERROR(err)) {
    // A request the bus library cancelled itself is no news.
    const bool cancelled =
        SVCIPC_ERROR_DOMAIN(err) == SVCIPC_DOMAIN_IPC_LIB && SVCIPC_ERROR_CODE(err) == SVCIPC_ERR_CANCELLED;
    if (cancelled) return false;
    sendtoSlog(_SLOG_WARNING, "Async call %s failed: 0x%0X\n", name, static_cast<unsigned>(err));
    return true;
  }
  scope.sendFormattedMessage("onAsyncResult[%s]: %s\n", name, result ? result : "");
  return false;
}

void onAsyncResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context) {
  asyncRequestFailed(status, result, context ? static_cast<const char*>(context) : "");
}

SVCIPC_tError invokeSync(const busService& service, const char* method, const std::string& params,
                         std::string* result) {
  return invokeSync(service, method, params, result, peerReplyLimitMs());
}

SVCIPC_tError invokeSync(const busService& service, const char* method, const std::string& params,
                         std::string* result, int timeoutMs) {
  SVCIPC_tResponse* response = nullptr;
  SVCIPC_tError rc =
      SVCIPC_invoke(ecallFrame().connection(), service.name, service.path, method, params.c_str(), timeoutMs, &response);
  if (response != nullptr) {
    if (result != nullptr && response->result != nullptr) *result = response->result;
    SVCIPC_freeResponse(response);
  }
  return rc;
}

SVCIPC_tError invokeAsync(const busService& service, const char* method, const std::string& params,
                          const char* context) {
  return invokeAsync(service, method, params, onAsyncResult, const_cast<char*>(context));
}

SVCIPC_tError invokeAsync(const busService& service, const char* method, const std::string& params,
                          SVCIPC_tResultCallback onResult, void* context) {
  return SVCIPC_asyncInvoke(ecallFrame().connection(), service.name, service.path, method, params.c_str(),
                            0 /*reply expected*/, SVCIPC_TIMEOUT_DEFAULT, onResult, context);
}

SVCIPC_tError subscribe(const busService& service, const char* sigName, SVCIPC_tSignalCallback onSignal,
                        void* context) {
  SVCIPC_tSigSubHnd subscription = nullptr;
  return SVCIPC_subscribe(ecallFrame().connection(), service.path, sigName, onSignal, context, &subscription);
}

bool reportTimedOut(SVCIPC_tError rc, const char* query, const std::string& kept) {
  if (!isPeerTimeout(rc)) return false;
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  scope.sendFormattedError("The %s query timed out after %d ms, keeping %s\n", query, peerReplyLimitMs(),
                           kept.c_str());
  sendtoSlog(_SLOG_WARNING, "The %s query timed out after %d ms, keeping %s\n", query, peerReplyLimitMs(),
             kept.c_str());
  return true;
}

std::string propertyQuery(const char* name) {
  Json::Value query(Json::objectValue);
  query["props"].append(name);
  return jsonWrite(query);
}

int intMember(const Json::Value& object, const char* name, int fallback) {
  const Json::Value& member = object[name];
  if (member.isNull() || !member.isConvertibleTo(Json::intValue)) return fallback;
  return member.asInt();
}

std::string textMember(const Json::Value& object, const char* name) {
  const Json::Value& member = object[name];
  return member.isString() ? member.asString() : std::string();
}

Json::Value parseObject(const char* data) {
  Json::Value root;
  if (!jsonParse(data, root) || !root.isObject()) return Json::Value(Json::objectValue);
  return root;
}

Json::Value member(const Json::Value& value, const char* name) {
  if (!value.isObject()) return Json::Value();
  return value.get(name, Json::Value());
}

}  // namespace extServ
