// The vehicle micro on the restraint controller channel: it listens on a
// SOCK_SEQPACKET Unix socket at <root>/dev/ipc/ch12, takes the service's
// connection, sends the airbag controller's impact and link-loss messages
// when told, and records every message the service writes (mirror LED,
// Assist status, cellular module reset).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "simCore.h"

namespace sim {

// Where the airbag controller reports one impact kind: the byte (0 or 1)
// within the two impact bytes of a path and the bit mask.
struct ImpactBit {
  const char* letter;
  int byte;
  uint8_t mask;
};
// The thirteen kinds, A B C D F Tgl H I K L M O X.
const std::vector<ImpactBit>& impactKinds();
// The 7-byte impact message for one kind on the CAN or the serial path;
// empty when the letter is unknown (letters compare without case).
std::vector<uint8_t> impactMessage(const std::string& letter, bool serialPath);

class VehicleMicro {
 public:
  explicit VehicleMicro(Recorder& recorder) : mRecorder(recorder) {}
  ~VehicleMicro();
  // Creates the socket and starts accepting; false with the reason.
  bool start(const std::string& socketPath, std::string& why);
  void stop();
  // The micro restarts: its end of the channel closes and stops listening
  // ("close"), until it listens again ("open"); "restart" does both.
  std::string restart(bool closeEnd, bool openEnd);
  // The micro stops reading what the service sends (deaf) and reads it
  // again; what was sent meanwhile stays queued on the channel.
  std::string setDeaf(bool deaf);
  // The micro takes each connection and closes it at once (a channel that
  // opens and then fails every read), or keeps its connections again. The
  // connection of the moment is closed when dropping starts.
  std::string setDropping(bool dropping);
  // Sends one message to the service; false when nobody is connected.
  bool send(const std::vector<uint8_t>& bytes, const std::string& what);
  bool connected() const;
  std::string status() const;

 private:
  void acceptLoop();
  void readLoop(int fd);
  void received(const std::vector<uint8_t>& bytes);

  Recorder& mRecorder;
  std::string mPath;
  int mListen = -1;
  int mStopEvent = -1;  // wakes the accepting and reading threads at stop
  mutable std::mutex mMutex;
  int mConnection = -1;
  int mLed = 0;
  bool mAssist = false;
  int mResets = 0;
  bool mDeaf = false;
  bool mDropping = false;
  bool mStopping = false;
  std::condition_variable mHearing;  // a deaf reader waits here
  std::thread mAcceptThread;
  std::vector<std::thread> mReaders;
};

// The vehicle status PPS object <root>/pps/can/vehstat with the mirror
// buttons and the odometer, always replaced whole as its writers do
// (platform::ppsWrite). start() takes the path as the service names it.
class VehicleStatusObject {
 public:
  explicit VehicleStatusObject(Recorder& recorder) : mRecorder(recorder) {}
  bool start(const std::string& path, std::string& why);
  std::string button(const std::string& which, bool pressed);
  std::string odometer(long long value);
  std::string status() const;

 private:
  bool writeLocked();

  Recorder& mRecorder;
  std::string mPath;
  mutable std::mutex mMutex;
  int mEcall = 0;
  int mAssist = 0;
  long long mOdometer = 1234567;
};

}  // namespace sim
