// What the car sees of the emergency call service: its "ecall" and
// "ecallProgress" signals, its presence on the bus, and the lines it appends
// to the emergency log in flash (and the files it writes to the USB stick).
// All of it is recorded and shown as it happens. When the service logs the
// timings of a call that ended, the watcher asks it for them
// ("getLastCallTimings") and records the answer, so that the car's record
// holds the service's own figures beside what the car saw.
#pragma once

#include <map>
#include <string>
#include <thread>

#include "platform/serviceBus.h"
#include "simCore.h"

namespace sim {

class ServiceWatcher {
 public:
  explicit ServiceWatcher(SimContext& context) : mContext(context) {}
  ~ServiceWatcher();
  // Subscribes on a connection of its own; false with the reason.
  bool startBus(std::string& why);
  // Follows the emergency log folder and the USB stick folder.
  bool startFiles(const std::string& logFolder, const std::string& usbFolder, std::string& why);
  void stop();
  // A readable line for an "ecall" signal.
  static std::string describeEcall(const std::string& data);

 private:
  static void onSignal(const char* name, const char* data, void* context);
  static void onOwnerChanged(const char* busName, const char* oldOwner, const char* newOwner, void* context);
  void fileLoop();
  void readLogGrowth();
  void askCallTimings();
  static void onCallTimings(const SVCIPC_tCallbackStatus* status, const char* result, void* context);

  SimContext& mContext;
  SVCIPC_tConnection mConnection = nullptr;
  std::string mLogFolder, mUsbFolder;
  int mInotify = -1;
  int mStopEvent = -1;
  int mLogWatch = -1, mUsbWatch = -1;
  long long mLogOffset = 0;
  std::string mPartial;  // a log line not yet ended
  bool mFollowing = false;  // reading what the log gains, not what it held at the start
  std::thread mFileThread;
};

}  // namespace sim
