#include "navigation.h"

#include <gps.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cmath>

namespace headunit {

namespace {
const auto kRetry = std::chrono::seconds(3);  // gpsd may come after the bridge
const double kMovingSpeed = 1.0;              // m/s
const double kTrustedError = 150.0;           // m
const double kKeptSeconds = 6.0;
const size_t kKeptFixes = 64;  // 10 reports a second and more are cut here

int32_t millionths(double degrees) { return static_cast<int32_t>(std::lround(degrees * 1e6)); }

bool trusted(const gps_fix_t& fix) {
  double error = fix.eph;
  if (!std::isfinite(error) && std::isfinite(fix.epx) && std::isfinite(fix.epy)) error = std::hypot(fix.epx, fix.epy);
  return std::isfinite(error) && error <= kTrustedError;
}
}  // namespace

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
    mFix = mTrusted = false;
    mHeading.reset();
    mRecent.clear();
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
    mTrusted = fix && trusted(gps.fix);
    if (!fix) {
      mHeading.reset();
      mRecent.clear();
      continue;
    }
    mLatitude = millionths(gps.fix.latitude);
    mLongitude = millionths(gps.fix.longitude);
    if (std::isfinite(gps.fix.track) && std::isfinite(gps.fix.speed) && gps.fix.speed >= kMovingSpeed)
      mHeading = static_cast<int>(std::lround(std::fmod(std::fmod(gps.fix.track, 360.0) + 360.0, 360.0))) % 360;
    if (gps.set & TIME_SET)
      remember({static_cast<double>(gps.fix.time.tv_sec) + gps.fix.time.tv_nsec / 1e9, mLatitude, mLongitude});
  }
  gps_stream(&gps, WATCH_DISABLE, nullptr);
  gps_close(&gps);
}

void Navigation::remember(const Fix& fix) {
  if (!mRecent.empty() && fix.time < mRecent.back().time) mRecent.clear();
  if (!mRecent.empty() && fix.time == mRecent.back().time) mRecent.pop_back();
  mRecent.push_back(fix);
  while (mRecent.size() > kKeptFixes || mRecent.front().time < fix.time - kKeptSeconds) mRecent.pop_front();
}

Json::Value Navigation::history() const {
  Json::Value earlier(Json::arrayValue);
  if (mRecent.empty()) return earlier;
  const double newest = mRecent.back().time;
  double before = newest;
  for (const double age : {2.0, 4.0}) {
    const Fix* best = nullptr;
    for (const Fix& fix : mRecent) {
      const double off = std::fabs(newest - fix.time - age);
      if (fix.time < before && off <= 1.0 && (!best || off < std::fabs(newest - best->time - age))) best = &fix;
    }
    if (!best) continue;
    Json::Value position(Json::objectValue);
    position["DR_latitude"] = best->latitude;
    position["DR_longitude"] = best->longitude;
    earlier.append(position);
    before = best->time;
  }
  return earlier;
}

BusService::Answer Navigation::answer(const std::string& method, const Json::Value& params) {
  if (method != "JSON_GetProperties") return error("unknown method " + method);
  std::lock_guard<std::mutex> lock(mMutex);
  Json::Value reply(Json::objectValue);
  Json::Value& position = reply["outprop"]["POS_Position"];
  position["DR_latitude"] = mFix ? mLatitude : 0;
  position["DR_longitude"] = mFix ? mLongitude : 0;
  if (mFix && mHeading) position["DR_heading"] = *mHeading;
  position["DR_trusted"] = mTrusted;
  const Json::Value asked = params.isObject() ? params.get("inprop", Json::Value()) : Json::Value();
  if (asked.isArray())
    for (const auto& name : asked)
      if (name == "POS_History") reply["outprop"]["POS_History"] = history();
  return result(reply);
}

}  // namespace headunit
