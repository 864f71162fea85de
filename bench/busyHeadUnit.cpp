// A busy head unit: crash to "ecallDial" and the 9-1-1 button to the first
// "ecall" signal while stress-ng runs a CPU hog and a disk writer per core
// (on the disk of the services' roots), all at normal priority, beside the same two
// paths on the same machine unloaded, in the same run. Two settings take
// turns: the service alone with the priorities and limits its systemd unit
// gives it, the simulated head unit and its bus daemon at normal priority;
// and the path as installed, where the simulated head unit also runs with
// those of ecall-headunit's unit and the bus daemon with those of the
// drop-in installed for it. Each is read from the file that is installed,
// and applied the way systemd applies it. Unloaded and loaded take turns in
// rounds, so that other work on the machine weighs on both alike. Each
// sample is a fresh service at time scale 1.
//
// Usage: bench_busyHeadUnit [RUNS] [--no-priorities] [--service PATH] [--unit FILE]
//                           [--cpu-hogs N] [--disk-writers N] [--disk-options OPTS]
//   RUNS             samples of each path in each setting and condition (default 100)
//   --no-priorities  run the service as an ordinary process, for a before
//   --service PATH   another build's ecallService, for a before
//   --unit FILE      the priorities of another unit file, to try them out
//   --cpu-hogs N     stress-ng CPU workers (default: one per online CPU)
//   --disk-writers N stress-ng disk writers (default: one per online CPU); each
//                    writes files of 1 GB through the page cache, and the
//                    kernel writes them back to the disk in bursts
//   --disk-options   their --hdd-opts (fdatasync: each write synced at once)
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "benchCommon.h"
#include "support/e2eHarness.h"
#include "unitPriorities.h"

namespace {

using ms = std::chrono::milliseconds;

constexpr int kRounds = 4;
// Time for the writers to fill the disk queue before a loaded round.
constexpr auto kLoadWarmUp = std::chrono::seconds(3);
// stress-ng ends by itself after this, should this program die first.
constexpr int kLoadSafetyStopS = 1800;

struct Settings {
  int runs = 100;
  bool priorities = true;
  std::string service;
  std::string unitFile = bench::serviceUnitFile();
  int cpuHogs = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
  int diskWriters = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
  std::string diskOptions;
  std::string diskFolder;
};

// stress-ng in a process group of its own, stopped with the group.
class Load {
 public:
  explicit Load(const Settings& s) {
    std::vector<std::string> args = {"stress-ng",   "--cpu",     std::to_string(s.cpuHogs),
                                     "--hdd",       std::to_string(s.diskWriters),
                                     "--temp-path", s.diskFolder,  "--timeout", std::to_string(kLoadSafetyStopS) + "s",
                                     "--quiet"};
    if (!s.diskOptions.empty()) args.insert(args.end(), {"--hdd-opts", s.diskOptions});
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    mPid = fork();
    if (mPid == 0) {
      setpgid(0, 0);
      // Ordinary work, also when this program itself runs with a priority.
      struct sched_param normal {};
      sched_setscheduler(0, SCHED_OTHER, &normal);
      setpriority(PRIO_PROCESS, 0, 0);
      const int null = open("/dev/null", O_WRONLY);
      if (null >= 0) dup2(null, STDOUT_FILENO), dup2(null, STDERR_FILENO);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    if (mPid > 0) setpgid(mPid, mPid);
  }
  ~Load() {
    if (mPid <= 0) return;
    kill(-mPid, SIGTERM);
    int status = 0;
    waitpid(mPid, &status, 0);
    kill(-mPid, SIGKILL);  // a worker that outlived its parent
    // The next unloaded round starts once the disk has written back what
    // the writers left.
    sync();
  }
  bool running() { return mPid > 0 && waitpid(mPid, nullptr, WNOHANG) == 0; }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

 private:
  pid_t mPid = -1;
};

struct Samples {
  std::vector<double> crash, button;
  std::vector<double> minorFaults, majorFaults;  // of the service between crash and dial
};

// How the processes of the path run in one setting (no directives:
// ordinary), and what they measured.
struct Setting {
  std::string name;
  bench::UnitPriorities service, sim, bus;
  Samples unloaded, loaded;
};

// The page faults of a process so far: minor (the page was in memory) and
// major (it was read from the disk).
std::pair<long, long> pageFaults(pid_t pid) {
  const std::string stat = bench::readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return {0, 0};
  std::istringstream rest(stat.substr(close + 2));
  std::string field;
  long minor = 0, major = 0;
  for (int i = 3; i <= 12 && rest >> field; ++i) {
    if (i == 10) minor = atol(field.c_str());
    if (i == 12) major = atol(field.c_str());
  }
  return {minor, major};
}

// Runs in a new process before its program: the directives, or nothing.
std::function<void()> applying(const bench::UnitPriorities& p) {
  if (p.text.empty()) return {};
  return [&p] {
    if (!bench::applyUnitPriorities(p)) _exit(126);
  };
}

testSupport::E2eOptions carOptions(const Settings& s, const Setting& setting) {
  testSupport::E2eOptions options;
  options.timeScale = 1.0;
  // As in the car: a trace is written line by line to a file, and those
  // writes would wait for the disk too.
  options.trace = false;
  options.serviceBinary = s.service;
  options.beforeServiceExec = applying(setting.service);
  options.beforeSimExec = applying(setting.sim);
  options.beforeBusExec = applying(setting.bus);
  return options;
}

void sampleOnce(const Settings& s, const Setting& setting, Samples& out) {
  {
    testSupport::E2eHarness car(carOptions(s, setting));
    bench::CrashToDial run;
    const bool started = car.waitForServiceStarted(ms(30000));
    const auto faultsBefore = pageFaults(car.servicePid());
    if (started && bench::crashToDial(car, run)) {
      out.crash.push_back((run.dialAt - run.crashAt) * 1000);
      const auto faultsAfter = pageFaults(car.servicePid());
      out.minorFaults.push_back(faultsAfter.first - faultsBefore.first);
      out.majorFaults.push_back(faultsAfter.second - faultsBefore.second);
    } else
      fprintf(stderr, "a crash sample failed\n");
  }
  testSupport::E2eHarness car(carOptions(s, setting));
  bench::ButtonToSignal run;
  if (car.waitForServiceStarted(ms(30000)) && bench::buttonToSignal(car, run))
    out.button.push_back((run.signalAt - run.pressAt) * 1000);
  else
    fprintf(stderr, "a button sample failed\n");
}

void printLoad(const char* when) {
  double load[3] = {0, 0, 0};
  getloadavg(load, 3);
  fprintf(stderr, "%s: load %.2f %.2f %.2f\n", when, load[0], load[1], load[2]);
}

bool parse(int argc, char** argv, Settings& s) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--no-priorities") {
      s.priorities = false;
    } else if (arg == "--service" && hasValue) {
      s.service = argv[++i];
    } else if (arg == "--unit" && hasValue) {
      s.unitFile = argv[++i];
    } else if (arg == "--cpu-hogs" && hasValue) {
      s.cpuHogs = atoi(argv[++i]);
    } else if (arg == "--disk-writers" && hasValue) {
      s.diskWriters = atoi(argv[++i]);
    } else if (arg == "--disk-options" && hasValue) {
      s.diskOptions = argv[++i];
    } else if (isdigit(static_cast<unsigned char>(arg[0]))) {
      s.runs = std::max(kRounds, atoi(arg.c_str()));
    } else {
      fprintf(stderr, "bench_busyHeadUnit: unknown argument %s\n", arg.c_str());
      return false;
    }
  }
  return true;
}


// The directives of a unit file, or the reason they cannot be read.
bool readPriorities(const std::string& file, bench::UnitPriorities& into) {
  into = bench::readUnitPriorities(file);
  if (!into.error.empty()) fprintf(stderr, "%s", into.error.c_str());
  return into.error.empty();
}

void printDirectives(const char* who, const bench::UnitPriorities& p) {
  printf("     %s:%s\n", who, p.text.empty() ? " ordinary" : "");
  for (const std::string& line : testSupport::splitLines(p.text)) printf("       %s\n", line.c_str());
}

void printResults(const Setting& setting) {
  printf("\n%s\n", setting.name.c_str());
  bench::printStats("crash to ecallDial, unloaded", setting.unloaded.crash);
  bench::printStats("crash to ecallDial, loaded", setting.loaded.crash);
  bench::printStats("button to \"ecall\" signal, unloaded", setting.unloaded.button);
  bench::printStats("button to \"ecall\" signal, loaded", setting.loaded.button);
  const Samples &u = setting.unloaded, &l = setting.loaded;
  printf("%-44s minor p50 %.0f (max %.0f), major max %.0f unloaded; minor p50 %.0f (max %.0f), major max %.0f loaded\n",
         "page faults of the service, crash to dial", bench::stats(u.minorFaults).p50, bench::stats(u.minorFaults).max,
         bench::stats(u.majorFaults).max, bench::stats(l.minorFaults).p50, bench::stats(l.minorFaults).max,
         bench::stats(l.majorFaults).max);
  auto ratio = [](const std::vector<double>& loaded, const std::vector<double>& unloaded) {
    return bench::stats(loaded).p99 / std::max(1e-9, bench::stats(unloaded).p99);
  };
  printf("%-44s crash %.2f x, button %.2f x (goal: at most 3 x)\n", "p99 loaded / p99 unloaded",
         ratio(l.crash, u.crash), ratio(l.button, u.button));
}

}  // namespace

int main(int argc, char** argv) {
  Settings s;
  if (!parse(argc, argv, s)) return 2;
  std::vector<Setting> settings(2);
  settings[0].name = s.priorities ? "the service alone with its unit's priorities, the rest ordinary"
                                  : "the service and the rest ordinary";
  settings[1].name = "the path as installed: the service, the head unit's services and the bus daemon";
  for (Setting& setting : settings)
    if (s.priorities && !readPriorities(s.unitFile, setting.service)) return 1;
  if (!readPriorities(bench::headUnitUnitFile(), settings[1].sim) ||
      !readPriorities(bench::busDaemonDropInFile(), settings[1].bus))
    return 1;
  char folder[] = "/tmp/ecall-busy-XXXXXX";  // the disk of the services' roots
  if (mkdtemp(folder) == nullptr) return 1;
  s.diskFolder = folder;

  bench::printMachine("busy head unit, time scale 1, " + std::to_string(s.runs) +
                      " crashes and presses per setting unloaded and as many loaded, fresh service each");
  printf("   load: stress-ng --cpu %d --hdd %d%s%s (normal priority), %d rounds of each\n", s.cpuHogs, s.diskWriters,
         s.diskOptions.empty() ? "" : " --hdd-opts ", s.diskOptions.c_str(), kRounds);
  printf("   service: %s\n", s.service.empty() ? "this build" : s.service.c_str());
  for (const Setting& setting : settings) {
    printf("   %s\n", setting.name.c_str());
    printDirectives("ecallService", setting.service);
    printDirectives("vehicle-sim (as ecall-headunit)", setting.sim);
    printDirectives("dbus-daemon", setting.bus);
  }
  fflush(stdout);

  // The settings take turns sample by sample.
  auto sampleAll = [&](bool loaded, int count) {
    for (int i = 0; i < count; ++i)
      for (Setting& setting : settings) sampleOnce(s, setting, loaded ? setting.loaded : setting.unloaded);
  };
  const int perRound = (s.runs + kRounds - 1) / kRounds;
  for (int round = 0; round < kRounds; ++round) {
    printLoad("unloaded round");
    sampleAll(false, perRound);
    Load load(s);
    std::this_thread::sleep_for(kLoadWarmUp);
    if (!load.running()) {
      fprintf(stderr, "stress-ng did not start (package stress-ng)\n");
      return 1;
    }
    printLoad("loaded round");
    sampleAll(true, perRound);
    printLoad("end of loaded round");
  }
  rmdir(folder);

  for (const Setting& setting : settings) printResults(setting);
  double load[3] = {0, 0, 0};
  getloadavg(load, 3);
  printf("\n%-44s %.2f %.2f %.2f\n", "load at the end", load[0], load[1], load[2]);
  for (const Setting& setting : settings)
    if (setting.unloaded.crash.empty() || setting.loaded.crash.empty()) return 1;
  return 0;
}
