// EmbeddedPhone on oFono: the service's calls go through the first modem
// oFono offers, and oFono's view of that modem and its calls comes back as
// the phone's signals.
//
//   oFono                                   EmbeddedPhone
//   Modem Powered, Online, VoiceCallManager "embeddedPhoneStatus" status true
//   VoiceCall State dialing/alerting/...    "callState" CALL_STATE_...
//   VoiceCall DisconnectReason              "wendReason" (a 24.008 cause)
//   NetworkRegistration Status/Strength     "getAntennaStatus", "antennaStatus"
//   VoiceCallManager EmergencyNumbers       "getEmergencyNumbers"
//
// The European call ("ecallDial" with an MSD) is placed by the modem on an
// AT channel of its own (ecallChannel): the MSD loaded with the modem's
// command, then the eCall command; oFono follows the call on its channel
// as any other. The centre's request for a fresh MSD on that channel is the
// "msdRequest" signal, and "sendMsd" loads the fresh one.
//
// The bridge powers the modem and brings it online when it starts, when a
// modem appears and when oFono comes back, and tries again after a refusal
// until the modem is up (modemBringUp.cpp). Powered and online is all oFono
// needs to place an emergency call, also with a locked SIM, without a SIM
// and without a network of its own: that is the phone ON. A modem that goes
// down once it was up stays down and is reported OFF, which is the
// service's cue to reset the module.
//
// Threads: requests come on the service bus's thread, oFono's signals on the
// system bus's dispatcher; the phone's state is guarded by the system bus's
// lock, which both take through SystemBus::use.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "atChannel.h"
#include "busService.h"
#include "config.h"
#include "systemBus.h"

namespace headunit {

class EmbeddedPhone : public BusService {
 public:
  EmbeddedPhone(const Config& config, SystemBus& bus) : BusService("EmbeddedPhone"), mConfig(config), mBus(bus) {}
  // The subscriptions hold the system bus: they go before it.
  ~EmbeddedPhone() override;
  // Follows oFono's signals and takes the first modem; false with a reason
  // when the system bus refuses the subscription.
  bool start(std::string& why);
  // Stops the eCall channel's reader, which may signal.
  void stop();

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  struct Call {
    std::string state;  // oFono's
    std::string number;
    bool incoming = false;
    bool emergency = false;
    bool reported = false;  // its end has been told
  };
  static int onSignal(sd_bus_message* message, void* self, sd_bus_error* error);
  void signal(sd_bus_message* message);
  void takeModems(sd_bus* bus);
  void dropModem();
  void modemChanged(sd_bus* bus, const std::string& name, sd_bus_message* value);
  // Bringing the modem up (modemBringUp.cpp).
  void bringUp(sd_bus* bus);
  static int onBringUpReply(sd_bus_message* reply, void* self, sd_bus_error* error);
  void bringUpRefused(const std::string& why);
  void stopBringUp();
  void readNetwork(sd_bus* bus);
  void callChanged(const std::string& path, Call& call);
  void reportStatus();
  void reportAntenna();
  bool phoneOn() const { return mPowered && mOnline && mHasVoice; }
  bool antennaKnown() const;
  Json::Value antennaReply() const;
  int callType(const Call& call) const;

  Answer dial(const Json::Value& params);
  Answer dialEcall(const std::string& number, const Json::Value& params);
  Answer sendMsd(const Json::Value& params);
  Answer hangUp();
  Answer acceptIncoming();
  Answer emergencyNumbers();

  const Config& mConfig;
  SystemBus& mBus;
  sd_bus_slot* mSlot = nullptr;
  sd_bus_slot* mOwnerSlot = nullptr;
  std::string mModem;  // the modem's object path; empty: none
  bool mPowered = false, mOnline = false, mHasVoice = false;
  // The bring-up: its call to oFono (for Online or Powered), the pause
  // before the next try (while one runs, retryDue), the refusals since the
  // modem was taken, the refusal last logged; wasUp: done, the modem is
  // left alone from then on.
  sd_bus_slot* mBringUpCall = nullptr;
  bool mAskedOnline = false, mRetryDue = false, mWasUp = false;
  std::chrono::milliseconds mPause{};
  int mRefusals = 0;
  std::string mRefusal;
  std::chrono::steady_clock::time_point mTakenAt{};
  bool mReportedOn = false;
  std::string mRegistration;  // NetworkRegistration Status
  int mStrength = 0;
  bool mReportedAntenna = false;
  std::map<std::string, Call> mCalls;  // by oFono object path
  std::string mDialled;                // the number ecallDial placed last
  bool mDialledTest = false;           // ... as a test call ("callType":"TEST")
  // The modem is placing a European call: the next outgoing call oFono
  // shows is it, whatever number the modem reports for it.
  bool mEcallExpected = false;
  std::unique_ptr<AtChannel> mEcall;  // none without ecallChannel
  std::chrono::steady_clock::time_point mLastEmergency{};
  bool mHadEmergency = false;
};

}  // namespace headunit
