#include "phoneService.h"

namespace sim {

namespace {
constexpr const char* kDialing = "CALL_STATE_DIALING";
constexpr const char* kAlerting = "CALL_STATE_ALERTING";
constexpr const char* kActive = "CALL_STATE_ACTIVE";
constexpr const char* kRinging = "CALL_STATE_RINGING";
constexpr const char* kTerminated = "CALL_STATE_TERMINATED";
// The call types the phone reports: an emergency call placed by the service,
// and an incoming call while the module is in its emergency mode.
constexpr int kEmergencyCall = 1;
constexpr int kEmergencyCallback = 2;

std::string shortState(const std::string& state) {
  const std::string prefix = "CALL_STATE_";
  return state.rfind(prefix, 0) == 0 ? state.substr(prefix.size()) : state;
}
}  // namespace

PhoneService::PhoneService(SimContext& context) : SimService(context, "EmbeddedPhone") {}

const char* PhoneService::dialModeName(DialMode mode) {
  switch (mode) {
    case DialMode::Ok:
      return "ok";
    case DialMode::Fail:
      return "fail";
    case DialMode::Idle:
      return "idle";
    case DialMode::Drop:
      return "drop";
  }
  return "?";
}

SimService::Answer PhoneService::answer(const std::string& method, const Json::Value& params) {
  if (method == "ecallDial") return dial(params);
  if (method == "endActiveCall") return endActiveCall();
  if (method == "acceptIncomingCall") return acceptIncomingCall();
  if (method == "debugAT") return ok();

  std::lock_guard<std::mutex> lock(mMutex);
  if (method == "getEmergencyNumbers") {
    Json::Value reply(Json::objectValue);
    Json::Value list(Json::arrayValue);
    if (mOn)
      for (const auto& number : mNumbers) list.append(number);
    // A module that is off cannot be read.
    reply["code"] = mOn ? 0 : 1;
    reply["count"] = static_cast<int>(list.size());
    reply["numberList"] = list;
    return result(reply);
  }
  if (method == "getProperties") {
    Json::Value reply(Json::objectValue);
    reply["embeddedPhoneStatus"]["status"] = mOn;
    return result(reply);
  }
  if (method == "getAntennaStatus") return result(antennaReply());
  if (method == "getUsbPorts") {
    Json::Value reply(Json::objectValue);
    reply["code"] = 0;
    reply["ports"] = Json::Value(Json::arrayValue);
    // A module that is off shows no ports to the head unit.
    if (mOn)
      for (const char* port : {"swiusb0", "swiusb1", "swiusb2", "swiusb3"}) reply["ports"].append(port);
    return result(reply);
  }
  return error("unknown method " + method);
}

SimService::Answer PhoneService::dial(const Json::Value& params) {
  std::string number = params.isObject() ? params.get("address", "").asString() : "";
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mOn) return error("embedded phone is off");
  if (mDialMode == DialMode::Fail) return error("dial failed");
  if (number.empty()) return error("no address to dial");
  if (mCall.id != 0) return error("a call is in progress");
  if (mDialMode == DialMode::Idle) return ok();

  mCall = Call{mNextCallId++, number, "", kEmergencyCall};
  changeCallLocked(kDialing);
  if (mDialMode == DialMode::Drop) {
    stepLater(mPaceMs, mCall.id, kDialing, kTerminated);
  } else {
    stepLater(mPaceMs, mCall.id, kDialing, kAlerting);
    if (mAutoAnswer) stepLater(2 * mPaceMs, mCall.id, kAlerting, kActive);
  }
  return ok();
}

SimService::Answer PhoneService::endActiveCall() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCall.id == 0) return ok();
  if (mHangupMs <= 0) {
    changeCallLocked(kTerminated);
    return ok();
  }
  // Until the network has released it, the call goes on as it was.
  const uint64_t callId = mCall.id;
  mContext.scheduler.after(mHangupMs, [this, callId] {
    std::string data;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      if (mCall.id != callId) return;
      mCall.state = kTerminated;
      data = callStateData(mCall);
      mCall = Call{};
    }
    emit("callState", data);
  });
  return ok();
}

SimService::Answer PhoneService::acceptIncomingCall() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCall.id == 0 || mCall.state != kRinging) return error("no incoming call");
  changeCallLocked(kActive);
  return ok();
}

Json::Value PhoneService::antennaReply() const {
  Json::Value reply(Json::objectValue);
  reply["description"] = "success";
  reply["status"] = mAntennaFault ? "PHONE_DIAG_ANTENNA_OPEN" : "PHONE_DIAG_ANTENNA_NORMAL";
  return reply;
}

std::string PhoneService::callStateData(const Call& call) const {
  Json::Value info(Json::objectValue);
  info["callState"] = call.state == kTerminated && mEndAsIdle ? "CALL_STATE_IDLE" : call.state;
  info["number"] = call.number;
  info["callType"] = call.callType;
  Json::Value data(Json::objectValue);
  data["callStateInfo"].append(info);
  return jsonText(data);
}

void PhoneService::changeCallLocked(const std::string& state) {
  mCall.state = state;
  emitLater(0, "callState", callStateData(mCall));
  if (state == kTerminated) mCall = Call{};
}

void PhoneService::stepLater(int64_t delayMs, uint64_t callId, const std::string& from, const std::string& to) {
  mContext.scheduler.after(delayMs, [this, callId, from, to] {
    std::string data;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      if (mCall.id != callId || mCall.state != from) return;
      mCall.state = to;
      data = callStateData(mCall);
      if (to == kTerminated) mCall = Call{};
    }
    emit("callState", data);
  });
}

std::string PhoneService::setPhoneOn(bool on) {
  Json::Value data(Json::objectValue);
  {
    std::lock_guard<std::mutex> lock(mMutex);
    // A module that switches off drops its call.
    if (!on && mCall.id != 0) changeCallLocked(kTerminated);
    mOn = on;
    data["embeddedPhoneStatus"]["status"] = on;
  }
  emitLater(0, "embeddedPhoneStatus", jsonText(data));
  return on ? "ok phone on" : "ok phone off";
}

std::string PhoneService::setAntennaFault(bool fault) {
  std::string data;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mAntennaFault = fault;
    data = jsonText(antennaReply());
  }
  emitLater(0, "antennaStatus", data);
  return fault ? "ok antenna fault" : "ok antenna normal";
}

std::string PhoneService::setNumbers(const std::vector<std::string>& numbers) {
  std::lock_guard<std::mutex> lock(mMutex);
  mNumbers = numbers;
  if (numbers.empty()) return "ok no emergency number programmed";
  std::string text = "ok number";
  for (const auto& n : numbers) text += " " + n;
  return text;
}

std::string PhoneService::setDialMode(DialMode mode) {
  std::lock_guard<std::mutex> lock(mMutex);
  mDialMode = mode;
  return std::string("ok dial ") + dialModeName(mode);
}

std::string PhoneService::setPace(int64_t ms) {
  std::lock_guard<std::mutex> lock(mMutex);
  mPaceMs = ms;
  return "ok pace " + std::to_string(ms) + " ms";
}

std::string PhoneService::setHangupDelay(int64_t ms) {
  std::lock_guard<std::mutex> lock(mMutex);
  mHangupMs = ms;
  return "ok hang-up reported after " + std::to_string(ms) + " ms";
}

std::string PhoneService::setAutoAnswer(bool automatic) {
  std::lock_guard<std::mutex> lock(mMutex);
  mAutoAnswer = automatic;
  return automatic ? "ok the operator answers by itself" : "ok the operator answers on 'psap answer'";
}

std::string PhoneService::setEndAsIdle(bool idle) {
  std::lock_guard<std::mutex> lock(mMutex);
  mEndAsIdle = idle;
  return idle ? "ok a call's end is reported as CALL_STATE_IDLE" : "ok a call's end is reported as TERMINATED";
}

std::string PhoneService::psapAnswer() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCall.id == 0 || (mCall.state != kAlerting && mCall.state != kDialing)) return "error no call is alerting";
  changeCallLocked(kActive);
  return "ok operator answered";
}

std::string PhoneService::psapHangup() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCall.id == 0) return "error no call";
  changeCallLocked(kTerminated);
  return "ok operator hung up";
}

std::string PhoneService::psapCallback(const std::string& number) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mOn) return "error embedded phone is off";
  if (mCall.id != 0) return "error a call is in progress";
  std::string caller = number;
  if (caller.empty()) caller = mNumbers.empty() ? "911" : mNumbers.front();
  mCall = Call{mNextCallId++, caller, "", kEmergencyCallback};
  changeCallLocked(kRinging);
  return "ok incoming call from " + caller;
}

std::string PhoneService::wendReason(int serviceNumber) {
  Json::Value data(Json::objectValue);
  data["serviceNumber"] = serviceNumber;
  emitLater(0, "wendReason", jsonText(data));
  return "ok wendReason " + std::to_string(serviceNumber);
}

// A dial to the test number reaches the test line, which answers like the
// emergency centre: the record says which of the two was called.
std::string PhoneService::describe(const std::string& method, const std::string& params) const {
  Json::Value value;
  if (method == "ecallDial" && jsonParse(params, value) && value.isObject() && value["address"].isString()) {
    const std::string number = value["address"].asString();
    const bool testLine = number == mContext.settings.testNumber().value_or("");
    return "phone: dialling " + number + (testLine ? " (the test line)" : " (the emergency centre)");
  }
  return SimService::describe(method, params);
}

std::string PhoneService::describeSignal(const std::string& signal, const std::string& data) const {
  // The console may send any text as a signal: a shape other than the
  // phone's own is shown as it is.
  Json::Value value;
  try {
    if (signal == "callState" && jsonParse(data, value) && value["callStateInfo"].size() == 1) {
      const Json::Value& call = value["callStateInfo"][0];
      return "phone: call " + call.get("number", "").asString() + " " + shortState(call.get("callState", "").asString());
    }
    if (signal == "embeddedPhoneStatus" && jsonParse(data, value))
      return std::string("phone: embedded phone ") + (value["embeddedPhoneStatus"]["status"].asBool() ? "ON" : "OFF");
  } catch (const Json::Exception&) {
  }
  return SimService::describeSignal(signal, data);
}

std::string PhoneService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::string numbers;
  for (const auto& n : mNumbers) numbers += (numbers.empty() ? "" : ",") + n;
  std::string text = std::string("phone=") + (mOn ? "on" : "off") + " antenna=" + (mAntennaFault ? "fault" : "normal") +
                     " number=" + (numbers.empty() ? "none" : numbers) + " dial=" + dialModeName(mDialMode) +
                     " pace=" + std::to_string(mPaceMs) + " answer=" + (mAutoAnswer ? "auto" : "manual") +
                     " end=" + (mEndAsIdle ? "idle" : "terminated") + " call=";
  text += mCall.id == 0 ? "idle" : shortState(mCall.state) + ":" + mCall.number;
  return text;
}

}  // namespace sim
