// Services whose answers are fixed while the bridge runs: one reply text
// per method, a log line per request.
//
// The stand-ins serve what has no Linux binding yet (audio mixer and audio
// control, the hands-free scenario, Bluetooth, the application manager, the
// HMI gateway): each answers what ecallService expects of a healthy head
// unit, so that the call goes on while the audio stays the machine's default.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "busService.h"

namespace headunit {

class FixedService : public BusService {
 public:
  // answers: method -> reply text; a method not named gets an error reply.
  FixedService(std::string name, std::map<std::string, std::string> answers)
      : BusService(std::move(name)), mAnswers(std::move(answers)) {}

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  const std::map<std::string, std::string> mAnswers;
};

using FixedServices = std::vector<std::unique_ptr<FixedService>>;

// The stand-ins of the head unit.
FixedServices standIns();

}  // namespace headunit
