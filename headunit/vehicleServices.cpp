#include "vehicleServices.h"

namespace headunit {

BusService::Answer VehicleConfigService::answer(const std::string& method, const Json::Value&) {
  if (method != "getProperties") return error("unknown method " + method);
  Json::Value reply(Json::objectValue);
  reply["vehicleBrand"] = mConfig.brand;
  return result(reply);
}

BusService::Answer VehicleStatusService::answer(const std::string& method, const Json::Value&) {
  if (method != "getProperties") return error("unknown method " + method);
  Json::Value reply(Json::objectValue);
  reply["language"] = mConfig.language;
  return result(reply);
}

BusService::Answer PlatformService::answer(const std::string& method, const Json::Value&) {
  Json::Value reply(Json::objectValue);
  if (method == "get_variantinfo")
    reply["VARIANT_ECELL"] = mConfig.embeddedPhone ? "YES" : "NO";
  else if (method == "get_all_versions")
    reply["app_version"] = mConfig.softwareVersion;
  else
    return error("unknown method " + method);
  return result(reply);
}

}  // namespace headunit
