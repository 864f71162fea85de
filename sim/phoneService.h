// The embedded phone service (EmbeddedPhone): the cellular module's calls,
// its ON/OFF status, the primary antenna diagnosis, the programmed emergency
// numbers and the module's USB ports.
//
// One call at a time. An emergency dial goes DIALING at once, ALERTING one
// pace later and ACTIVE one more pace later (or stays alerting until the
// operator answers, when answering is manual); the operator's callback rings
// until the service accepts it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "simService.h"

namespace sim {

class PhoneService : public SimService {
 public:
  // ok: the call is placed; fail: the dial request gets an error reply;
  // idle: the request is answered but the call never leaves idle; drop: the
  // call is dialled and ends before it is answered.
  enum class DialMode { Ok, Fail, Idle, Drop };

  explicit PhoneService(SimContext& context);

  // Console operations. Each returns the reply line ("ok ..." / "error ...").
  std::string setPhoneOn(bool on);
  std::string setAntennaFault(bool fault);
  std::string setNumbers(const std::vector<std::string>& numbers);  // empty: none programmed
  std::string setDialMode(DialMode mode);
  std::string setPace(int64_t ms);
  // How long the phone takes to report the end of a call it was asked to
  // end (0: at once).
  std::string setHangupDelay(int64_t ms);
  std::string setAutoAnswer(bool automatic);
  // A call's end is reported as CALL_STATE_IDLE instead of TERMINATED.
  std::string setEndAsIdle(bool idle);
  std::string psapAnswer();
  std::string psapHangup();
  std::string psapCallback(const std::string& number);
  std::string wendReason(int serviceNumber);

  std::string status() const override;
  static const char* dialModeName(DialMode mode);

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;
  std::string describeSignal(const std::string& signal, const std::string& data) const override;
  std::string describe(const std::string& method, const std::string& params) const override;

 private:
  struct Call {
    uint64_t id = 0;  // 0: no call
    std::string number;
    std::string state;  // "CALL_STATE_..."
    int callType = 0;
  };

  Answer dial(const Json::Value& params);
  Answer endActiveCall();
  Answer acceptIncomingCall();
  Json::Value antennaReply() const;
  // Changes the call's state now and emits it as soon as possible. Caller
  // holds mMutex.
  void changeCallLocked(const std::string& state);
  // A paced step: when the call is still callId in state from, it moves to
  // state to and the change is emitted.
  void stepLater(int64_t delayMs, uint64_t callId, const std::string& from, const std::string& to);
  std::string callStateData(const Call& call) const;

  mutable std::mutex mMutex;
  bool mOn = true;
  bool mAntennaFault = false;
  std::vector<std::string> mNumbers{"911"};
  DialMode mDialMode = DialMode::Ok;
  int64_t mPaceMs = 1000;
  int64_t mHangupMs = 0;
  bool mAutoAnswer = true;
  bool mEndAsIdle = false;
  Call mCall;
  uint64_t mNextCallId = 1;
};

}  // namespace sim
