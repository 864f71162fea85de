// ecallctl: drives ecallService from a shell. One subcommand per bus method
// of the service, plus "monitor", which prints the service's signals as they
// come. Replies are shown readably, or as the service's JSON with --json.
#include <signal.h>

#include <cerrno>
#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "callTimings/callTimings.h"
#include "common/ecallTypes.h"
#include "common/jsonText.h"
#include "msd/msd.h"
#include "platform/serviceBus.h"

namespace {

// Exit codes, for scripts.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;       // the bus refused, or the reply makes no sense
constexpr int EXIT_USAGE = 2;        // the command line cannot be used
constexpr int EXIT_NOT_ON_BUS = 3;   // the service's name has no owner
constexpr int EXIT_NO_REPLY = 4;     // the service did not answer in time

const char* const usageText =
    "usage: ecallctl [--bus session|system|ADDRESS] [--timeout SEC] [--json] COMMAND [ARG...]\n"
    "commands:\n"
    "  start           start an emergency call, as the mirror's emergency button does\n"
    "  exit            end the emergency\n"
    "  status          whether an emergency is in progress\n"
    "  mode            whether the service is in emergency mode\n"
    "  language        the language of the emergency call prompts\n"
    "  retry-state N   the retry screen's state: 0 retry, 1 retry with cancel\n"
    "  log TEXT...     append TEXT as one entry to the emergency log (no reply is awaited)\n"
    "  export-log      move the emergency log to the USB stick\n"
    "  reset-gps       reset the cellular module (GPS receiver included)\n"
    "  test            place a test call to the vehicle's test number (never an emergency number)\n"
    "  timings         when each stage of the last call happened, in ms after its trigger\n"
    "  monitor         print the \"ecall\" and \"ecallProgress\" signals as they come, until interrupted\n"
    "  msd --decode HEX  print the MSD given in hex field by field (no bus)\n"
    "options:\n"
    "  --bus BUS       session (default, as the service), system, or a D-Bus address\n"
    "  --timeout SEC   how long to wait for a reply (default 25)\n"
    "  --json          print the service's JSON texts as they are\n"
    "  --help          print this text\n"
    "exit codes: 0 done, 1 failed, 2 bad command line, 3 ecallService is not on the bus,\n"
    "            4 no reply in time\n";

// How a reply is shown in readable form.
enum class replyKind { result, yesNo, text, timings };

struct command {
  const char* name;
  const char* method;
  int arguments;  // -1: one or more, joined by blanks
  replyKind kind;
  const char* member;  // the reply's member
  const char* label;   // how a yes/no reply is introduced
};

const command commands[] = {
    {"start", "startEcall", 0, replyKind::result, "result", nullptr},
    {"exit", "exitEcall", 0, replyKind::result, "result", nullptr},
    {"status", "IsECallInProgess", 0, replyKind::yesNo, "ecallInProgress", "emergency in progress"},
    {"mode", "IsECallModeActive", 0, replyKind::yesNo, "eCallModeActive", "emergency mode active"},
    {"language", "getEmergencyCallLanguage", 0, replyKind::text, "language", nullptr},
    {"retry-state", "setEcallRetryHmiState", 1, replyKind::result, "result", nullptr},
    {"log", "logStringToEcallLog", -1, replyKind::result, nullptr, nullptr},
    {"export-log", "saveEmergencyLogToUSBAndRemoveLocalLog", 0, replyKind::result, "result", nullptr},
    {"reset-gps", "hardResetGPS", 0, replyKind::result, "result", nullptr},
    {"test", "startTestEcall", 0, replyKind::result, "result", nullptr},
    {"timings", "getLastCallTimings", 0, replyKind::timings, "stages", nullptr},
};

struct options {
  std::string bus = "session";
  int timeoutMs = SVCIPC_TIMEOUT_DEFAULT;
  std::string timeoutText = "25 s";
  bool json = false;
  std::string command;
  std::vector<std::string> arguments;
};

[[noreturn]] void usageError(const std::string& message) {
  fprintf(stderr, "ecallctl: %s\n%s", message.c_str(), usageText);
  exit(EXIT_USAGE);
}

// Seconds, fractions allowed; at least one millisecond.
bool parseTimeout(const std::string& text, options& parsed) {
  char* end = nullptr;
  errno = 0;
  const double seconds = strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno != 0 || !(seconds > 0.0) || seconds > INT_MAX / 1000.0) return false;
  parsed.timeoutMs = std::max(1, static_cast<int>(std::ceil(seconds * 1000.0)));
  parsed.timeoutText = text + " s";
  return true;
}

options parseCommandLine(int argc, char** argv) {
  options parsed;
  int i = 1;
  for (; i < argc && argv[i][0] == '-' && parsed.command.empty(); ++i) {
    std::string name = argv[i];
    std::string value;
    const size_t equals = name.find('=');
    const bool inline_ = equals != std::string::npos;
    if (inline_) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
    }
    if (name == "--help" || name == "-h") {
      fputs(usageText, stdout);
      exit(EXIT_OK);
    }
    if (name == "--json" && !inline_) {
      parsed.json = true;
      continue;
    }
    if (name != "--bus" && name != "--timeout") usageError("unknown option " + std::string(argv[i]));
    if (!inline_) {
      if (i + 1 >= argc) usageError("option " + name + " needs a value");
      value = argv[++i];
    }
    if (name == "--bus") {
      if (value.empty()) usageError("--bus needs session, system or a bus address");
      parsed.bus = value;
    } else if (!parseTimeout(value, parsed)) {
      usageError("--timeout needs a number of seconds greater than 0");
    }
  }
  if (i >= argc) usageError("no command given");
  parsed.command = argv[i++];
  for (; i < argc; ++i) parsed.arguments.emplace_back(argv[i]);
  return parsed;
}

const command* findCommand(const std::string& name) {
  for (const command& candidate : commands)
    if (name == candidate.name) return &candidate;
  return nullptr;
}

// The parameter object of a method call, checked against what the command takes.
std::string parametersOf(const command& cmd, const std::vector<std::string>& arguments) {
  const bool countFits = cmd.arguments < 0 ? !arguments.empty() : arguments.size() == size_t(cmd.arguments);
  if (!countFits) {
    usageError(std::string(cmd.name) + (cmd.arguments == 0 ? " takes no argument" : " needs an argument"));
  }
  Json::Value params(Json::objectValue);
  if (cmd.arguments < 0) {
    // One entry per line in the log: the caller's text gets its line end.
    std::string message;
    for (const std::string& word : arguments) message += (message.empty() ? "" : " ") + word;
    if (message.back() != '\n') message += '\n';
    params["message"] = message;
  } else if (cmd.arguments == 1) {
    char* end = nullptr;
    errno = 0;
    const long state = strtol(arguments[0].c_str(), &end, 10);
    if (arguments[0].empty() || *end != '\0' || errno != 0 || state < INT_MIN || state > INT_MAX)
      usageError(std::string(cmd.name) + " needs an integer");
    params["state"] = static_cast<int>(state);
  }
  return jsonWrite(params);
}

std::string busDescription(const std::string& bus) {
  if (bus == "session" || bus == "system") return "the " + bus + " bus";
  return "the bus at " + bus;
}

SVCIPC_tError connect(const std::string& bus, SVCIPC_tConnection* conn) {
  SVCIPC_tError rc = SVCIPC_initialize();
  if (rc < 0) return rc;
  if (bus == "session") return SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 0, conn);
  if (bus == "system") return SVCIPC_getConnection(SVCIPC_CONNECTION_SYSTEM, 0, conn);
  return SVCIPC_getConnectionByAddress(bus.c_str(), conn);
}

bool isError(SVCIPC_tError rc, unsigned domain, unsigned code) {
  return SVCIPC_IS_ERROR(rc) && SVCIPC_ERROR_DOMAIN(rc) == domain && SVCIPC_ERROR_CODE(rc) == code;
}

// Says what went wrong in the words of the person at the shell, and picks
// the exit code a script can act on.
int reportFailure(SVCIPC_tError rc, const options& opts) {
  const unsigned status = static_cast<uint32_t>(rc);
  if (isError(rc, SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_UNKNOWN)) {
    fprintf(stderr, "ecallctl: ecallService is not on the bus (%s)\n", busDescription(opts.bus).c_str());
    return EXIT_NOT_ON_BUS;
  }
  if (isError(rc, SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_NO_REPLY) ||
      isError(rc, SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_TIMEOUT)) {
    fprintf(stderr, "ecallctl: ecallService gave no reply within %s\n", opts.timeoutText.c_str());
    return EXIT_NO_REPLY;
  }
  if (isError(rc, SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_ACCESS_DENIED)) {
    fprintf(stderr, "ecallctl: the bus policy does not let this user call ecallService (status 0x%08X)\n", status);
    return EXIT_FAILED;
  }
  if (isError(rc, SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_CONNECTION)) {
    fprintf(stderr, "ecallctl: cannot connect to %s\n", busDescription(opts.bus).c_str());
    return EXIT_FAILED;
  }
  fprintf(stderr, "ecallctl: the call to ecallService failed (status 0x%08X)\n", status);
  return EXIT_FAILED;
}

// Shows a reply; a reply without the member the method promises is a failure.
int printReply(const command& cmd, const std::string& reply, bool json) {
  Json::Value value;
  jsonParse(reply.c_str(), value);
  const Json::Value* member = value.isObject() ? value.find(cmd.member, cmd.member + strlen(cmd.member)) : nullptr;
  const bool wellFormed = member != nullptr && (cmd.kind == replyKind::yesNo ? member->isBool() : member->isString());
  if (json) fputs(reply.c_str(), stdout);
  if (!wellFormed) {
    fprintf(stderr, "ecallctl: unexpected reply from ecallService: %s%s", reply.c_str(),
            !reply.empty() && reply.back() == '\n' ? "" : "\n");
    return EXIT_FAILED;
  }
  const Json::Value* reason = value.find("reason", "reason" + strlen("reason"));
  if (!json && reason != nullptr && reason->isString()) {
    // A refusal says why, for the person at the shell.
    fprintf(stderr, "ecallctl: %s %s: %s\n", cmd.name, member->asString() == "REFUSED" ? "refused" : "failed",
            reason->asString().c_str());
  } else if (!json) {
    if (cmd.kind == replyKind::yesNo)
      printf("%s: %s\n", cmd.label, member->asBool() ? "yes" : "no");
    else
      printf("%s\n", member->asString().c_str());
  }
  return cmd.kind == replyKind::result && member->asString() != "OK" ? EXIT_FAILED : EXIT_OK;
}

// The last call's stages as a table in the order they happened: the time
// after the trigger and since the stage before. A reply of another shape
// is a failure.
int printTimings(const std::string& reply, bool json) {
  Json::Value parsed;
  const bool isObject = jsonParse(reply.c_str(), parsed) && parsed.isObject();
  const Json::Value& value = parsed;
  const bool noCall = isObject && value.empty();
  const Json::Value& stages = isObject ? value["stages"] : Json::Value::nullSingleton();
  if (json) fputs(reply.c_str(), stdout);
  if (!noCall && !(stages.isObject() && value["trigger"].isIntegral() && value["dials"].isIntegral())) {
    fprintf(stderr, "ecallctl: unexpected reply from ecallService: %s%s", reply.c_str(),
            !reply.empty() && reply.back() == '\n' ? "" : "\n");
    return EXIT_FAILED;
  }
  if (json) return EXIT_OK;
  if (noCall) {
    printf("no call since ecallService started\n");
    return EXIT_OK;
  }
  struct row {
    const char* label;
    long long ms;
  };
  std::vector<row> rows = {{"trigger", 0}};
  for (const callTimings::stageName& stage : callTimings::stageNames)
    if (stages[stage.member].isIntegral()) rows.push_back({stage.label, stages[stage.member].asInt64()});
  // Stages of the same millisecond keep the order a call goes through them.
  std::stable_sort(rows.begin(), rows.end(), [](const row& a, const row& b) { return a.ms < b.ms; });
  printf("%-22s %17s %18s\n", "stage", "ms after trigger", "ms since previous");
  for (size_t i = 0; i < rows.size(); ++i) {
    const std::string since = i == 0 ? "-" : std::to_string(rows[i].ms - rows[i - 1].ms);
    printf("%-22s %17lld %18s\n", rows[i].label, rows[i].ms, since.c_str());
  }
  printf("dial attempts: %u\n", value["dials"].asUInt());
  return EXIT_OK;
}

int runMethod(SVCIPC_tConnection conn, const command& cmd, const options& opts) {
  const std::string params = parametersOf(cmd, opts.arguments);
  if (cmd.member == nullptr) {
    // The service never answers this method: sent as a call that expects no
    // reply, so that neither side waits. The name is checked before sending.
    const SVCIPC_tError rc =
        SVCIPC_asyncInvoke(conn, ECALL_SERVICE_NAME, ECALL_SERVICE_PATH, cmd.method, params.c_str(), 1, 0, nullptr,
                           nullptr);
    return rc == SVCIPC_ERROR_NONE ? EXIT_OK : reportFailure(rc, opts);
  }
  SVCIPC_tResponse* response = nullptr;
  const SVCIPC_tError rc = SVCIPC_invoke(conn, ECALL_SERVICE_NAME, ECALL_SERVICE_PATH, cmd.method, params.c_str(),
                                         opts.timeoutMs, &response);
  if (rc != SVCIPC_ERROR_NONE) return reportFailure(rc, opts);
  const std::string reply = response->result;
  SVCIPC_freeResponse(response);
  if (cmd.kind == replyKind::timings) return printTimings(reply, opts.json);
  return printReply(cmd, reply, opts.json);
}

// ---- monitor ---------------------------------------------------------------

std::mutex outputMutex;
// Set before the subscriptions, read on the bus thread.
std::atomic<bool> monitorJson{false};

// Wall-clock time of day, so that a line can be matched with other logs.
std::string timeOfDay() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char text[32];
  snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
           now.tv_nsec / 1000000);
  return text;
}

const char* yesNo(const Json::Value& value) { return value.asBool() ? "yes" : "no"; }

std::string readableEcall(const Json::Value& data) {
  std::string line = "ecall emergency=" + std::string(yesNo(data["ecall"]));
  line += " mode-active=" + std::string(yesNo(data["ecallModeActive"]));
  line += " type=" + data["type"].asString();
  line += " event=" + data["event"].asString();
  line += " detail=\"" + data["eventdetail"].asString() + "\"";
  line += " number=\"" + data["phoneNumber"].asString() + "\"";
  line += " bluetooth-call=" + std::string(yesNo(data["BTCallActive"]));
  return line;
}

std::string readableProgress(const Json::Value& data) {
  const unsigned code = data["progress"].asUInt();
  std::string line = "ecallProgress " + std::to_string(code);
  if (code == ECALL_PROGRESS_MIC_MUTED) line += " microphones muted";
  if (code == ECALL_PROGRESS_MIC_UNMUTED) line += " microphones unmuted";
  return line;
}

void printLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(outputMutex);
  fputs(line.c_str(), stdout);
  fflush(stdout);
}

void onSignal(const char* name, const char* data, void*) {
  const std::string text = data != nullptr ? data : "";
  if (monitorJson) {
    printLine(std::string(name) + " " + text + (!text.empty() && text.back() == '\n' ? "" : "\n"));
    return;
  }
  Json::Value value;
  // A payload of the wrong shape is shown as it came, not guessed at.
  const bool parsed = jsonParse(text.c_str(), value) && value.isObject();
  std::string line;
  try {
    if (parsed && strcmp(name, "ecall") == 0) line = readableEcall(value);
    if (parsed && strcmp(name, "ecallProgress") == 0) line = readableProgress(value);
  } catch (const Json::Exception&) {
    line.clear();
  }
  if (line.empty()) line = std::string(name) + " (unreadable) " + text;
  if (line.back() != '\n') line += '\n';
  printLine(timeOfDay() + " " + line);
}

void onOwnerChanged(const char*, const char*, const char* newOwner, void*) {
  if (monitorJson) return;
  const bool joined = newOwner != nullptr && newOwner[0] != '\0';
  printLine(timeOfDay() + (joined ? " ecallService joined the bus\n" : " ecallService left the bus\n"));
}

int runMonitor(SVCIPC_tConnection conn, const options& opts, const sigset_t& endSignals) {
  if (!opts.arguments.empty()) usageError("monitor takes no argument");
  monitorJson = opts.json;
  SVCIPC_tSigSubHnd ecallSub = nullptr, progressSub = nullptr, ownerSub = nullptr;
  SVCIPC_tError rc = SVCIPC_subscribe(conn, ECALL_SERVICE_PATH, "ecall", onSignal, nullptr, &ecallSub);
  if (rc == SVCIPC_ERROR_NONE)
    rc = SVCIPC_subscribe(conn, ECALL_SERVICE_PATH, "ecallProgress", onSignal, nullptr, &progressSub);
  if (rc == SVCIPC_ERROR_NONE)
    rc = SVCIPC_subscribeOwnerChanged(conn, ECALL_SERVICE_NAME, onOwnerChanged, nullptr, &ownerSub);
  if (rc != SVCIPC_ERROR_NONE) return reportFailure(rc, opts);

  // Said once every subscription is in place: from here no signal is missed.
  int present = 0;
  if (SVCIPC_nameHasOwner(conn, ECALL_SERVICE_NAME, &present) == SVCIPC_ERROR_NONE && !present)
    fprintf(stderr, "ecallctl: ecallService is not on the bus yet; waiting for it\n");
  fprintf(stderr, "ecallctl: monitoring ecallService on %s (Ctrl-C ends)\n", busDescription(opts.bus).c_str());
  int received = 0;
  sigwait(&endSignals, &received);
  return EXIT_OK;
}

// An MSD in hex, decoded without the bus (for tools and the modem
// emulator): field by field, or the reason it does not decode.
int decodeMsd(const std::string& hex) {
  const auto octets = msd::fromHex(hex);
  const msd::Decoded decoded = octets ? msd::decode(*octets) : msd::Decoded{{}, "not hex text"};
  if (!decoded.error.empty()) {
    fprintf(stderr, "ecallctl: the MSD does not decode: %s\n", decoded.error.c_str());
    return EXIT_FAILED;
  }
  fputs(msd::render(decoded.content).c_str(), stdout);
  return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv) {
  const options opts = parseCommandLine(argc, argv);
  if (opts.command == "msd" && opts.arguments.size() == 2 && opts.arguments[0] == "--decode")
    return decodeMsd(opts.arguments[1]);
  const command* cmd = findCommand(opts.command);
  if (cmd == nullptr && opts.command != "monitor") usageError("unknown command " + opts.command);

  // The bus threads inherit this mask, so that an interrupt of the monitor
  // reaches sigwait on the main thread and ends it cleanly.
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGINT);
  sigaddset(&endSignals, SIGTERM);
  sigaddset(&endSignals, SIGHUP);
  if (cmd == nullptr) pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);

  SVCIPC_tConnection conn = nullptr;
  const SVCIPC_tError rc = connect(opts.bus, &conn);
  if (rc != SVCIPC_ERROR_NONE) return reportFailure(rc, opts);
  const int result = cmd != nullptr ? runMethod(conn, *cmd, opts) : runMonitor(conn, opts, endSignals);
  // Closing writes out what is still queued (the "log" call) before the exit.
  SVCIPC_shutdown();
  return result;
}
