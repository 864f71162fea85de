#include "vehicleMicro.h"

#include "platform/pps.h"
#include "platform/runtime.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <strings.h>

namespace sim {

const std::vector<ImpactBit>& impactKinds() {
  static const std::vector<ImpactBit> kinds = {
      {"A", 0, 0x01}, {"B", 0, 0x02}, {"C", 0, 0x04}, {"D", 0, 0x08}, {"F", 0, 0x20}, {"Tgl", 0, 0x80}, {"H", 1, 0x01},
      {"I", 1, 0x02}, {"K", 1, 0x04}, {"L", 1, 0x08}, {"M", 1, 0x10}, {"O", 1, 0x40}, {"X", 1, 0x80},
  };
  return kinds;
}

std::vector<uint8_t> impactMessage(const std::string& letter, bool serialPath) {
  for (const auto& kind : impactKinds()) {
    if (strcasecmp(kind.letter, letter.c_str()) != 0) continue;
    // [kind 0, CAN valid, CAN byte 0, CAN byte 1, serial valid, serial byte 0, serial byte 1]
    std::vector<uint8_t> message(7, 0);
    int valid = serialPath ? 4 : 1;
    message[valid] = 1;
    message[valid + 1 + kind.byte] = kind.mask;
    return message;
  }
  return {};
}

namespace {
const char* ledName(int status) {
  switch (status) {
    case 0:
      return "off";
    case 1:
      return "solid green";
    case 2:
      return "blinking green";
    case 3:
      return "red";
  }
  return "unknown";
}

Json::Value byteArray(const std::vector<uint8_t>& bytes) {
  Json::Value array(Json::arrayValue);
  for (uint8_t b : bytes) array.append(b);
  return array;
}

std::string hex(const std::vector<uint8_t>& bytes) {
  std::string text;
  char buf[4];
  for (uint8_t b : bytes) {
    snprintf(buf, sizeof buf, "%s%02x", text.empty() ? "" : " ", b);
    text += buf;
  }
  return text;
}
}  // namespace

VehicleMicro::~VehicleMicro() { stop(); }

bool VehicleMicro::start(const std::string& socketPath, std::string& why) {
  mPath = socketPath;
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(socketPath).parent_path(), ec);
  struct sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path) {
    why = "socket path too long: " + socketPath;
    return false;
  }
  memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  ::unlink(socketPath.c_str());  // a socket left by an earlier run
  mListen = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (mListen < 0 || bind(mListen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(mListen, 4) != 0) {
    why = "cannot listen on " + socketPath + ": " + strerror(errno);
    return false;
  }
  mStopEvent = eventfd(0, EFD_CLOEXEC);
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = false;
  }
  mAcceptThread = std::thread([this] { acceptLoop(); });
  return true;
}

void VehicleMicro::stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
  }
  mHearing.notify_all();
  if (mStopEvent >= 0) {
    uint64_t one = 1;
    if (write(mStopEvent, &one, sizeof one) < 0) {
    }
  }
  if (mAcceptThread.joinable()) mAcceptThread.join();
  std::vector<std::thread> readers;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    readers.swap(mReaders);
  }
  for (auto& t : readers)
    if (t.joinable()) t.join();
  if (mListen >= 0) {
    close(mListen);
    ::unlink(mPath.c_str());
    mListen = -1;
  }
  if (mStopEvent >= 0) {
    close(mStopEvent);
    mStopEvent = -1;
  }
}

std::string VehicleMicro::restart(bool closeEnd, bool openEnd) {
  Json::Value entry(Json::objectValue);
  entry["kind"] = "vehicle";
  if (closeEnd) {
    stop();  // the reading threads close the service's connection
    entry["event"] = "micro closed";
    mRecorder.record(entry, "vehicle micro closed its end of the channel");
  }
  if (openEnd) {
    std::string why;
    if (mListen >= 0) return "error the micro listens already";
    if (!start(mPath, why)) return "error " + why;
    entry["event"] = "micro listening";
    mRecorder.record(entry, "vehicle micro listens on the channel again");
  }
  return std::string("ok micro ") + (closeEnd && openEnd ? "restarted" : closeEnd ? "closed" : "listening");
}

void VehicleMicro::acceptLoop() {
  while (true) {
    struct pollfd fds[2] = {{mListen, POLLIN, 0}, {mStopEvent, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    int fd = accept4(mListen, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    {
      std::unique_lock<std::mutex> lock(mMutex);
      if (mDropping) {
        lock.unlock();
        close(fd);
        Json::Value entry(Json::objectValue);
        entry["kind"] = "vehicle";
        entry["event"] = "dropped";
        mRecorder.record(entry, "restraint controller channel taken and closed at once");
        continue;
      }
      // The service holds one connection; a newer one takes over.
      mConnection = fd;
      mReaders.emplace_back([this, fd] { readLoop(fd); });
    }
    Json::Value entry(Json::objectValue);
    entry["kind"] = "vehicle";
    entry["event"] = "connected";
    mRecorder.record(entry, "restraint controller channel connected");
  }
}

void VehicleMicro::readLoop(int fd) {
  std::vector<uint8_t> buffer(1024);
  while (true) {
    {
      std::unique_lock<std::mutex> lock(mMutex);
      mHearing.wait(lock, [this] { return !mDeaf || mStopping; });
      if (mStopping) break;
    }
    struct pollfd fds[2] = {{fd, POLLIN, 0}, {mStopEvent, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents) break;
    ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      Json::Value entry(Json::objectValue);
      entry["kind"] = "vehicle";
      entry["event"] = "disconnected";
      mRecorder.record(entry, "restraint controller channel closed by the service");
      break;
    }
    received(std::vector<uint8_t>(buffer.begin(), buffer.begin() + n));
  }
  std::lock_guard<std::mutex> lock(mMutex);
  if (mConnection == fd) mConnection = -1;
  close(fd);
}

void VehicleMicro::received(const std::vector<uint8_t>& bytes) {
  std::string readable = "channel <- " + hex(bytes);
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (bytes.size() == 2 && bytes[0] == 1) {
      mLed = bytes[1];
      readable = std::string("mirror LED ") + ledName(bytes[1]);
    } else if (bytes.size() == 2 && bytes[0] == 2) {
      mAssist = bytes[1] != 0;
      readable = std::string("Assist status ") + (mAssist ? "active" : "inactive");
    } else if (bytes.size() == 1 && bytes[0] == 3) {
      ++mResets;
      readable = "cellular module reset requested";
    }
  }
  Json::Value entry(Json::objectValue);
  entry["kind"] = "channel";
  entry["bytes"] = byteArray(bytes);
  mRecorder.record(entry, readable);
}

std::string VehicleMicro::setDeaf(bool deaf) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mDeaf = deaf;
  }
  mHearing.notify_all();
  Json::Value entry(Json::objectValue);
  entry["kind"] = "vehicle";
  entry["event"] = deaf ? "micro deaf" : "micro hearing";
  mRecorder.record(entry, deaf ? "vehicle micro stops reading the channel" : "vehicle micro reads the channel again");
  return deaf ? "ok micro deaf" : "ok micro hearing";
}

std::string VehicleMicro::setDropping(bool dropping) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mDropping = dropping;
    // Its reader sees the end and closes it.
    if (dropping && mConnection >= 0) shutdown(mConnection, SHUT_RDWR);
  }
  Json::Value entry(Json::objectValue);
  entry["kind"] = "vehicle";
  entry["event"] = dropping ? "micro dropping" : "micro keeping";
  mRecorder.record(entry, dropping ? "vehicle micro closes every connection at once"
                                   : "vehicle micro keeps its connections again");
  return dropping ? "ok micro drops every connection" : "ok micro keeps its connections";
}

bool VehicleMicro::send(const std::vector<uint8_t>& bytes, const std::string& what) {
  ssize_t n = -1;
  // Stamped before the write, so that the service's answer is later in time.
  const double sendingAt = monotonicSeconds();
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mConnection >= 0) n = write(mConnection, bytes.data(), bytes.size());
  }
  Json::Value entry(Json::objectValue);
  entry["kind"] = "vehicle";
  entry["event"] = what;
  entry["bytes"] = byteArray(bytes);
  entry["sent"] = n == static_cast<ssize_t>(bytes.size());
  mRecorder.recordAt(sendingAt, entry, "channel -> " + what + " " + hex(bytes) + (n < 0 ? "  (not connected)" : ""));
  return n == static_cast<ssize_t>(bytes.size());
}

bool VehicleMicro::connected() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mConnection >= 0;
}

std::string VehicleMicro::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return std::string("channel=") + (mConnection >= 0 ? "connected" : "waiting") + (mDeaf ? ",deaf" : "") +
         (mDropping ? ",dropping" : "") + " led=" + ledName(mLed) +
         " assist=" + (mAssist ? "active" : "inactive") + " resets=" + std::to_string(mResets);
}

bool VehicleStatusObject::start(const std::string& path, std::string& why) {
  std::lock_guard<std::mutex> lock(mMutex);
  mPath = path;
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(platform::rootPath(path)).parent_path(), ec);
  if (!writeLocked()) {
    why = "cannot write " + platform::rootPath(path) + ": " + strerror(errno);
    return false;
  }
  return true;
}

bool VehicleStatusObject::writeLocked() {
  char text[160];
  int length = snprintf(text, sizeof text, "@vehstat\nE_CALL_BtnStat::%d\nU_CALL_BtnStat::%d\nODO::%lld\n", mEcall,
                        mAssist, mOdometer);
  return platform::ppsWrite(mPath.c_str(), text, static_cast<size_t>(length)) == 0;
}

std::string VehicleStatusObject::button(const std::string& which, bool pressed) {
  std::lock_guard<std::mutex> lock(mMutex);
  int& value = which == "ecall" ? mEcall : mAssist;
  value = pressed ? 1 : 0;
  const char* attribute = which == "ecall" ? "E_CALL_BtnStat" : "U_CALL_BtnStat";
  // Stamped before the write, so that the service's answer is later in time.
  const double writingAt = monotonicSeconds();
  bool written = writeLocked();
  Json::Value entry(Json::objectValue);
  entry["kind"] = "vehicle";
  entry["event"] = "button";
  entry["name"] = attribute;
  entry["value"] = value;
  mRecorder.recordAt(writingAt, entry, std::string(which == "ecall" ? "9-1-1" : "Assist") + " button " +
                                           (pressed ? "pressed" : "released"));
  if (!written) return "error cannot write " + platform::rootPath(mPath);
  return std::string("ok ") + attribute + "::" + std::to_string(value);
}

std::string VehicleStatusObject::odometer(long long value) {
  std::lock_guard<std::mutex> lock(mMutex);
  mOdometer = value;
  if (!writeLocked()) return "error cannot write " + platform::rootPath(mPath);
  return "ok ODO::" + std::to_string(value);
}

std::string VehicleStatusObject::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return "ecallBtn=" + std::to_string(mEcall) + " assistBtn=" + std::to_string(mAssist) +
         " odo=" + std::to_string(mOdometer);
}

}  // namespace sim
