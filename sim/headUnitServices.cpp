#include "headUnitServices.h"

namespace sim {

namespace {
std::string member(const Json::Value& params, const char* name) {
  return params.isObject() ? params.get(name, "").asString() : "";
}
}  // namespace

// --- Bluetooth -------------------------------------------------------------

SimService::Answer BluetoothService::answer(const std::string& method, const Json::Value& params) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (method == "switchBluetoothOff") {
    // Switching Bluetooth off drops the hands-free call.
    if (mCallActive) callStateLocked(false);
    mEnabled = false;
    return ok();
  }
  if (method == "setBluetoothStatus") {
    if (!params.isObject() || !params["enable"].isBool()) return error("setBluetoothStatus needs \"enable\"");
    mEnabled = params["enable"].asBool();
    if (!mEnabled && mCallActive) callStateLocked(false);
    return ok();
  }
  return error("unknown method " + method);
}

void BluetoothService::callStateLocked(bool active) {
  mCallActive = active;
  if (active)
    mPsse.setScenario("BT_HFP");
  else if (mPsse.scenario() == "BT_HFP")
    mPsse.setScenario("");
  Json::Value info(Json::objectValue);
  info["callState"] = active ? "active" : "idle";
  Json::Value data(Json::objectValue);
  data["callStateInfo"].append(info);
  emitLater(0, "callState", jsonText(data));
}

std::string BluetoothService::setCallActive(bool active) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (active && !mEnabled) return "error Bluetooth is off";
  callStateLocked(active);
  return active ? "ok Bluetooth call active" : "ok Bluetooth call idle";
}

std::string BluetoothService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return std::string("bt=") + (mEnabled ? "on" : "off") + " btcall=" + (mCallActive ? "active" : "idle");
}

// --- Application manager ---------------------------------------------------

SimService::Answer AppManagerService::answer(const std::string& method, const Json::Value& params) {
  if (method == "stopApp") {
    std::string appId = member(params, "appId");
    if (appId.empty()) return error("stopApp needs \"appId\"");
    stopApp(appId);
    return ok();
  }
  return error("unknown method " + method);
}

std::string AppManagerService::operStatusData(const std::string& appId, const char* state) const {
  Json::Value data(Json::objectValue);
  data["appId"] = appId;
  data["state"] = state;
  return jsonText(data);
}

std::string AppManagerService::appSignalData(const std::string& appId) const {
  Json::Value data(Json::objectValue);
  data["appId"] = appId;
  data["errorCode"] = 0;
  return jsonText(data);
}

void AppManagerService::completeLater(const std::string& appId, uint64_t generation, bool started) {
  mContext.scheduler.after(100, [this, appId, generation, started] {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      if (mLastChange[appId] != generation) return;
    }
    emit("operStatus", operStatusData(appId, started ? "running" : "stopped"));
    emit(started ? "appStarted" : "appStopped", appSignalData(appId));
  });
}

std::string AppManagerService::startApp(const std::string& appId) {
  uint64_t generation;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning.insert(appId).second) return "error " + appId + " is running";
    generation = mLastChange[appId] = ++mGeneration;
  }
  emitLater(0, "operStatus", operStatusData(appId, "initializing"));
  completeLater(appId, generation, true);
  return "ok starting " + appId;
}

std::string AppManagerService::stopApp(const std::string& appId) {
  uint64_t generation;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mRunning.erase(appId) == 0) return "error " + appId + " is not running";
    generation = mLastChange[appId] = ++mGeneration;
  }
  emitLater(0, "operStatus", operStatusData(appId, "stopping"));
  completeLater(appId, generation, false);
  return "ok stopping " + appId;
}

std::string AppManagerService::rawSignal(const std::string& signal, const std::string& json) {
  emitLater(0, signal, json);
  return "ok " + signal + " " + json;
}

std::string AppManagerService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return "apps=" + std::to_string(mRunning.size()) + (mRunning.count(kAssistApp) ? " assist=running" : " assist=stopped");
}

// --- HMI gateway ------------------------------------------------------------

SimService::Answer HmiGatewayService::answer(const std::string& method, const Json::Value& params) {
  if (method == "displayGlobalPopupByMsgId") return ok();
  return error("unknown method " + method);
}

std::string HmiGatewayService::describe(const std::string& method, const std::string& params) const {
  Json::Value parsed;
  if (method == "displayGlobalPopupByMsgId" && jsonParse(params, parsed) && parsed.isObject())
    return "screen shows pop-up " + std::to_string(parsed.get("msgId", 0).asInt());
  return SimService::describe(method, params);
}

// --- Platform ---------------------------------------------------------------

SimService::Answer PlatformService::answer(const std::string& method, const Json::Value&) {
  if (method == "get_variantinfo") {
    std::lock_guard<std::mutex> lock(mMutex);
    Json::Value reply(Json::objectValue);
    if (!mVariant.empty()) reply["VARIANT_ECELL"] = mVariant;
    return result(reply);
  }
  if (method == "get_all_versions") {
    Json::Value reply(Json::objectValue);
    reply["app_version"] = "HU-24.18.3";
    return result(reply);
  }
  return error("unknown method " + method);
}

std::string PlatformService::setVariant(const std::string& value) {
  std::lock_guard<std::mutex> lock(mMutex);
  mVariant = value;
  return "ok variant " + (value.empty() ? std::string("not reported") : value);
}

std::string PlatformService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return "variant=" + (mVariant.empty() ? std::string("none") : mVariant);
}

// --- Vehicle configuration and status ------------------------------------

SimService::Answer VehicleConfigService::answer(const std::string& method, const Json::Value&) {
  if (method == "getProperties") {
    std::lock_guard<std::mutex> lock(mMutex);
    Json::Value reply(Json::objectValue);
    reply["vehicleBrand"] = mBrand;
    if (const auto number = mContext.settings.testNumber()) reply["testNumber"] = *number;
    return result(reply);
  }
  return error("unknown method " + method);
}

std::string VehicleConfigService::setBrand(int brand) {
  std::lock_guard<std::mutex> lock(mMutex);
  mBrand = brand;
  return "ok brand " + std::to_string(brand);
}

std::string VehicleConfigService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  const auto number = mContext.settings.testNumber();
  return "brand=" + std::to_string(mBrand) + " testnumber=" + (!number ? "none" : number->empty() ? "empty" : *number);
}

SimService::Answer VehicleStatusService::answer(const std::string& method, const Json::Value&) {
  if (method == "getProperties") {
    Json::Value reply(Json::objectValue);
    reply["language"] = mContext.settings.language();
    return result(reply);
  }
  return error("unknown method " + method);
}

std::string VehicleStatusService::status() const { return "language=" + mContext.settings.language(); }

// --- Navigation ------------------------------------------------------------

SimService::Answer NavigationService::answer(const std::string& method, const Json::Value&) {
  if (method == "JSON_GetProperties") {
    std::lock_guard<std::mutex> lock(mMutex);
    // Without a fix the navigation reports the position as zero.
    Json::Value reply(Json::objectValue);
    reply["outprop"]["POS_Position"]["DR_latitude"] = mFix ? mLatitude : 0;
    reply["outprop"]["POS_Position"]["DR_longitude"] = mFix ? mLongitude : 0;
    return result(reply);
  }
  return error("unknown method " + method);
}

std::string NavigationService::setPosition(bool hasFix, int32_t latitude, int32_t longitude) {
  std::lock_guard<std::mutex> lock(mMutex);
  mFix = hasFix;
  if (hasFix) {
    mLatitude = latitude;
    mLongitude = longitude;
  }
  return hasFix ? "ok position " + std::to_string(latitude) + " " + std::to_string(longitude) : "ok no GPS fix";
}

std::string NavigationService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mFix) return "gps=none";
  return "gps=" + std::to_string(mLatitude) + "," + std::to_string(mLongitude);
}

}  // namespace sim
