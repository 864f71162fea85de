// Process entry of the emergency-call service: reads the command line, sets
// up the platform, registers the service on the bus and starts the modules in
// their fixed order; the main thread then belongs to the input handler.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ecallMain/ecallMain.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/runtime.h"
#include "platform/serviceBus.h"
#include "platform/slog.h"
#include "platform/systemdNotify.h"
#include "platform/trace.h"
#include "watchdog/serviceWatchdog.h"

namespace {

// Exit code of a command line that cannot be used.
constexpr int EXIT_USAGE = 2;

const char* const usageText =
    "usage: ecallService [--root DIR] [--bus session|system|ADDRESS] [--trace FILE|-]\n"
    "                    [--syslog] [--time-scale F] [--version] [--help]\n"
    "  --root DIR        resolve every path of the service under DIR (default /)\n"
    "  --bus BUS         the session bus (default), the system bus, or a D-Bus address\n"
    "  --trace FILE|-    write the trace to FILE, or to standard output for -\n"
    "  --syslog          send the system log to syslog instead of standard error\n"
    "  --time-scale F    multiply every wait of the service by F (0 < F <= 1), for simulation\n"
    "  --version         print the version and exit\n"
    "  --help            print this text and exit\n";

struct commandLine {
  std::string root = "/";
  std::string bus = "session";
  std::string trace;
  bool syslog = false;
  double timeScale = 1.0;
  bool version = false;
  bool help = false;
};

[[noreturn]] void usageError(const std::string& message) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  fprintf(stderr, "ecallService: %s\n%s", message.c_str(), usageText);
  exit(EXIT_USAGE);
}

bool parseTimeScale(const std::string& text, double& scale) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  char* end = nullptr;
  const double value = strtod(text.c_str(), &end);
  if (text.empty() || end == nullptr || *end != '\0') return false;
  if (!(value > 0.0 && value <= 1.0)) return false;
  scale = value;
  return true;
}

// Reads the options; both "--opt VALUE" and "--opt=VALUE" are accepted.
commandLine parseCommandLine(int argc, char** argv) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  commandLine options;
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    std::string value;
    bool hasValue = false;
    const size_t equals = name.find('=');
    if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
      hasValue = true;
    }
    const bool takesValue = name == "--root" || name == "--bus" || name == "--trace" || name == "--time-scale";
    if (takesValue && !hasValue) {
      if (i + 1 >= argc) usageError("option " + name + " needs a value");
      value = argv[++i];
    } else if (!takesValue && hasValue) {
      usageError("option " + name + " takes no value");
    }

    if (name == "--root") {
      if (value.empty()) usageError("--root needs a folder");
      options.root = value;
    } else if (name == "--bus") {
      if (value.empty()) usageError("--bus needs session, system or a bus address");
      options.bus = value;
    } else if (name == "--trace") {
      if (value.empty()) usageError("--trace needs a file or -");
      options.trace = value;
    } else if (name == "--time-scale") {
      if (!parseTimeScale(value, options.timeScale)) usageError("--time-scale needs a number F with 0 < F <= 1");
    } else if (name == "--syslog") {
      options.syslog = true;
    } else if (name == "--version") {
      options.version = true;
    } else if (name == "--help") {
      options.help = true;
    } else {
      usageError("unknown option " + name);
    }
  }
  return options;
}

void installSignalHandlers() {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  struct sigaction action {};
  action.sa_handler = sigHandler;
  sigemptyset(&action.sa_mask);
  // Blocking reads of the service threads go on after the handler has run.
  action.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  // A write past the file size limit fails like a write to a full disk: the
  // entry or trace line is lost, the service goes on.
  signal(SIGXFSZ, SIG_IGN);
}

// Connects to the bus and registers the service; without the bus the service
// is of no use, so any failure ends the process.
void registerOnBus() {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  SVCIPC_tError result = SVCIPC_initialize();
  if (result < 0) die("Failed to initialize: 0x%0X", static_cast<unsigned>(result));
  SVCIPC_tConnection connection = nullptr;
  result = SVCIPC_getConnection(SVCIPC_CONNECTION_DEFAULT, 0, &connection);
  if (result < 0) die("Failed to get connection: 0x%0X", static_cast<unsigned>(result));
  ecallFrame().setBus(connection, nullptr);
  // The method handler gets the frame as its user data.
  SVCIPC_tSvcRegHnd registration = nullptr;
  result = SVCIPC_registerService(connection, ECALL_SERVICE_NAME, ECALL_SERVICE_PATH, 0, onECallRequest,
                                  &ecallFrame(), &registration);
  if (result < 0) die("Failed to register service: 0x%0X", static_cast<unsigned>(result));
  ecallFrame().setBus(connection, registration);
}

}  // namespace

int main(int argc, char** argv) {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  const commandLine options = parseCommandLine(argc, argv);
  if (options.help) {
    fputs(usageText, stdout);
    return 0;
  }
  if (options.version) {
    printf("%s\n", ecallServiceVersion);
    return 0;
  }

  platform::setRoot(options.root);
  platform::setTimeScale(options.timeScale);
  platform::setDefaultBus(options.bus.c_str());
  platform::useSyslog(options.syslog);
  if (!options.trace.empty() && !platform::startTrace(options.trace)) {
    fprintf(stderr, "ecallService: cannot open the trace file %s\n", options.trace.c_str());
    return 1;
  }
  createProcessObjects();

  installSignalHandlers();
  registerOnBus();
  // Registered: callers can reach the service now, so the service manager
  // may count it as started (the modules below come up while it serves).
  platform::notifyReady();
  // From here the manager's watchdog, when it has one, counts.
  serviceWatchdog::start();

  extServHandle.initExternalServiceHandling();
  extServHandle.getEmebeddedPhoneEnabledInVariant();
  ecallHandler.initEcallProcessor();
  // The input handler keeps the main thread for as long as the inputs are
  // monitored, which in normal operation is for ever; the service ends only
  // when both input threads have ended.
  canIpcEmergencyHandler.monitorCANForEmergency();

  ecallHandler.sendAssistStatus();
  platform::stopTrace();
  return 0;
}
