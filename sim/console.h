// The simulated car as a whole, and its line console: one command per line,
// answered with one "ok ..." or "error ..." line. People type at it; tests
// and scripts write to it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "audioServices.h"
#include "headUnitServices.h"
#include "phoneService.h"
#include "serviceWatcher.h"
#include "simCore.h"
#include "speechService.h"
#include "vehicleMicro.h"

namespace sim {

struct Car {
  explicit Car(SimContext& context, Speaker* speaker);

  PhoneService phone;
  SpeechService speech;
  MixerService mixer;
  AudioControlService audioControl;
  PsseService psse;
  BluetoothService bluetooth;
  AppManagerService appManager;
  HmiGatewayService hmi;
  PlatformService platform;
  VehicleConfigService vehicleConfig;
  VehicleStatusService vehicleStatus;
  NavigationService navigation;
  VehicleMicro micro;
  VehicleStatusObject vehstat;

  // Every simulated bus service, in the order they join the bus.
  std::vector<SimService*> services();
  // A service by its name (without case).
  SimService* service(const std::string& name);
};

class Console {
 public:
  Console(SimContext& context, Car& car) : mContext(context), mCar(car) {}
  // Runs one command line and returns its reply line. Sets quit for "quit".
  std::string run(const std::string& line, bool& quit);
  static std::string help();

 private:
  std::string dispatch(const std::vector<std::string>& words, const std::string& line, bool& quit);
  std::string set(const std::vector<std::string>& words);
  std::string peer(const std::vector<std::string>& words);
  std::string signal(const std::vector<std::string>& words, const std::string& line);
  std::string psap(const std::vector<std::string>& words);
  std::string appManager(const std::vector<std::string>& words, const std::string& line);
  std::string reply(const std::vector<std::string>& words, const std::string& line);
  std::string status();

  SimContext& mContext;
  Car& mCar;
};

// The words of a line, and the text after the first n of them.
std::vector<std::string> splitWords(const std::string& line);
std::string restAfterWords(const std::string& line, size_t n);

}  // namespace sim
