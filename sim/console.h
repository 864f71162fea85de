// The simulated car as a whole, and its line console: one command per line,
// answered with one "ok ..." or "error ..." line. People type at it; tests
// and scripts write to it.
#pragma once

#include <memory>
#include <mutex>
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
  // fromPanel: the line came from the panel, which may not give every command.
  std::string run(const std::string& line, bool& quit, bool fromPanel = false);
  static std::string help();
  // The state of the car in one line ("ok ...", as the command "status").
  std::string status();

  // What a command is given: its words, the whole line, the quit flag.
  struct Args {
    const std::vector<std::string>& w;
    const std::string& line;
    bool& quit;
  };
  struct Command {
    const char* name;
    const char* usage;  // its lines of help, "\n" between them
    bool fromPanel;
    std::string (Console::*handler)(const Args&);
  };
  static const std::vector<Command>& commands();
  static const Command* command(const std::string& name);

 private:
  std::string dispatch(const Args& a, bool fromPanel);
  std::string crash(const Args& a);
  std::string channelBytes(const Args& a);
  std::string micro(const Args& a);
  std::string button(const Args& a);
  std::string number(const Args& a);
  std::string phone(const Args& a);
  std::string bluetooth(const Args& a);
  std::string wait(const Args& a);
  std::string helpCommand(const Args& a);
  std::string quitCommand(const Args& a);
  std::string set(const Args& a);
  std::string peer(const Args& a);
  std::string signal(const Args& a);
  std::string psap(const Args& a);
  std::string appManager(const Args& a);
  std::string reply(const Args& a);
  std::string statusCommand(const Args& a);
  std::string testCall(const Args& a);

  SimContext& mContext;
  Car& mCar;
  std::mutex mMutex;
  // The console's own connection to the service, made at its first use.
  SVCIPC_tConnection mServiceConnection = nullptr;
};

// The words of a line, and the text after the first n of them.
std::vector<std::string> splitWords(const std::string& line);
std::string restAfterWords(const std::string& line, size_t n);

}  // namespace sim
