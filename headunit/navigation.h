// NDR, the navigation service, on gpsd: the position query answers the
// latest fix in millionths of a degree. Without a fix (no receiver, no sky,
// gpsd gone) it answers a position of zero, which the service takes as "no
// position": the operator then hears that the location is not available.
//
// A thread follows gpsd through libgps, sleeping in poll() on gpsd's socket;
// when gpsd is not there it tries again every few seconds.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "busService.h"
#include "config.h"

namespace headunit {

class Navigation : public BusService {
 public:
  explicit Navigation(const Config& config) : BusService("NDR"), mConfig(config) {}
  ~Navigation() override { stop(); }
  void start();
  void stop();

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  void run();
  // Follows one gpsd session until it ends or the bridge stops.
  void follow();
  const Config& mConfig;
  std::mutex mMutex;
  std::condition_variable mStopped;
  bool mFix = false;
  int32_t mLatitude = 0, mLongitude = 0;
  int mStopFd = -1;
  std::atomic<bool> mStopping{false};
  std::thread mThread;
};

}  // namespace headunit
