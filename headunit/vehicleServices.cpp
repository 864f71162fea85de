#include "vehicleServices.h"

namespace headunit {

namespace {
std::string member(const char* name, const Json::Value& value) {
  Json::Value reply(Json::objectValue);
  reply[name] = value;
  return jsonText(reply);
}
}  // namespace

FixedServices vehicleServices(const Config& config) {
  FixedServices services;
  // The brand, and the test number when one is configured.
  Json::Value vehicleConfig(Json::objectValue);
  vehicleConfig["vehicleBrand"] = config.brand;
  if (!config.testNumber.empty()) vehicleConfig["testNumber"] = config.testNumber;
  services.push_back(std::make_unique<FixedService>(
      "VehicleConfig", std::map<std::string, std::string>{{"getProperties", jsonText(vehicleConfig)}}));
  services.push_back(std::make_unique<FixedService>(
      "VehicleStatus", std::map<std::string, std::string>{{"getProperties", member("language", config.language)}}));
  services.push_back(std::make_unique<FixedService>(
      "platform", std::map<std::string, std::string>{
                      {"get_variantinfo", member("VARIANT_ECELL", config.embeddedPhone ? "YES" : "NO")},
                      {"get_all_versions", member("app_version", config.softwareVersion)}}));
  return services;
}

}  // namespace headunit
