// NDR, the navigation service, on gpsd: the position query answers the
// latest fix in millionths of a degree. Without a fix (no receiver, no sky,
// gpsd gone) it answers a position of zero, which the service takes as "no
// position": the operator then hears that the location is not available.
//
// With the fix come what the European call's data needs:
// - the heading ("DR_heading", degrees clockwise from true north): gpsd's
//   track while the car moves at 1 m/s or more (slower, a receiver's track
//   wanders), kept while it stands (a car after a crash stands still, and
//   faces where it went) until the fix is lost;
// - whether the position can be trusted ("DR_trusted"): a 2D or 3D fix
//   whose horizontal error estimate from gpsd is 150 m or less; without an
//   estimate it cannot be told, and is not trusted;
// - the earlier positions ("POS_History", newest first): from a ring of the
//   last 6 s of fixes by gpsd's time, the ones nearest 2 s and 4 s before the
//   newest (within a second of that, the second older than the first); a
//   gap in the reports leaves them out, and a clock that goes back empties
//   the ring.
//
// A thread follows gpsd through libgps, sleeping in poll() on gpsd's socket;
// gpsd's reports drive everything. When gpsd is not there the thread tries
// again every few seconds.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
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
  struct Fix {
    double time;  // gpsd's, in seconds
    int32_t latitude, longitude;
  };
  void run();
  // Follows one gpsd session until it ends or the bridge stops.
  void follow();
  void remember(const Fix& fix);
  Json::Value history() const;
  const Config& mConfig;
  std::mutex mMutex;
  std::condition_variable mStopped;
  bool mFix = false, mTrusted = false;
  int32_t mLatitude = 0, mLongitude = 0;
  std::optional<int> mHeading;
  std::deque<Fix> mRecent;  // oldest first
  int mStopFd = -1;
  std::atomic<bool> mStopping{false};
  std::thread mThread;
};

}  // namespace headunit
