// ecall-headunit: the head unit's services that ecallService calls, on the
// standard Linux stacks: the embedded phone on oFono, the position on gpsd,
// the speech on espeak-ng, the car's configuration from a file, and
// stand-ins for the audio routing, Bluetooth, the application manager and
// the HMI until they have bindings of their own.
//
//   ecall-headunit [--config FILE] [--bus session|system|ADDRESS]
//                  [--speech-out DIR] [--help]
//
// It runs without a console, logs one line per request on standard output,
// and ends on SIGTERM or SIGINT.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "busService.h"
#include "config.h"
#include "embeddedPhone.h"
#include "navigation.h"
#include "platform/runtime.h"
#include "platform/serviceBus.h"
#include "platform/systemdNotify.h"
#include "standIns.h"
#include "systemBus.h"
#include "textToSpeech.h"
#include "vehicleServices.h"

namespace {

const char* kUsage =
    "usage: ecall-headunit [--config FILE] [--bus session|system|ADDRESS] [--speech-out DIR] [--help]\n"
    "Serves the head unit's services for ecallService on oFono, gpsd and espeak-ng.\n"
    "  --config FILE     the car's settings (default /etc/ecall-headunit.conf)\n"
    "  --bus BUS         the bus of ecallService (default system); oFono is always\n"
    "                    on the system bus (DBUS_SYSTEM_BUS_ADDRESS)\n"
    "  --speech-out DIR  write each spoken prompt to DIR/NNN-TYPE.wav instead of\n"
    "                    playing it\n";

struct Options {
  std::string config = "/etc/ecall-headunit.conf";
  std::string bus = "system";
  std::string speechOut;
};

bool parseOptions(int argc, char** argv, Options& options, std::string& why) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string* into = arg == "--config" ? &options.config
                        : arg == "--bus" ? &options.bus
                        : arg == "--speech-out" ? &options.speechOut
                                                : nullptr;
    if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      exit(0);
    }
    if (!into) {
      why = "unknown option " + arg;
      return false;
    }
    if (i + 1 >= argc) {
      why = arg + " needs a value";
      return false;
    }
    *into = argv[++i];
  }
  return true;
}

int fail(const std::string& why) {
  fprintf(stderr, "ecall-headunit: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string why;
  if (!parseOptions(argc, argv, options, why)) {
    fprintf(stderr, "ecall-headunit: %s\n%s", why.c_str(), kUsage);
    return 2;
  }
  // Termination is awaited by the main thread; every thread started below
  // inherits the blocked mask.
  const sigset_t mask = platform::blockTerminationSignals();

  headunit::Config config;
  if (!config.load(options.config, why)) return fail(why);
  if (!options.speechOut.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(options.speechOut, ec);
  }

  headunit::SystemBus systemBus;
  if (!systemBus.open(why)) return fail(why);
  headunit::EmbeddedPhone phone(config, systemBus);
  headunit::Navigation navigation(config);
  headunit::TextToSpeech speech(config, options.speechOut);
  auto fixed = headunit::vehicleServices(config);
  for (auto& standIn : headunit::standIns()) fixed.push_back(std::move(standIn));
  std::vector<headunit::BusService*> services = {&phone, &navigation, &speech};
  for (auto& service : fixed) services.push_back(service.get());

  if (!speech.start(why)) return fail(why);
  navigation.start();
  if (!phone.start(why)) return fail(why);
  systemBus.start();

  platform::setDefaultBus(options.bus.c_str());
  SVCIPC_tConnection connection = nullptr;
  if (SVCIPC_IS_ERROR(SVCIPC_initialize()) ||
      SVCIPC_IS_ERROR(SVCIPC_getConnection(SVCIPC_CONNECTION_DEFAULT, 0, &connection)))
    return fail("cannot connect to the bus " + options.bus);
  for (auto* service : services)
    if (!service->join(connection, why)) return fail(why);
  headunit::logLine("ecall-headunit: ready");
  platform::notifyReady();

  int sig = 0;
  sigwait(&mask, &sig);
  headunit::logLine(std::string("ecall-headunit: stopping on ") + strsignal(sig));
  // The threads that emit stop first, then the services leave the bus.
  systemBus.stop();
  phone.stop();
  navigation.stop();
  speech.stop();
  for (auto* service : services) service->leave();
  SVCIPC_closeConnection(connection);
  SVCIPC_shutdown();
  return 0;
}
