// vehicle-sim: the rest of the head unit and the vehicle micro, so that the
// emergency call service can run, be driven and be watched without a car.
//
//   vehicle-sim [--root DIR] [--bus session|system|ADDRESS] [--record FILE]
//               [--speak DIR] [--time-scale F] [--show] [--script FILE]
//               [--panel [ADDRESS:]PORT] [--timeline FILE] [--vehicle-only] [--help]
//
// With only --root it serves the healthy car on the session bus. Commands
// are read from the script, then from standard input; the car stops at
// "quit", on SIGINT or SIGTERM, or at the end of standard input when that is
// a terminal or a pipe (so a car whose driver went away, a test that died,
// say, does not run on for ever). Without a console (/dev/null, a file) it
// runs until a signal ends it.
// --panel serves the car's panel in a browser (panelServer.h); --timeline
// writes the whole record as a page a person can open when the car stops.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "console.h"
#include "panelServer.h"
#include "recordLog.h"
#include "timelineFile.h"
#include "platform/runtime.h"
#include "platform/serviceBus.h"
#include "simCore.h"

namespace {

struct Options {
  std::string root = "/";
  std::string bus = "session";
  std::string record;
  std::string speak;
  std::string script;
  std::string panel;
  std::string timeline;
  double timeScale = 1.0;
  bool show = false;
  bool vehicleOnly = false;  // the head unit's services come from elsewhere
};

const char* kUsage =
    "usage: vehicle-sim [--root DIR] [--bus session|system|ADDRESS] [--record FILE]\n"
    "                   [--speak DIR] [--time-scale F] [--show] [--script FILE]\n"
    "                   [--panel [ADDRESS:]PORT] [--timeline FILE] [--vehicle-only] [--help]\n"
    "Plays the head-unit services, the vehicle micro and the mirror buttons around\n"
    "ecallService. Type 'help' for the console commands.\n"
    "--panel serves the car in a browser (loopback unless an ADDRESS is given; port 0: any\n"
    "free port, see the \"panel\" record); --timeline writes the record as an HTML page.\n"
    "--vehicle-only plays the vehicle micro, the vehicle status and the mirror only, for a\n"
    "head unit whose services are real (ecall-headunit).\n";

bool parseOptions(int argc, char** argv, Options& options, std::string& why) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](std::string& into) {
      if (i + 1 >= argc) {
        why = arg + " needs a value";
        return false;
      }
      into = argv[++i];
      return true;
    };
    if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      exit(0);
    } else if (arg == "--show") {
      options.show = true;
    } else if (arg == "--vehicle-only") {
      options.vehicleOnly = true;
    } else if (arg == "--root") {
      if (!value(options.root)) return false;
    } else if (arg == "--bus") {
      if (!value(options.bus)) return false;
    } else if (arg == "--record") {
      if (!value(options.record)) return false;
    } else if (arg == "--speak") {
      if (!value(options.speak)) return false;
    } else if (arg == "--script") {
      if (!value(options.script)) return false;
    } else if (arg == "--panel") {
      if (!value(options.panel)) return false;
    } else if (arg == "--timeline") {
      if (!value(options.timeline)) return false;
    } else if (arg == "--time-scale") {
      std::string text;
      if (!value(text)) return false;
      char* end = nullptr;
      options.timeScale = strtod(text.c_str(), &end);
      if (!end || *end != '\0' || !(options.timeScale > 0.0 && options.timeScale <= 1.0)) {
        why = "--time-scale needs a number in (0, 1]";
        return false;
      }
    } else {
      why = "unknown option " + arg;
      return false;
    }
  }
  return true;
}

// The D-Bus address of --bus.
bool busAddress(const std::string& bus, std::string& address, std::string& why) {
  if (bus == "session") {
    const char* env = getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!env || !*env) {
      why = "no session bus (DBUS_SESSION_BUS_ADDRESS is not set); give --bus ADDRESS";
      return false;
    }
    address = env;
  } else if (bus == "system") {
    const char* env = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    address = env && *env ? env : "unix:path=/run/dbus/system_bus_socket";
  } else {
    address = bus;
  }
  return true;
}

// The car's own folders: the flash with the emergency log folder, the USB
// stick, the marker folder, the channel and PPS folders.
void makeCarFolders() {
  for (const char* folder : {"/fs/etfs/usr/var/ecall", "/fs/usb0", "/tmp", "/dev/ipc", "/pps/can"}) {
    std::error_code ec;
    std::filesystem::create_directories(platform::rootPath(folder), ec);
  }
}

// The end of standard input ends the car only when a driver holds it: a
// terminal or a pipe. A car started without a console (stdin /dev/null, as a
// background job of a script gets, or a file of commands) runs on until
// SIGTERM or SIGINT.
bool inputEndsRun() {
  struct stat info;
  return isatty(STDIN_FILENO) || (fstat(STDIN_FILENO, &info) == 0 && S_ISFIFO(info.st_mode));
}

// Reads lines from standard input until "quit", its end (see inputEndsRun),
// or a termination signal.
void consoleLoop(sim::Console& console, sim::Recorder& recorder, int signals) {
  std::string pending;
  char buffer[4096];
  int input = STDIN_FILENO;
  while (true) {
    struct pollfd fds[2] = {{input, POLLIN, 0}, {signals, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    if (!fds[0].revents) continue;
    ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      bool quit = false;
      std::string reply = pending.empty() ? "" : console.run(pending, quit);  // a last line without its end
      if (!reply.empty()) recorder.reply(reply);
      if (inputEndsRun()) return;
      input = -1;  // poll() skips it: only a signal ends the car now
      pending.clear();
      continue;
    }
    pending.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = pending.find('\n')) != std::string::npos) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      bool quit = false;
      std::string reply = console.run(line, quit);
      if (!reply.empty()) recorder.reply(reply);
      if (quit) return;
    }
  }
}

// Runs a script's commands in order; false when it says "quit". The replies
// are shown, not printed as console replies: every "ok"/"error" line on
// standard output answers a line of standard input.
bool runScript(const std::string& path, sim::Console& console, sim::Recorder& recorder) {
  std::ifstream in(path);
  if (!in) {
    fprintf(stderr, "vehicle-sim: cannot read script %s\n", path.c_str());
    return true;
  }
  std::string line;
  while (std::getline(in, line)) {
    bool quit = false;
    std::string reply = console.run(line, quit);
    if (reply.empty()) continue;
    recorder.show("script> " + line + "  => " + reply);
    if (reply.rfind("error", 0) == 0) fprintf(stderr, "vehicle-sim: script: %s: %s\n", line.c_str(), reply.c_str());
    if (quit) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string why;
  std::string address;
  if (!parseOptions(argc, argv, options, why) || !busAddress(options.bus, address, why)) {
    fprintf(stderr, "vehicle-sim: %s\n%s", why.c_str(), kUsage);
    return 2;
  }

  // Termination arrives as a readable descriptor for the console loop; every
  // thread started below inherits the blocked mask. A peer that hangs up
  // must not kill the car.
  const sigset_t mask = platform::blockTerminationSignals();
  int signals = signalfd(-1, &mask, SFD_CLOEXEC);

  platform::setRoot(options.root);
  platform::setTimeScale(options.timeScale);
  platform::setDefaultBus(options.bus.c_str());

  sim::Recorder recorder;
  recorder.setShow(options.show);
  if (!options.record.empty() && !recorder.open(options.record)) {
    fprintf(stderr, "vehicle-sim: cannot write %s: %s\n", options.record.c_str(), strerror(errno));
    return 1;
  }
  sim::RecordLog log;  // the panel's and the timeline's copy of the record
  if (!options.panel.empty() || !options.timeline.empty())
    recorder.setListener([&log](const std::string& line) { log.add(line); });
  sim::Scheduler scheduler;
  sim::CarSettings settings;
  sim::SimContext context{recorder, scheduler, settings, address};

  sim::Speaker speaker(recorder);
  if (!options.speak.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(options.speak, ec);
    speaker.start(options.speak);
  }

  makeCarFolders();
  sim::Car car(context, options.speak.empty() ? nullptr : &speaker);
  sim::ServiceWatcher watcher(context);
  bool started = car.vehstat.start("/pps/can/vehstat", why) &&
                 car.micro.start(platform::rootPath("/dev/ipc/ch12"), why);
  if (started && SVCIPC_IS_ERROR(SVCIPC_initialize())) {
    why = "the bus library did not start";
    started = false;
  }
  if (!options.vehicleOnly)
    for (sim::SimService* service : car.services()) started = started && service->join(why, false);
  started = started && watcher.startBus(why) &&
            watcher.startFiles(platform::rootPath("/fs/etfs/usr/var/ecall"), platform::rootPath("/fs/usb0"), why);
  if (!started) {
    fprintf(stderr, "vehicle-sim: %s\n", why.c_str());
    fflush(stderr);
    _exit(1);  // threads of a half-built car are not worth an orderly stop
  }

  Json::Value ready(Json::objectValue);
  ready["kind"] = "sim";
  ready["event"] = "ready";
  ready["root"] = platform::root();
  ready["bus"] = address;
  recorder.record(ready, "the car is ready (root " + platform::root() + ")");

  sim::Console console(context, car);
  sim::PanelServer panel(console, log, options.speak);
  if (!options.panel.empty()) {
    if (!panel.start(options.panel, why)) {
      fprintf(stderr, "vehicle-sim: %s\n", why.c_str());
      fflush(stderr);
      _exit(1);
    }
    Json::Value entry(Json::objectValue);
    entry["kind"] = "panel";
    entry["url"] = panel.url();
    recorder.record(entry, "the car's panel is at " + panel.url());
  }
  bool keepGoing = options.script.empty() || runScript(options.script, console, recorder);
  if (keepGoing) consoleLoop(console, recorder, signals);

  // Stop the paced events first, so that nothing emits while the services
  // leave the bus.
  panel.stop();
  scheduler.stop();
  watcher.stop();
  for (sim::SimService* service : car.services()) service->leave(false);
  car.micro.stop();
  speaker.stop();
  SVCIPC_shutdown();
  Json::Value done(Json::objectValue);
  done["kind"] = "sim";
  done["event"] = "stopped";
  recorder.record(done, "the car is parked");
  if (!options.timeline.empty() && !sim::writeTimeline(options.timeline, log.all(), why)) {
    fprintf(stderr, "vehicle-sim: %s\n", why.c_str());
    return 1;
  }
  return 0;
}
