// The other head-unit services the emergency call service talks to:
// Bluetooth (the hands-free phone and its calls), the application manager
// (the Assist application), the HMI gateway (pop-ups), the platform service
// (variant and software versions), the vehicle configuration (brand, market
// and the vehicle as the MSD names it), the vehicle status (language, seat
// belts) and the navigation service (position, heading, earlier positions).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
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
  // "vin", "category" or "propulsion" (a comma-separated list) as the
  // configuration answers it; none leaves the member out.
  std::string setVehicle(const std::string& what, const std::optional<std::string>& value);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  int mBrand = 1;
  std::map<std::string, std::optional<std::string>> mVehicle{
      {"vin", "CRV1E23C4N5000017"}, {"category", "M1"}, {"propulsion", "gasoline"}};
};

class VehicleStatusService : public SimService {
 public:
  explicit VehicleStatusService(SimContext& context) : SimService(context, "VehicleStatus") {}
  // The fastened seat belts; none: the car does not know.
  std::string setSeatBelts(std::optional<int> fastened);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  std::optional<int> mSeatBelts = 1;  // the driver's
};

class NavigationService : public SimService {
 public:
  explicit NavigationService(SimContext& context) : SimService(context, "NDR") {}
  // Millionths of a degree; hasFix false reports no position. A car that
  // drives goes on from there.
  std::string setPosition(bool hasFix, int32_t latitude, int32_t longitude);
  // The car drives on from where it is along a straight line, heading in
  // degrees clockwise from north, at kmh (0: it stands, with no heading).
  std::string setDrive(double heading, double kmh);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  // The position in millionths of a degree, carSeconds of the car's time
  // after now (negative: before); caller holds mMutex.
  Json::Value positionLocked(double carSeconds) const;
  // The car's time in seconds since the drive's start point.
  double sinceStartLocked() const;

  mutable std::mutex mMutex;
  bool mFix = true;
  int32_t mLatitude = 42331427;   // a parking lot by the river
  int32_t mLongitude = -83045754;
  double mHeading = 0;
  double mMetresPerSecond = 0;
  double mStartedAt = 0;  // monotonicSeconds() at the start point
};

}  // namespace sim
