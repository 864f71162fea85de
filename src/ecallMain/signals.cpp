// The two signals of the service: "ecall", the whole emergency state, and
// "ecallProgress", a bare progress code.
#include <json/json.h>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "common/sharedText.h"
#include "platform/slog.h"

namespace {

// Context text handed to the bus with every emitted signal.
char emitContext[] = "ecallSvc";

// Chooses the "type" text of an "ecall" signal. A system error is shown
// without becoming the remembered mode, so that the following "nochange"
// returns to the mode the user saw before the error.
std::string chooseModeText(ecallMain::eCallModeType mode) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  if (mode == ecallMain::CALL_SYSTEM_ERROR) return ecallMain::eCallModeTypeString[ecallMain::CALL_SYSTEM_ERROR];
  if (mode == ecallMain::CALL_NOCHANGE || mode < ecallMain::CALL_NONE || mode >= ecallMain::CALL_MODE_COUNT)
    return ecallFrame().callModeText();
  const std::string& text = ecallMain::eCallModeTypeString[mode];
  ecallFrame().setCallModeText(text);
  return text;
}

// Event name and description of a type; anything outside the table reads as
// no event rather than running off its end.
ecallMain::eEmergencyType checkedType(ecallMain::eEmergencyType type) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  if (type < ecallMain::NONE || type >= ecallMain::EMERGENCY_TYPE_COUNT) return ecallMain::NONE;
  return type;
}

void emitSignal(const char* sigName, const std::string& data) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  SVCIPC_asyncEmit(ecallFrame().registration(), sigName, data.c_str(), nullptr, emitContext);
}

}  // namespace

std::string getCurCallModeString() {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  return ecallFrame().callModeText();
}

void emitEmergencySignal(bool ecall, ecallMain::eEmergencyType type, std::string phoneNumber,
                         ecallMain::eCallModeType mode, bool BTCallActive, bool ecallModeActive) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  // First, so that "IsECallInProgess" answers what this signal tells.
  ecallFrame().setECallInProgress(ecallModeActive);

  const ecallMain::eEmergencyType event = ecall ? checkedType(type) : ecallMain::NONE;
  Json::Value payload(Json::objectValue);
  payload["ecall"] = ecall;
  payload["ecallModeActive"] = ecallModeActive;
  payload["event"] = ecallMain::EmergencyEvent[event];
  payload["type"] = chooseModeText(mode);
  payload["eventdetail"] = ecallMain::EmergencyEventDescription[event];
  payload["phoneNumber"] = phoneNumber;
  payload["BTCallActive"] = BTCallActive;

  const std::string text = jsonWrite(payload);
  scope.sendFormattedMessage("emit ecall signal here %s\n", text.c_str());
  sendtoSlog(_SLOG_INFO, "emit ecall signal %s\n", text.c_str());
  emitSignal("ecall", text);
}

void emitECallProgressSignal(unsigned int progress) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  Json::Value payload(Json::objectValue);
  payload["progress"] = Json::UInt(progress);

  const std::string text = jsonWrite(payload);
  scope.sendFormattedMessage("emit ecallProgress signal here %s\n", text.c_str());
  sendtoSlog(_SLOG_INFO, "emit ecallProgress signal %s\n", text.c_str());
  emitSignal("ecallProgress", text);
}
