// The services that tell ecallService what car it is in, answered from the
// configuration file: the vehicle configuration (brand), the vehicle status
// (language) and the platform (whether the variant has the embedded phone,
// the software version).
#pragma once

#include "busService.h"
#include "config.h"

namespace headunit {

class VehicleConfigService : public BusService {
 public:
  explicit VehicleConfigService(const Config& config) : BusService("VehicleConfig"), mConfig(config) {}

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  const Config& mConfig;
};

class VehicleStatusService : public BusService {
 public:
  explicit VehicleStatusService(const Config& config) : BusService("VehicleStatus"), mConfig(config) {}

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  const Config& mConfig;
};

class PlatformService : public BusService {
 public:
  explicit PlatformService(const Config& config) : BusService("platform"), mConfig(config) {}

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  const Config& mConfig;
};

}  // namespace headunit
