// The bus methods of the service. One handler receives every call on the bus
// library's thread, picks the method by its exact name, answers first and
// then acts, so that no caller waits for a slow action.
#include <json/json.h>

#include <cstdio>
#include <cstring>

#include "ecallMain/ecallMain.h"
#include "callTimings/callTimings.h"
#include "common/jsonText.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/slog.h"

namespace {

// One call as the bus library hands it over.
struct methodCall {
  SVCIPC_tReqContext context;
  const char* method;
  const char* params;
  bool replyExpected;
  SVCIPC_tUserToken token;
};

// The parameters of a call as a JSON value; a missing or unparsable text
// reads as an object without members, so every member takes its default.
Json::Value readParams(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  Json::Value params;
  jsonParse(call.params != nullptr ? call.params : "{}", params);
  return params;
}

void sendGeneralResponseIfExpected(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  if (call.replyExpected) sendGeneralResponse(call.context, call.token, call.method);
}

// Answers a status query with one member; sent whether or not a reply is
// expected.
void sendStatusResponse(const methodCall& call, const char* member, const Json::Value& value) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  Json::Value reply(Json::objectValue);
  reply[member] = value;
  const std::string text = jsonWrite(reply);
  SVCIPC_asyncReturnResult(call.context, text.c_str(), 0, call.token);
  scope.sendFormattedMessage("send ecall status response %s for method %s", text.c_str(), call.method);
}

void exitEcall(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  sendGeneralResponseIfExpected(call);
  ecallHandler.clearECallEvent();
}

// A start request from the bus counts exactly as a press of the mirror
// emergency button.
void startEcall(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  sendGeneralResponseIfExpected(call);
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
}

void isECallInProgress(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  // The handler's user data is the frame.
  const auto& frame = *static_cast<const serviceFrame*>(call.token);
  sendStatusResponse(call, "ecallInProgress", Json::Value(frame.eCallInProgress()));
}

void isECallModeActive(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  sendStatusResponse(call, "eCallModeActive", Json::Value(ecallHandler.getEcallModeActive()));
}

// The user interface asks for the retry prompt (state 0) or the retry prompt
// with the cancel hint (state 1); any other state asks for nothing.
void setEcallRetryHmiState(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  const int state = jsonGetInt(readParams(call), "state", -1);
  sendGeneralResponseIfExpected(call);
  if (state == 0) {
    extServHandle.ayncPlayTtsMsg(TTS_PROMPT_RETRY);
  } else if (state == 1) {
    extServHandle.ayncPlayTtsMsg(TTS_PROMPT_RETRY_WITH_CANCEL);
  }
}

// Another component writes a line of its own into the emergency record. It
// never gets an answer, even when it waits for one.
void logStringToEcallLog(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  const std::string message = jsonGetString(readParams(call), "message", "");
  scope.sendFormattedMessage("logStringToEcallLog: %s", message.c_str());
  char line[EMERGENCY_LOG_ENTRY_SIZE];
  snprintf(line, sizeof line, "%s", message.c_str());
  ecallHandler.addEntryToEmergencyLog(line);
}

void saveEmergencyLogToUSBAndRemoveLocalLog(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  sendGeneralResponseIfExpected(call);
  ecallHandler.saveEmergencyLogToUSBAndRemoveLocalLog();
}

// The emergency prompts are always asked for in US English, whatever the
// head unit's language.
void getEmergencyCallLanguage(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  sendStatusResponse(call, "language", Json::Value("en_US"));
}

// Named for the GPS, but the GPS sits in the cellular module, so the whole
// module is reset.
void hardResetGPS(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  sendGeneralResponseIfExpected(call);
  ecallHandler.addEntryToEmergencyLog("Calling v850ResetSierra from an external dbus call");
  canIpcEmergencyHandler.v850ResetSierra();
}

// A test call to the vehicle's test number. The reply is the decision:
// {"result":"OK"}, or {"reason":...,"result":"REFUSED"} with why no call is
// placed (so a caller that only checks for "OK" sees the refusal too).
void startTestEcall(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  std::string why;
  if (ecallHandler.startTestCall(why)) {
    sendGeneralResponseIfExpected(call);
  } else if (call.replyExpected) {
    Json::Value reply(Json::objectValue);
    reply["result"] = "REFUSED";
    reply["reason"] = why;
    const std::string text = jsonWrite(reply);
    SVCIPC_asyncReturnResult(call.context, text.c_str(), 0, call.token);
    scope.sendFormattedMessage("send test call response %s for method %s", text.c_str(), call.method);
  }
}

// When each stage of the call closed last happened, in ms after its
// trigger; {} before the first call. Always answered.
void getLastCallTimings(const methodCall& call) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  const std::string text = jsonWrite(callTimings::toJson(ecallHandler.lastCallTimings()));
  SVCIPC_asyncReturnResult(call.context, text.c_str(), 0, call.token);
  scope.sendFormattedMessage("send ecall status response %s for method %s", text.c_str(), call.method);
}

struct methodEntry {
  const char* name;
  void (*run)(const methodCall&);
};

// In the order the names are compared. "IsECallInProgess" is the name the
// head unit's clients call, spelled so.
const methodEntry methodTable[] = {
    {"exitEcall", exitEcall},
    {"startEcall", startEcall},
    {"IsECallInProgess", isECallInProgress},
    {"IsECallModeActive", isECallModeActive},
    {"setEcallRetryHmiState", setEcallRetryHmiState},
    {"logStringToEcallLog", logStringToEcallLog},
    {"saveEmergencyLogToUSBAndRemoveLocalLog", saveEmergencyLogToUSBAndRemoveLocalLog},
    {"getEmergencyCallLanguage", getEmergencyCallLanguage},
    {"hardResetGPS", hardResetGPS},
    {"startTestEcall", startTestEcall},
    {"getLastCallTimings", getLastCallTimings},
};

}  // namespace

void sendGeneralResponse(SVCIPC_tReqContext context, SVCIPC_tUserToken token, const char* method) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  Json::Value reply(Json::objectValue);
  reply["result"] = "OK";
  const std::string text = jsonWrite(reply);
  SVCIPC_asyncReturnResult(context, text.c_str(), 0, token);
  scope.sendFormattedMessage("send general response %s for method %s", text.c_str(), method);
}

void onECallRequest(SVCIPC_tReqContext context, const char* method, const char* params, int noReplyExpected,
                    SVCIPC_tUserToken token) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  const methodCall call{context, method != nullptr ? method : "", params, noReplyExpected == 0, token};
  const char* paramsText = params != nullptr ? params : "";
  scope.sendFormattedMessage("ecallRequest: %s, params: %s", call.method, paramsText);
  sendtoSlog(_SLOG_INFO, "ecallRequest: %s, params: %s", call.method, paramsText);

  for (const methodEntry& entry : methodTable) {
    if (strcmp(call.method, entry.name) == 0) {
      entry.run(call);
      break;
    }
  }
  // Answered or not, known or not: the request is finished here.
  SVCIPC_freeReqContext(context);
}
