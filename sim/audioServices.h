// The audio side of the head unit: the audio mixer (AudioMixerManager: the
// information sources, mute clients and volumes), the audio control service
// (AudioCtrlSvc: the microphone multiplexers and the DTMF keys heard in a
// call) and the speech-processing service (psseControlService: the
// hands-free scenario that is active).
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>

#include "simService.h"

namespace sim {

class MixerService : public SimService {
 public:
  explicit MixerService(SimContext& context) : SimService(context, "AudioMixerManager") {}
  std::string setVolume(int volume);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  int mPhoneVolume = 18;
  int mNextMuteClient = 1;
  std::set<std::string> mSources;  // information sources claimed
  std::set<std::string> mMuted;    // inputs muted
};

class AudioControlService : public SimService {
 public:
  explicit AudioControlService(SimContext& context) : SimService(context, "AudioCtrlSvc") {}
  std::string dtmf(int key);
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  std::map<std::string, std::string> mMux{{"mic1_mux1", "MIC1"}, {"mic2_mux1", "MIC2"}};
};

class PsseService : public SimService {
 public:
  explicit PsseService(SimContext& context) : SimService(context, "psseControlService") {}
  // The active scenario; empty for none.
  void setScenario(const std::string& scenario);
  std::string scenario() const;
  std::string status() const override;

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  mutable std::mutex mMutex;
  std::string mScenario;
};

}  // namespace sim
