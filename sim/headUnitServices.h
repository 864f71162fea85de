// The other head-unit services the emergency call service talks to:
// Bluetooth (the hands-free phone and its calls), the application manager
// (the Assist application), the HMI gateway (pop-ups), the platform service
// (variant and software versions), the vehicle configuration (brand), the
// vehicle status (language) and the navigation service (position).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "audioServices.h"
#include "simService.h"

namespace sim {

class BluetoothService : public SimService {
 public:
  BluetoothService(SimContext& context, PsseService& psse) : SimService(context, "BluetoothService"), mPsse(psse) {}
  // A hands-free call on the Bluetooth phone starts or ends.
  std::string setCallActive(bool active);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  // Caller holds mMutex.
  void callStateLocked(bool active);

  PsseService& mPsse;
  mutable std::mutex mMutex;
  bool mEnabled = true;
  bool mCallActive = false;
};

class AppManagerService : public SimService {
 public:
  explicit AppManagerService(SimContext& context) : SimService(context, "AppManager") {}
  // The application starts (initializing, then running) or stops.
  std::string startApp(const std::string& appId);
  std::string stopApp(const std::string& appId);
  // Emits one of the manager's signals with a JSON text as given.
  std::string rawSignal(const std::string& signal, const std::string& json);
  std::string status() const override;

  static constexpr const char* kAssistApp = "3305261F-B524-4E27-8048-C5778A672389";

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  std::string operStatusData(const std::string& appId, const char* state) const;
  std::string appSignalData(const std::string& appId) const;
  // The application's start or stop completes later, unless another start or
  // stop of it came in between.
  void completeLater(const std::string& appId, uint64_t generation, bool started);

  mutable std::mutex mMutex;
  std::set<std::string> mRunning;
  std::map<std::string, uint64_t> mLastChange;  // application -> its latest start or stop
  uint64_t mGeneration = 0;
};

class HmiGatewayService : public SimService {
 public:
  explicit HmiGatewayService(SimContext& context) : SimService(context, "HMIGateWay") {}

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;
  std::string describe(const std::string& method, const std::string& params) const override;
};

class PlatformService : public SimService {
 public:
  explicit PlatformService(SimContext& context) : SimService(context, "platform") {}
  // "YES", "NO", any text, or empty for an answer without the member.
  std::string setVariant(const std::string& value);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  std::string mVariant = "YES";
};

class VehicleConfigService : public SimService {
 public:
  explicit VehicleConfigService(SimContext& context) : SimService(context, "VehicleConfig") {}
  std::string setBrand(int brand);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  int mBrand = 1;
};

class VehicleStatusService : public SimService {
 public:
  explicit VehicleStatusService(SimContext& context) : SimService(context, "VehicleStatus") {}
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;
};

class NavigationService : public SimService {
 public:
  explicit NavigationService(SimContext& context) : SimService(context, "NDR") {}
  // Millionths of a degree; hasFix false reports no position.
  std::string setPosition(bool hasFix, int32_t latitude, int32_t longitude);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  bool mFix = true;
  int32_t mLatitude = 42331427;   // a parking lot by the river
  int32_t mLongitude = -83045754;
};

}  // namespace sim
