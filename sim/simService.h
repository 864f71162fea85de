// One simulated head-unit service: its own bus connection (so that it can
// leave the bus and come back on its own), its name com.nordak.service.<Name>
// at /com/nordak/service/<Name>, and the way it answers: normally, refusing
// every request with an error reply, or never answering. Every request is
// recorded with its parameters exactly as received and the answer given;
// every signal it emits is recorded too.
//
// Threads: requests arrive on the bus library's thread. A subclass's answer()
// runs there and must only touch its own state; signals that follow a request
// are emitted later through the scheduler (emitLater), never from inside the
// request callback, so that leaving the bus never waits on a callback that
// waits for it.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "platform/serviceBus.h"
#include "simCore.h"

namespace sim {

class SimService {
 public:
  enum class Mode { Normal, Refuse, Hang };

  SimService(SimContext& context, std::string name);
  virtual ~SimService();
  SimService(const SimService&) = delete;
  SimService& operator=(const SimService&) = delete;

  const std::string& name() const { return mName; }
  std::string busName() const { return "com.nordak.service." + mName; }
  std::string objectPath() const { return "/com/nordak/service/" + mName; }

  // Connects and takes the name; false with a reason when that fails.
  // announce: show the arrival to a person (not at the car's start).
  bool join(std::string& why, bool announce = true);
  // Leaves the bus (the name loses its owner).
  void leave(bool announce = true);
  bool onBus() const { return mOnBus.load(); }

  // "normal" also ends the hang of single methods.
  void setMode(Mode mode);
  Mode mode() const { return mMode.load(); }
  static const char* modeName(Mode mode);

  // A fixed answer text for one method instead of the simulated one (empty
  // text: back to the simulated answer).
  void overrideReply(const std::string& method, const std::string& text);

  // Never answers this one method (the others as the mode says).
  void hangMethod(const std::string& method);

  // Emits a signal from this service now; false when it is off the bus.
  bool emit(const std::string& signal, const std::string& data);
  // Emits a signal after delayMs of car time (0: as soon as possible).
  void emitLater(int64_t delayMs, const std::string& signal, const std::string& data);

  // One line of the console's "status".
  virtual std::string status() const { return ""; }

 protected:
  struct Answer {
    enum Kind { Result, Error, None } kind;
    std::string text;
  };
  static Answer result(const Json::Value& value) { return {Answer::Result, jsonText(value)}; }
  static Answer ok();
  static Answer error(const std::string& why) { return {Answer::Error, why}; }
  static Answer none() { return {Answer::None, ""}; }

  // The simulated answer to one method (called on the bus thread). params is
  // the parsed parameter text (null when it did not parse). An unknown
  // method gets an error reply, as a real service's dispatcher gives.
  virtual Answer answer(const std::string& method, const Json::Value& params) = 0;
  // A readable line for a request, when the default one is not telling.
  virtual std::string describe(const std::string& method, const std::string& params) const;
  // A readable line for a signal this service emits.
  virtual std::string describeSignal(const std::string& signal, const std::string& data) const;

  SimContext& mContext;

 private:
  friend struct RequestThunks;
  void handle(SVCIPC_tReqContext request, const std::string& method, const std::string& params, int noReplyExpected,
              SVCIPC_tUserToken token);

  const std::string mName;
  int mSlot;  // which request entry point of the bus leads here
  std::atomic<Mode> mMode{Mode::Normal};
  std::atomic<bool> mOnBus{false};
  // Guards the connection and registration against leave() while emitting.
  mutable std::mutex mBusMutex;
  SVCIPC_tConnection mConnection = nullptr;
  SVCIPC_tSvcRegHnd mRegistration = nullptr;
  mutable std::mutex mOverrideMutex;
  std::map<std::string, std::string> mOverrides;
  std::set<std::string> mHungMethods;  // guarded by mOverrideMutex
};

}  // namespace sim
