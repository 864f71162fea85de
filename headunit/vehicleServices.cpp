#include "vehicleServices.h"

namespace headunit {

namespace {
std::string member(const char* name, const Json::Value& value) {
  Json::Value reply(Json::objectValue);
  reply[name] = value;
  return jsonText(reply);
}

// The brand, the test number when one is configured, and the car's
// identity for the European call's data where the file gives it: a car
// configured as before answers as before.
std::string vehicleConfig(const Config& config) {
  Json::Value reply(Json::objectValue);
  reply["vehicleBrand"] = config.brand;
  if (!config.testNumber.empty()) reply["testNumber"] = config.testNumber;
  if (config.market) reply["market"] = *config.market;
  if (config.vin) reply["vin"] = *config.vin;
  if (config.vehicleCategory) reply["vehicleCategory"] = *config.vehicleCategory;
  if (config.propulsion) {
    Json::Value& list = reply["propulsion"] = Json::Value(Json::arrayValue);
    for (const auto& kind : *config.propulsion) list.append(kind);
  }
  return jsonText(reply);
}

std::string vehicleStatus(const Config& config) {
  Json::Value reply(Json::objectValue);
  reply["language"] = config.language;
  if (config.seatBelts) reply["seatBeltsFastened"] = *config.seatBelts;
  return jsonText(reply);
}
}  // namespace

FixedServices vehicleServices(const Config& config) {
  FixedServices services;
  services.push_back(std::make_unique<FixedService>(
      "VehicleConfig", std::map<std::string, std::string>{{"getProperties", vehicleConfig(config)}}));
  services.push_back(std::make_unique<FixedService>(
      "VehicleStatus", std::map<std::string, std::string>{{"getProperties", vehicleStatus(config)}}));
  services.push_back(std::make_unique<FixedService>(
      "platform", std::map<std::string, std::string>{
                      {"get_variantinfo", member("VARIANT_ECELL", config.embeddedPhone ? "YES" : "NO")},
                      {"get_all_versions", member("app_version", config.softwareVersion)}}));
  return services;
}

}  // namespace headunit
