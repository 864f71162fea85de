// Stand-ins for the services that have no Linux binding yet (audio mixer
// and audio control, the hands-free scenario, Bluetooth, the application
// manager, the HMI gateway): each answers what ecallService expects of a
// healthy head unit and logs the request, so that the call goes on while
// the audio routing stays the machine's default.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "busService.h"

namespace headunit {

class StandIn : public BusService {
 public:
  // answers: method -> reply text; a method not named gets an error reply.
  StandIn(std::string name, std::map<std::string, std::string> answers)
      : BusService(std::move(name)), mAnswers(std::move(answers)) {}

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  const std::map<std::string, std::string> mAnswers;
};

// The stand-ins of the head unit.
std::vector<std::unique_ptr<StandIn>> standIns();

}  // namespace headunit
