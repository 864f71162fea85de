#include "navigation.h"

#include <gps.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cmath>

namespace headunit {

namespace {
const auto kRetry = std::chrono::seconds(3);  // gpsd may come after the bridge
}

void Navigation::start() {
  mStopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  mThread = std::thread([this] { run(); });
}

void Navigation::stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping.store(true);
  }
  mStopped.notify_all();
  if (mStopFd >= 0) {
    uint64_t one = 1;
    (void)!write(mStopFd, &one, sizeof one);
  }
  if (mThread.joinable()) mThread.join();
  if (mStopFd >= 0) close(mStopFd);
  mStopFd = -1;
}

void Navigation::run() {
  while (!mStopping.load()) {
    follow();
    std::unique_lock<std::mutex> lock(mMutex);
    mFix = false;
    mStopped.wait_for(lock, kRetry, [this] { return mStopping.load(); });
  }
}

void Navigation::follow() {
  struct gps_data_t gps {};
  if (gps_open(mConfig.gpsdHost.c_str(), mConfig.gpsdPort.c_str(), &gps) != 0) return;
  logLine("NDR: following gpsd at " + mConfig.gpsdHost + ":" + mConfig.gpsdPort);
  gps_stream(&gps, WATCH_ENABLE | WATCH_JSON, nullptr);
  while (!mStopping.load()) {
    struct pollfd fds[2] = {{static_cast<int>(gps.gps_fd), POLLIN, 0}, {mStopFd, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
    if (fds[1].revents || gps_read(&gps, nullptr, 0) < 0) break;
    if (!(gps.set & MODE_SET)) continue;
    const bool fix = gps.fix.mode >= MODE_2D && std::isfinite(gps.fix.latitude) && std::isfinite(gps.fix.longitude);
    std::lock_guard<std::mutex> lock(mMutex);
    if (fix != mFix) logLine(fix ? "NDR: position fixed" : "NDR: position lost");
    mFix = fix;
    if (fix) {
      mLatitude = static_cast<int32_t>(std::lround(gps.fix.latitude * 1e6));
      mLongitude = static_cast<int32_t>(std::lround(gps.fix.longitude * 1e6));
    }
  }
  gps_stream(&gps, WATCH_DISABLE, nullptr);
  gps_close(&gps);
}

BusService::Answer Navigation::answer(const std::string& method, const Json::Value&) {
  if (method != "JSON_GetProperties") return error("unknown method " + method);
  std::lock_guard<std::mutex> lock(mMutex);
  Json::Value reply(Json::objectValue);
  reply["outprop"]["POS_Position"]["DR_latitude"] = mFix ? mLatitude : 0;
  reply["outprop"]["POS_Position"]["DR_longitude"] = mFix ? mLongitude : 0;
  return result(reply);
}

}  // namespace headunit
