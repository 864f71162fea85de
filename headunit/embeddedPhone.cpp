#include "embeddedPhone.h"

#include <algorithm>
#include <cstring>

namespace headunit {

namespace {

const char* const kOfono = "org.ofono";
const uint64_t kCallTimeoutUsec = 20 * 1000000ull;  // oFono answers Dial once the modem took ATD
// Each command on the eCall channel, its opening included: the two of a
// dial and a plain dial after them (oFono's bound) stay within the 25 s the
// service waits for the dial's answer.
const auto kAtBound = std::chrono::milliseconds(2000);

// A command of the file with its one place filled.
std::string filled(std::string command, const char* place, const std::string& value) {
  return command.replace(command.find(place), 2, value);
}

// The MSD as it goes into a command: hex digits only, at most 140 octets.
bool msdHex(const Json::Value& params, std::string& hex) {
  const Json::Value& value = params.isObject() ? params["msd"] : Json::Value();
  hex = value.isString() ? value.asString() : "";
  return !hex.empty() && hex.size() % 2 == 0 && hex.size() <= 280 &&
         hex.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// One property of an a{sv} dictionary or a PropertyChanged signal.
struct Value {
  std::string text;
  bool flag = false;
  int number = 0;
  std::vector<std::string> list;
};

// Reads the variant at the message's position (the types oFono uses for
// the properties read here; others are skipped).
bool readVariant(sd_bus_message* m, Value& value) {
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(m, nullptr, &contents) < 0 || !contents) return false;
  if (sd_bus_message_enter_container(m, 'v', contents) < 0) return false;
  if (!strcmp(contents, "s") || !strcmp(contents, "o")) {
    const char* s = nullptr;
    sd_bus_message_read_basic(m, contents[0], &s);
    value.text = s ? s : "";
  } else if (!strcmp(contents, "b")) {
    int b = 0;
    sd_bus_message_read_basic(m, 'b', &b);
    value.flag = b != 0;
  } else if (!strcmp(contents, "y")) {
    uint8_t y = 0;
    sd_bus_message_read_basic(m, 'y', &y);
    value.number = y;
  } else if (!strcmp(contents, "as")) {
    char** strv = nullptr;
    if (sd_bus_message_read_strv(m, &strv) >= 0 && strv) {
      for (char** s = strv; *s; ++s) value.list.push_back(*s), free(*s);
      free(strv);
    }
  } else {
    sd_bus_message_skip(m, contents);
  }
  return sd_bus_message_exit_container(m) >= 0;
}

std::map<std::string, Value> readProperties(sd_bus_message* m) {
  std::map<std::string, Value> properties;
  if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) return properties;
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* name = nullptr;
    if (sd_bus_message_read_basic(m, 's', &name) < 0 || !readVariant(m, properties[name ? name : ""])) break;
    sd_bus_message_exit_container(m);
  }
  sd_bus_message_exit_container(m);
  return properties;
}

// The phone's name for oFono's call state.
const char* callStateName(const std::string& state) {
  if (state == "dialing") return "CALL_STATE_DIALING";
  if (state == "alerting") return "CALL_STATE_ALERTING";
  if (state == "active") return "CALL_STATE_ACTIVE";
  if (state == "incoming" || state == "waiting") return "CALL_STATE_RINGING";
  if (state == "held") return "CALL_STATE_HELD";
  return "CALL_STATE_TERMINATED";  // "disconnected", or the call is gone
}

// The 24.008 cause of an oFono disconnect reason: a hang-up by either side
// is a normal clearing; a call the network lost is "normal, unspecified".
// Neither ends the emergency by itself: the call's end follows as its state.
int causeOf(const std::string& reason) { return reason == "network" ? 31 : 16; }

bool call(sd_bus* bus, const std::string& path, const char* interface, const char* method, sd_bus_message** reply,
          std::string& why, const char* types = nullptr, ...) {
  sd_bus_message* request = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int rc = sd_bus_message_new_method_call(bus, &request, kOfono, path.c_str(), interface, method);
  if (rc >= 0 && types) {
    va_list args;
    va_start(args, types);
    rc = sd_bus_message_appendv(request, types, args);
    va_end(args);
  }
  if (rc >= 0) rc = sd_bus_call(bus, request, kCallTimeoutUsec, &error, reply);
  if (rc < 0) why = error.message ? error.message : strerror(-rc);
  sd_bus_error_free(&error);
  sd_bus_message_unref(request);
  return rc >= 0;
}

}  // namespace

bool EmbeddedPhone::start(std::string& why) {
  if (!mConfig.ecallChannel.empty()) {
    mEcall = std::make_unique<AtChannel>(mConfig.ecallChannel, mConfig.msdRequestCode, [this](const std::string&) {
      emit("msdRequest", Json::Value(Json::objectValue));
    });
    std::string notNow;
    logLine(mEcall->start(notNow) ? "EmbeddedPhone: eCall channel " + mConfig.ecallChannel + " open"
                                  : "EmbeddedPhone: " + notNow + "; tried again at the call");
  } else if (mConfig.market == "EU") {
    logLine("EmbeddedPhone: no ecallChannel: emergency calls are placed without the MSD");
  }
  return mBus.use([&](sd_bus* bus) {
    int rc = sd_bus_match_signal(bus, &mSlot, kOfono, nullptr, nullptr, nullptr, &EmbeddedPhone::onSignal, this);
    // oFono leaving the bus takes its modems along without a word.
    if (rc >= 0)
      rc = sd_bus_add_match(bus, &mOwnerSlot,
                            "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.ofono'",
                            &EmbeddedPhone::onSignal, this);
    if (rc < 0) {
      why = std::string("cannot follow oFono's signals: ") + strerror(-rc);
      return false;
    }
    takeModems(bus);
    return true;
  });
}

void EmbeddedPhone::stop() {
  if (mEcall) mEcall->stop();
}

EmbeddedPhone::~EmbeddedPhone() {
  mBus.use([&](sd_bus*) {
    stopBringUp();
    sd_bus_slot_unref(mSlot);
    sd_bus_slot_unref(mOwnerSlot);
    return 0;
  });
}

int EmbeddedPhone::onSignal(sd_bus_message* message, void* self, sd_bus_error*) {
  static_cast<EmbeddedPhone*>(self)->signal(message);
  return 0;
}

// Runs on the dispatcher with the bus held.
void EmbeddedPhone::signal(sd_bus_message* m) {
  sd_bus* bus = sd_bus_message_get_bus(m);
  const std::string interface = sd_bus_message_get_interface(m) ?: "", member = sd_bus_message_get_member(m) ?: "",
                    path = sd_bus_message_get_path(m) ?: "";
  const char* text = nullptr;
  if (member == "NameOwnerChanged") {
    const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0) return;
    dropModem();
    if (newOwner && *newOwner) takeModems(bus);
  } else if (interface == "org.ofono.Manager") {
    if (member == "ModemAdded" && mModem.empty()) takeModems(bus);
    if (member == "ModemRemoved" && sd_bus_message_read(m, "o", &text) >= 0 && text == mModem) {
      dropModem();
      takeModems(bus);
    }
  } else if (interface == "org.ofono.Modem" && member == "PropertyChanged" && path == mModem) {
    if (sd_bus_message_read(m, "s", &text) >= 0) modemChanged(bus, text, m);
  } else if (interface == "org.ofono.NetworkRegistration" && member == "PropertyChanged" && path == mModem) {
    Value value;
    if (sd_bus_message_read(m, "s", &text) < 0 || !readVariant(m, value)) return;
    if (!strcmp(text, "Status")) mRegistration = value.text;
    if (!strcmp(text, "Strength")) mStrength = value.number;
    reportAntenna();
  } else if (interface == "org.ofono.VoiceCallManager" && member == "CallAdded") {
    if (sd_bus_message_read(m, "o", &text) < 0) return;
    const std::string callPath = text;
    auto properties = readProperties(m);
    Call& call = mCalls[callPath];
    call.state = properties["State"].text;
    call.number = properties["LineIdentification"].text;
    call.emergency = properties["Emergency"].flag;
    call.incoming = call.state == "incoming" || call.state == "waiting";
    // The call the service dialled is its emergency call, whatever number
    // the market uses for it.
    if (!call.incoming && (call.number == mDialled || mEcallExpected)) call.emergency = true;
    if (!call.incoming) mEcallExpected = false;
    callChanged(callPath, call);
  } else if (interface == "org.ofono.VoiceCallManager" && member == "CallRemoved") {
    if (sd_bus_message_read(m, "o", &text) < 0) return;
    auto it = mCalls.find(text);
    if (it == mCalls.end()) return;
    it->second.state = "disconnected";
    callChanged(it->first, it->second);
    mCalls.erase(it);
  } else if (interface == "org.ofono.VoiceCall") {
    auto it = mCalls.find(path);
    if (it == mCalls.end()) return;
    if (member == "DisconnectReason" && sd_bus_message_read(m, "s", &text) >= 0) {
      Json::Value data(Json::objectValue);
      data["serviceNumber"] = causeOf(text);
      emit("wendReason", data);
    } else if (member == "PropertyChanged" && sd_bus_message_read(m, "s", &text) >= 0 && !strcmp(text, "State")) {
      Value value;
      if (!readVariant(m, value) || value.text == it->second.state) return;
      it->second.state = value.text;
      callChanged(it->first, it->second);
    }
  }
}

void EmbeddedPhone::dropModem() {
  stopBringUp();
  mModem.clear();
  mPowered = mOnline = mHasVoice = false;
  mRegistration.clear();
  mStrength = 0;
  for (auto& [callPath, call] : mCalls) {
    call.state = "disconnected";
    callChanged(callPath, call);
  }
  mCalls.clear();
  reportStatus();
  reportAntenna();
}

void EmbeddedPhone::takeModems(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  std::string why;
  if (!call(bus, "/", "org.ofono.Manager", "GetModems", &reply, why)) {
    logLine("EmbeddedPhone: no modem from oFono: " + why);
    return;
  }
  const char* path = nullptr;
  if (sd_bus_message_enter_container(reply, 'a', "(oa{sv})") >= 0 &&
      sd_bus_message_enter_container(reply, 'r', "oa{sv}") > 0 && sd_bus_message_read(reply, "o", &path) >= 0) {
    stopBringUp();
    mModem = path;
    auto properties = readProperties(reply);
    mPowered = properties["Powered"].flag;
    mOnline = properties["Online"].flag;
    const auto& interfaces = properties["Interfaces"].list;
    mHasVoice = std::count(interfaces.begin(), interfaces.end(), "org.ofono.VoiceCallManager") > 0;
    logLine("EmbeddedPhone: modem " + mModem);
    bringUp(bus);
    if (std::count(interfaces.begin(), interfaces.end(), "org.ofono.NetworkRegistration")) readNetwork(bus);
  }
  sd_bus_message_unref(reply);
  reportStatus();
}

void EmbeddedPhone::modemChanged(sd_bus* bus, const std::string& name, sd_bus_message* m) {
  Value value;
  if (!readVariant(m, value)) return;
  if (name == "Powered") {
    mPowered = value.flag;
  } else if (name == "Online") {
    mOnline = value.flag;
  } else if (name == "Interfaces") {
    mHasVoice = std::count(value.list.begin(), value.list.end(), "org.ofono.VoiceCallManager") > 0;
    bool network = std::count(value.list.begin(), value.list.end(), "org.ofono.NetworkRegistration") > 0;
    if (network && mRegistration.empty()) readNetwork(bus);
    if (!network) mRegistration.clear(), mStrength = 0;
    reportAntenna();
  }
  bringUp(bus);
  reportStatus();
}

void EmbeddedPhone::readNetwork(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  std::string why;
  if (!call(bus, mModem, "org.ofono.NetworkRegistration", "GetProperties", &reply, why)) return;
  auto properties = readProperties(reply);
  sd_bus_message_unref(reply);
  mRegistration = properties["Status"].text;
  mStrength = properties["Strength"].number;
  reportAntenna();
}

void EmbeddedPhone::reportStatus() {
  if (phoneOn() == mReportedOn) return;
  mReportedOn = phoneOn();
  Json::Value data(Json::objectValue);
  data["embeddedPhoneStatus"]["status"] = mReportedOn;
  emit("embeddedPhoneStatus", data);
}

// The modem hears a network: the antenna works. Without a network nothing
// can be told about the antenna (a tunnel looks the same as a cut cable),
// so the answer says so and the service keeps its last judgement.
bool EmbeddedPhone::antennaKnown() const {
  return mRegistration == "registered" || mRegistration == "roaming" || mRegistration == "denied" || mStrength > 0;
}

Json::Value EmbeddedPhone::antennaReply() const {
  Json::Value reply(Json::objectValue);
  reply["description"] = antennaKnown() ? "success" : "no network heard";
  reply["status"] = antennaKnown() ? "PHONE_DIAG_ANTENNA_NORMAL" : "not found";
  return reply;
}

void EmbeddedPhone::reportAntenna() {
  if (antennaKnown() == mReportedAntenna) return;
  mReportedAntenna = antennaKnown();
  emit("antennaStatus", antennaReply());
}

// 1: the emergency call the service placed; 2: a call coming in while the
// emergency centre may call back (oFono marks a call from an emergency
// number, and any call within the call-back period counts); 0: other calls.
int EmbeddedPhone::callType(const Call& call) const {
  if (!call.incoming) return call.emergency ? 1 : 0;
  if (call.emergency) return 2;
  const auto period = std::chrono::minutes(mConfig.callbackMinutes);
  return mHadEmergency && std::chrono::steady_clock::now() - mLastEmergency < period ? 2 : 0;
}

void EmbeddedPhone::callChanged(const std::string& path, Call& call) {
  if (call.reported) return;
  // A test call is the service's own call, but no emergency: the centre
  // does not call back after it.
  const bool testCall = mDialledTest && !call.incoming && call.number == mDialled;
  if (!testCall && (call.emergency || callType(call) != 0)) {
    mHadEmergency = true;
    mLastEmergency = std::chrono::steady_clock::now();
  }
  Json::Value info(Json::objectValue);
  info["callState"] = callStateName(call.state);
  info["number"] = call.number;
  info["callType"] = callType(call);
  Json::Value data(Json::objectValue);
  data["callStateInfo"].append(info);
  if (info["callState"].asString() == "CALL_STATE_TERMINATED") call.reported = true;
  emit("callState", data);
}

BusService::Answer EmbeddedPhone::answer(const std::string& method, const Json::Value& params) {
  if (method == "ecallDial") return dial(params);
  if (method == "endActiveCall") return hangUp();
  if (method == "acceptIncomingCall") return acceptIncoming();
  if (method == "getEmergencyNumbers") return emergencyNumbers();
  if (method == "sendMsd") return sendMsd(params);
  if (method == "getProperties") {
    Json::Value reply(Json::objectValue);
    reply["embeddedPhoneStatus"]["status"] = mBus.use([&](sd_bus*) { return phoneOn(); });
    return result(reply);
  }
  if (method == "getAntennaStatus") return result(mBus.use([&](sd_bus*) { return antennaReply(); }));
  // oFono offers no raw AT channel and no view of the module's USB ports.
  if (method == "debugAT" || method == "getUsbPorts") return error(method + " is not available through oFono");
  return error("unknown method " + method);
}

BusService::Answer EmbeddedPhone::dial(const Json::Value& params) {
  const std::string number = params.isObject() ? params.get("address", "").asString() : "";
  if (number.empty()) return error("no address to dial");
  if (params.isMember("msd")) return dialEcall(number, params);
  return mBus.use([&](sd_bus* bus) {
    if (!phoneOn()) return error("embedded phone is off");
    sd_bus_message* reply = nullptr;
    std::string why;
    mDialled = number;
    mDialledTest = params["callType"].isString() && params["callType"].asString() == "TEST";
    mEcallExpected = false;
    if (!call(bus, mModem, "org.ofono.VoiceCallManager", "Dial", &reply, why, "ss", number.c_str(), ""))
      return error("dial failed: " + why);
    sd_bus_message_unref(reply);
    return ok();
  });
}

// Whatever keeps the modem from placing the European call (no channel, a
// channel that fails, refuses or does not answer, an MSD that is no hex)
// makes it a plain emergency call through oFono: the centre gets the voice
// without the data rather than no call.
BusService::Answer EmbeddedPhone::dialEcall(const std::string& number, const Json::Value& params) {
  const Json::Value& kindValue = params["ecallKind"];
  const std::string kind = kindValue.isString() ? kindValue.asString() : "";
  const int type = kind == "manual" ? 2 : kind == "test" ? 0 : 3;  // an emergency unless told otherwise
  const bool on = mBus.use([&](sd_bus*) {
    mDialled = number;
    mDialledTest = kind == "test";
    return mEcallExpected = phoneOn();
  });
  if (!on) return error("embedded phone is off");
  std::string msd, why = "no ecallChannel";
  if (mEcall && !msdHex(params, msd)) why = "the MSD is not hex";
  if (mEcall && !msd.empty() && mEcall->command(filled(mConfig.msdLoadCommand, "%s", msd), kAtBound, why) &&
      mEcall->command(filled(mConfig.ecallCommand, "%d", std::to_string(type)), kAtBound, why)) {
    logLine("EmbeddedPhone: eCall " + std::to_string(type) + " placed with an MSD of " + std::to_string(msd.size() / 2) +
            " octets");
    return ok();
  }
  return mBus.use([&](sd_bus* bus) {
    // The modem placed it after all, and oFono has shown it.
    if (!mEcallExpected) return ok();
    mEcallExpected = false;
    logLine("EmbeddedPhone: the modem did not place the eCall (" + why + "): dialling " + number + " without the MSD");
    sd_bus_message* reply = nullptr;
    if (!call(bus, mModem, "org.ofono.VoiceCallManager", "Dial", &reply, why, "ss", number.c_str(), ""))
      return error("dial failed: " + why);
    sd_bus_message_unref(reply);
    return ok();
  });
}

// The centre asked for a fresh MSD: the modem sends what it was loaded with.
BusService::Answer EmbeddedPhone::sendMsd(const Json::Value& params) {
  std::string msd, why;
  if (!msdHex(params, msd)) return error("no MSD in hex");
  if (!mEcall) return error("no ecallChannel");
  if (!mEcall->command(filled(mConfig.msdLoadCommand, "%s", msd), kAtBound, why)) return error("MSD not loaded: " + why);
  return ok();
}

BusService::Answer EmbeddedPhone::hangUp() {
  return mBus.use([&](sd_bus* bus) {
    std::string why;
    if (!mModem.empty() && !mCalls.empty() && !call(bus, mModem, "org.ofono.VoiceCallManager", "HangupAll", nullptr, why))
      return error("hang-up failed: " + why);
    return ok();
  });
}

BusService::Answer EmbeddedPhone::acceptIncoming() {
  return mBus.use([&](sd_bus* bus) {
    for (const auto& [path, callInfo] : mCalls) {
      if (callInfo.state != "incoming" && callInfo.state != "waiting") continue;
      std::string why;
      if (!call(bus, path, "org.ofono.VoiceCall", "Answer", nullptr, why)) return error("answer failed: " + why);
      return ok();
    }
    return error("no incoming call");
  });
}

// The market's emergency number first (the service dials the first), then
// the others the modem knows. A phone that is off cannot be read.
BusService::Answer EmbeddedPhone::emergencyNumbers() {
  Json::Value reply(Json::objectValue);
  Json::Value list(Json::arrayValue);
  bool on = mBus.use([&](sd_bus* bus) {
    if (!phoneOn()) return false;
    sd_bus_message* answer = nullptr;
    std::string why;
    if (!call(bus, mModem, "org.ofono.VoiceCallManager", "GetProperties", &answer, why)) return false;
    auto properties = readProperties(answer);
    sd_bus_message_unref(answer);
    list.append(mConfig.emergencyNumber);
    for (const auto& number : properties["EmergencyNumbers"].list)
      if (number != mConfig.emergencyNumber) list.append(number);
    return true;
  });
  reply["code"] = on ? 0 : 1;
  reply["count"] = static_cast<int>(list.size());
  reply["numberList"] = list;
  return result(reply);
}

}  // namespace headunit
