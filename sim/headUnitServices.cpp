#include "headUnitServices.h"

#include <cmath>
#include <sstream>

#include "platform/runtime.h"

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
    reply["market"] = mContext.settings.market();
    if (const auto& vin = mVehicle["vin"]) reply["vin"] = *vin;
    if (const auto& category = mVehicle["category"]) reply["vehicleCategory"] = *category;
    if (const auto& propulsion = mVehicle["propulsion"]) {
      reply["propulsion"] = Json::Value(Json::arrayValue);
      std::istringstream names(*propulsion);
      for (std::string name; std::getline(names, name, ',');) reply["propulsion"].append(name);
    }
    return result(reply);
  }
  return error("unknown method " + method);
}

std::string VehicleConfigService::setVehicle(const std::string& what, const std::optional<std::string>& value) {
  std::lock_guard<std::mutex> lock(mMutex);
  mVehicle[what] = value;
  return "ok " + what + " " + value.value_or("not configured");
}

std::string VehicleConfigService::setBrand(int brand) {
  std::lock_guard<std::mutex> lock(mMutex);
  mBrand = brand;
  return "ok brand " + std::to_string(brand);
}

std::string VehicleConfigService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  const auto number = mContext.settings.testNumber();
  std::string text = "brand=" + std::to_string(mBrand) +
                     " testnumber=" + (!number ? "none" : number->empty() ? "empty" : *number) +
                     " market=" + mContext.settings.market();
  for (const auto& [what, value] : mVehicle) text += " " + what + "=" + value.value_or("none");
  return text;
}

SimService::Answer VehicleStatusService::answer(const std::string& method, const Json::Value&) {
  if (method == "getProperties") {
    std::lock_guard<std::mutex> lock(mMutex);
    Json::Value reply(Json::objectValue);
    reply["language"] = mContext.settings.language();
    if (mSeatBelts) reply["seatBeltsFastened"] = *mSeatBelts;
    return result(reply);
  }
  return error("unknown method " + method);
}

std::string VehicleStatusService::setSeatBelts(std::optional<int> fastened) {
  std::lock_guard<std::mutex> lock(mMutex);
  mSeatBelts = fastened;
  return "ok seat belts fastened " + (fastened ? std::to_string(*fastened) : std::string("unknown"));
}

std::string VehicleStatusService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return "language=" + mContext.settings.language() +
         " belts=" + (mSeatBelts ? std::to_string(*mSeatBelts) : std::string("unknown"));
}

// --- Navigation ------------------------------------------------------------

// A drive is a straight line on a sphere of the earth's mean radius: good
// to far better than a metre over the few hundred metres of a history.
constexpr double kMetresPerDegree = 6371000.0 * M_PI / 180.0;
constexpr double kHistorySeconds = 2;  // the car's positions 2 s and 4 s ago

double NavigationService::sinceStartLocked() const {
  return (monotonicSeconds() - mStartedAt) / platform::timeScale();
}

Json::Value NavigationService::positionLocked(double carSeconds) const {
  const double metres = mMetresPerSecond * (sinceStartLocked() + carSeconds);
  const double heading = mHeading * M_PI / 180.0;
  const double latitude = mLatitude / 1e6 + metres * std::cos(heading) / kMetresPerDegree;
  const double longitude =
      mLongitude / 1e6 + metres * std::sin(heading) / (kMetresPerDegree * std::cos(mLatitude / 1e6 * M_PI / 180.0));
  Json::Value position(Json::objectValue);
  position["DR_latitude"] = static_cast<Json::Int>(std::llround(latitude * 1e6));
  position["DR_longitude"] = static_cast<Json::Int>(std::llround(longitude * 1e6));
  return position;
}

SimService::Answer NavigationService::answer(const std::string& method, const Json::Value&) {
  if (method == "JSON_GetProperties") {
    std::lock_guard<std::mutex> lock(mMutex);
    // Without a fix the navigation reports the position as zero.
    Json::Value reply(Json::objectValue);
    Json::Value& now = reply["outprop"]["POS_Position"];
    now = mFix ? positionLocked(0) : Json::Value(Json::objectValue);
    if (!mFix) now["DR_latitude"] = now["DR_longitude"] = 0;
    if (!mFix) return result(reply);
    now["DR_trusted"] = true;
    if (mMetresPerSecond > 0) now["DR_heading"] = static_cast<int>(std::lround(mHeading)) % 360;
    for (int i = 1; i <= 2; ++i) reply["outprop"]["POS_History"].append(positionLocked(-i * kHistorySeconds));
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
    mStartedAt = monotonicSeconds();
  }
  return hasFix ? "ok position " + std::to_string(latitude) + " " + std::to_string(longitude) : "ok no GPS fix";
}

std::string NavigationService::setDrive(double heading, double kmh) {
  std::lock_guard<std::mutex> lock(mMutex);
  const Json::Value here = positionLocked(0);
  mLatitude = here["DR_latitude"].asInt();
  mLongitude = here["DR_longitude"].asInt();
  mStartedAt = monotonicSeconds();
  mHeading = std::fmod(std::fmod(heading, 360.0) + 360.0, 360.0);
  mMetresPerSecond = kmh / 3.6;
  if (kmh <= 0) return "ok the car stands";
  return "ok driving at " + std::to_string(std::lround(kmh)) + " km/h, heading " +
         std::to_string(std::lround(mHeading)) + " degrees";
}

std::string NavigationService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mFix) return "gps=none";
  const Json::Value now = positionLocked(0);
  std::string text = "gps=" + std::to_string(now["DR_latitude"].asInt()) + "," + std::to_string(now["DR_longitude"].asInt());
  if (mMetresPerSecond > 0)
    text += " drive=" + std::to_string(std::lround(mHeading)) + "/" + std::to_string(std::lround(mMetresPerSecond * 3.6));
  return text;
}

}  // namespace sim
