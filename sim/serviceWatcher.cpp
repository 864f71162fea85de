#include "serviceWatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/runtime.h"

namespace sim {

namespace {
constexpr const char* kServiceName = "com.nordak.service.ecallService";
constexpr const char* kServicePath = "/com/nordak/service/ecallService";
constexpr const char* kLogName = "ecall_log.txt";
constexpr const char* kTimingsEntry = "Call timings (ms after trigger):";

// Entries begin with their time stamp ("14:03:27 March 05, 2014 GMT:"); the
// header lines do not.
bool isEntry(const std::string& line) {
  return line.size() > 9 && isdigit(static_cast<unsigned char>(line[0])) && line[2] == ':' && line[5] == ':';
}
}  // namespace

ServiceWatcher::~ServiceWatcher() { stop(); }

bool ServiceWatcher::startBus(std::string& why) {
  SVCIPC_tError rc = SVCIPC_getConnectionByAddress(mContext.busAddress.c_str(), &mConnection);
  if (SVCIPC_IS_ERROR(rc)) {
    why = "cannot connect the watcher to the bus";
    mConnection = nullptr;
    return false;
  }
  SVCIPC_tSigSubHnd handle = nullptr;
  for (const char* signal : {"ecall", "ecallProgress"}) {
    rc = SVCIPC_subscribe(mConnection, kServicePath, signal, &ServiceWatcher::onSignal, this, &handle);
    if (SVCIPC_IS_ERROR(rc)) {
      why = std::string("cannot subscribe to ") + signal;
      return false;
    }
  }
  rc = SVCIPC_subscribeOwnerChanged(mConnection, kServiceName, &ServiceWatcher::onOwnerChanged, this, &handle);
  if (SVCIPC_IS_ERROR(rc)) {
    why = "cannot follow the emergency call service on the bus";
    return false;
  }
  return true;
}

void ServiceWatcher::onSignal(const char* name, const char* data, void* context) {
  auto* self = static_cast<ServiceWatcher*>(context);
  std::string signal = name ? name : "";
  std::string text = data ? data : "";
  Json::Value entry(Json::objectValue);
  entry["kind"] = signal;
  entry["data"] = text;
  std::string readable = signal == "ecall" ? describeEcall(text) : "ecallService " + signal + " " + oneLine(text);
  self->mContext.recorder.record(entry, readable);
}

std::string ServiceWatcher::describeEcall(const std::string& data) {
  Json::Value value;
  if (!jsonParse(data, value) || !value.isObject()) return "ecallService ecall " + oneLine(data);
  std::string text = "ECALL " + std::string(value.get("ecall", false).asBool() ? "on " : "off") +
                     " type=" + value.get("type", "").asString() + " event=" + value.get("event", "").asString() +
                     " modeActive=" + (value.get("ecallModeActive", false).asBool() ? "yes" : "no");
  std::string number = value.get("phoneNumber", "").asString();
  if (!number.empty()) text += " number=" + number;
  if (value.get("BTCallActive", false).asBool()) text += " BTcall";
  return text;
}

void ServiceWatcher::onOwnerChanged(const char*, const char*, const char* newOwner, void* context) {
  auto* self = static_cast<ServiceWatcher*>(context);
  bool up = newOwner && *newOwner;
  Json::Value entry(Json::objectValue);
  entry["kind"] = "peer";
  entry["service"] = "ecallService";
  entry["state"] = up ? "up" : "gone";
  self->mContext.recorder.record(entry, up ? "ecallService is on the bus" : "ecallService left the bus");
}

bool ServiceWatcher::startFiles(const std::string& logFolder, const std::string& usbFolder, std::string& why) {
  mLogFolder = logFolder;
  mUsbFolder = usbFolder;
  mInotify = inotify_init1(IN_CLOEXEC);
  mStopEvent = eventfd(0, EFD_CLOEXEC);
  if (mInotify < 0 || mStopEvent < 0) {
    why = std::string("cannot follow files: ") + strerror(errno);
    return false;
  }
  mLogWatch = inotify_add_watch(mInotify, logFolder.c_str(), IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_TO);
  mUsbWatch = inotify_add_watch(mInotify, usbFolder.c_str(), IN_CLOSE_WRITE);
  if (mLogWatch < 0 || mUsbWatch < 0) {
    why = "cannot follow " + logFolder + " and " + usbFolder + ": " + strerror(errno);
    return false;
  }
  readLogGrowth();  // a log that was there before the car started
  mFollowing = true;
  mFileThread = std::thread([this] { fileLoop(); });
  return true;
}

void ServiceWatcher::fileLoop() {
  alignas(struct inotify_event) char buffer[4096];
  while (true) {
    struct pollfd fds[2] = {{mInotify, POLLIN, 0}, {mStopEvent, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    ssize_t n = read(mInotify, buffer, sizeof buffer);
    if (n <= 0) continue;
    bool logChanged = false;
    for (char* p = buffer; p < buffer + n;) {
      auto* event = reinterpret_cast<struct inotify_event*>(p);
      std::string name = event->len ? event->name : "";
      if (event->wd == mLogWatch && name == kLogName) {
        if (event->mask & IN_DELETE) {
          mLogOffset = 0;
          mPartial.clear();
        }
        logChanged = true;
      } else if (event->wd == mUsbWatch && !name.empty()) {
        Json::Value entry(Json::objectValue);
        entry["kind"] = "usb";
        entry["file"] = name;
        mContext.recorder.record(entry, "USB stick: " + name + " written");
      }
      p += sizeof(struct inotify_event) + event->len;
    }
    if (logChanged) readLogGrowth();
  }
}

void ServiceWatcher::readLogGrowth() {
  std::string path = mLogFolder + "/" + kLogName;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size < mLogOffset) {
    // The log was cleared or recreated: start again from its beginning.
    mLogOffset = 0;
    mPartial.clear();
  }
  char buffer[4096];
  ssize_t n;
  while ((n = pread(fd, buffer, sizeof buffer, mLogOffset)) > 0) {
    mLogOffset += n;
    mPartial.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  size_t end;
  while ((end = mPartial.find('\n')) != std::string::npos) {
    std::string line = mPartial.substr(0, end);
    mPartial.erase(0, end + 1);
    if (!isEntry(line)) continue;
    Json::Value entry(Json::objectValue);
    entry["kind"] = "log";
    entry["line"] = line;
    mContext.recorder.record(entry, "log: " + line);
    if (mFollowing && line.find(kTimingsEntry) != std::string::npos) askCallTimings();
  }
}

void ServiceWatcher::askCallTimings() {
  if (!mConnection) return;
  // Five seconds of real time whatever the car's pace: the answer is only
  // for the record, and a service that is gone or hung gets none.
  const int limitMs = static_cast<int>(5000 / platform::timeScale());
  SVCIPC_asyncInvoke(mConnection, kServiceName, kServicePath, "getLastCallTimings", "{}", 0, limitMs,
                     &ServiceWatcher::onCallTimings, this);
}

void ServiceWatcher::onCallTimings(const SVCIPC_tCallbackStatus* status, const char* result, void* context) {
  if (status == nullptr || SVCIPC_IS_ERROR(status->errCode) || result == nullptr) return;
  Json::Value entry(Json::objectValue);
  entry["kind"] = "timings";
  entry["data"] = result;
  auto* self = static_cast<ServiceWatcher*>(context);
  self->mContext.recorder.record(entry, "ecallService call timings " + oneLine(result));
}

void ServiceWatcher::stop() {
  if (mStopEvent >= 0) {
    uint64_t one = 1;
    if (write(mStopEvent, &one, sizeof one) < 0) {
    }
  }
  if (mFileThread.joinable()) mFileThread.join();
  if (mInotify >= 0) close(mInotify);
  if (mStopEvent >= 0) close(mStopEvent);
  mInotify = mStopEvent = -1;
  if (mConnection) {
    SVCIPC_closeConnection(mConnection);
    mConnection = nullptr;
  }
}

}  // namespace sim
