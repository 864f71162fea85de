// The requests to the embedded phone service and the reading of its answers
// and signals. A peer's text never makes the service throw, whatever its
// shape.
#include "externalServiceHandling/embeddedPhone.h"

#include <json/json.h>

#include "common/ecallTypes.h"
#include "common/jsonText.h"
#include "ecallMain/ecallMain.h"
#include "externalServiceHandling/serviceRequests.h"

namespace embeddedPhone {

namespace {

using extServ::embeddedPhoneService;
using extServ::intMember;
using extServ::parseObject;
using extServ::textMember;

constexpr int emergencyNumberMaxCount = 10;
// The emergency call's entries of a call state report carry these types.
constexpr int emergencyCallTypeFirst = 1;
constexpr int emergencyCallTypeLast = 2;
const char* const serviceNumber = "#777";
// The vehicle type the emergency centre is told with every dial request.
const char* const vehicleType = "Corvane";

// Every query waits for the peer reply bound, like every other synchronous
// request: the status query runs at start-up before the inputs are watched
// and on the bus thread when the phone service returns, so a phone service
// that holds its name and never answers costs one bound, not the bus's 25 s.
SVCIPC_tError readBounded(const char* method, const std::string& params, std::string& reply) {
  return extServ::invokeSync(embeddedPhoneService, method, params, &reply);
}

std::string emergencyNumberQuery() {
  Json::Value params(Json::objectValue);
  params["maxCount"] = emergencyNumberMaxCount;
  return jsonWrite(params);
}

std::string antennaQuery() {
  Json::Value params(Json::objectValue);
  params["antenna"] = embeddedPhoneAntennaIdentifier;
  return jsonWrite(params);
}

SVCIPC_tError dialAs(const char* callType, const std::string& number, SVCIPC_tResultCallback onReply,
                     void* context) {
  Json::Value params(Json::objectValue);
  params["address"] = number;
  params["callType"] = callType;
  params["vehicleType"] = vehicleType;
  return extServ::invokeAsync(embeddedPhoneService, "ecallDial", jsonWrite(params), onReply, context);
}

}  // namespace

SVCIPC_tError dial(const std::string& number, SVCIPC_tResultCallback onReply, void* context) {
  return dialAs("MVA", number, onReply, context);
}

SVCIPC_tError dialTestCall(const std::string& number, SVCIPC_tResultCallback onReply, void* context) {
  return dialAs("TEST", number, onReply, context);
}

SVCIPC_tError hangUp() { return extServ::invokeAsync(embeddedPhoneService, "endActiveCall", "", "endActiveCall"); }

SVCIPC_tError acceptIncomingCall() {
  return extServ::invokeAsync(embeddedPhoneService, "acceptIncomingCall", "", "acceptIncomingCall");
}

SVCIPC_tError leaveEmergencyMode() {
  Json::Value params(Json::objectValue);
  params["atString"] = "at+wsos=0\r";
  return extServ::invokeAsync(embeddedPhoneService, "debugAT", jsonWrite(params), "debugAT");
}

SVCIPC_tError readEmergencyNumbers(std::string& reply) {
  return extServ::invokeSync(embeddedPhoneService, "getEmergencyNumbers", emergencyNumberQuery(), &reply);
}

SVCIPC_tError requestEmergencyNumbers(SVCIPC_tResultCallback onReply, void* context) {
  return extServ::invokeAsync(embeddedPhoneService, "getEmergencyNumbers", emergencyNumberQuery(), onReply,
                              context);
}

SVCIPC_tError readStatus(std::string& reply) {
  return readBounded("getProperties", extServ::propertyQuery("embeddedPhoneStatus"), reply);
}

SVCIPC_tError readAntennaStatus(std::string& reply) {
  return readBounded("getAntennaStatus", antennaQuery(), reply);
}

SVCIPC_tError requestAntennaStatus(SVCIPC_tResultCallback onReply, void* context) {
  return extServ::invokeAsync(embeddedPhoneService, "getAntennaStatus", antennaQuery(), onReply, context);
}

SVCIPC_tError readUsbPorts(std::string& reply) { return readBounded("getUsbPorts", "", reply); }

SVCIPC_tError requestUsbPorts(SVCIPC_tResultCallback onReply, void* context) {
  return extServ::invokeAsync(embeddedPhoneService, "getUsbPorts", "", onReply, context);
}

SVCIPC_tError watchOwner(SVCIPC_tNameOwnerChangedCallback onChange, void* context, SVCIPC_tSigSubHnd* handle) {
  return SVCIPC_subscribeOwnerChanged(ecallFrame().connection(), embeddedPhoneService.name, onChange, context, handle);
}

SVCIPC_tError hasOwner(int& owned) { return SVCIPC_nameHasOwner(ecallFrame().connection(), embeddedPhoneService.name, &owned); }

SVCIPC_tError subscribe(const char* sigName, SVCIPC_tSignalCallback onSignal, void* context) {
  return extServ::subscribe(embeddedPhoneService, sigName, onSignal, context);
}

emergencyNumbers parseEmergencyNumbers(const char* reply) {
  Json::Value value;
  jsonParse(reply, value);
  emergencyNumbers parsed;
  // A count of 0 is deliberately an error reply, not a reply without number.
  if (jsonGetInt(value, "code", 0) != 0 || jsonGetInt(value, "count", 0) <= 0) return parsed;
  const Json::Value list = value.get("numberList", Json::Value());
  parsed.result = emergencyNumbers::NO_LIST;
  if (!list.isArray() || list.empty()) return parsed;
  parsed.result = emergencyNumbers::NO_USABLE;
  for (const Json::Value& entry : list) {
    if (!entry.isString() || entry.asString().empty()) continue;
    parsed.result = emergencyNumbers::NUMBER;
    parsed.number = entry.asString();
    break;
  }
  return parsed;
}

bool parseEmergencyNumberList(const char* reply, std::vector<std::string>& numbers) {
  if (parseEmergencyNumbers(reply).result == emergencyNumbers::ERROR_REPLY) return false;
  Json::Value value;
  jsonParse(reply, value);
  const Json::Value list = value.get("numberList", Json::Value());
  if (!list.isArray()) return true;
  for (const Json::Value& entry : list)
    if (entry.isString()) numbers.push_back(entry.asString());
  return true;
}

bool parseStatus(const char* text, bool acceptBare, bool& on) {
  Json::Value payload;
  jsonParse(text, payload);
  if (!payload.isObject()) return false;
  const Json::Value* holder = nullptr;
  if (payload.isMember("embeddedPhoneStatus")) {
    holder = &payload["embeddedPhoneStatus"];
  } else if (acceptBare && payload.isMember("status")) {
    holder = &payload;
  } else {
    return false;
  }
  on = false;
  if (holder->isObject() && holder->isMember("status")) {
    const Json::Value& status = (*holder)["status"];
    on = status.isBool() && status.asBool();
  }
  return true;
}

antennaReport parseAntennaStatus(const char* report) {
  Json::Value reply;
  jsonParse(report, reply);
  antennaReport parsed;
  const std::string description = jsonGetString(reply, "description", "not found");
  parsed.status = jsonGetString(reply, "status", "not found");
  parsed.diagnosed = description == "success" && parsed.status != "not found";
  parsed.normal = parsed.status == embeddedPhoneAntennaStatNormal;
  return parsed;
}

usbPorts parseUsbPorts(const char* reply) {
  Json::Value value;
  jsonParse(reply, value);
  usbPorts parsed;
  parsed.code = jsonGetInt(value, "code", 0);
  if (parsed.code != 0) return parsed;
  const Json::Value list = value.isObject() ? value.get("ports", Json::Value()) : Json::Value();
  if (!list.isArray()) return parsed;
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    if (list[i].isString()) parsed.ports += list[i].asString();
    if (i + 1 < list.size()) parsed.ports += ", ";
  }
  return parsed;
}

std::vector<callEntry> emergencyCallEntries(const char* report) {
  std::vector<callEntry> found;
  const Json::Value root = parseObject(report);
  const Json::Value& entries = root["callStateInfo"];
  if (!entries.isArray()) return found;
  for (const Json::Value& entry : entries) {
    if (!entry.isObject()) continue;
    callEntry call;
    call.hasNumber = entry["number"].isString();
    call.number = textMember(entry, "number");
    const int callType = intMember(entry, "callType", 0);
    if (isServiceNumber(call.number)) continue;
    if (callType < emergencyCallTypeFirst || callType > emergencyCallTypeLast) continue;
    call.state = textMember(entry, "callState");
    found.push_back(std::move(call));
  }
  return found;
}

bool parseWendReason(const char* data, int& number) {
  const Json::Value root = parseObject(data);
  const Json::Value& member = root["serviceNumber"];
  if (!member.isInt()) return false;
  number = member.asInt();
  return true;
}

bool isServiceNumber(const std::string& number) { return number == serviceNumber; }

}  // namespace embeddedPhone
