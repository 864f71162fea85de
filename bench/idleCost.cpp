// Idle cost: CPU time, voluntary context switches (a thread going back to
// sleep: one per wake-up) and involuntary ones of ecallService over a window
// of idle time with a healthy car, per thread, with the trace lines the
// service wrote in the window (what woke it); then its resident memory (RSS
// and PSS) idle and during an active emergency call.
//
// Usage: bench_idleCost [SECONDS]   (default 60)
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>

#include "benchCommon.h"
#include "support/e2eHarness.h"

namespace {

// "tid name" -> voluntary context switches of each thread.
std::map<std::string, long> switchesPerThread(pid_t pid) {
  std::map<std::string, long> out;
  const std::string taskDir = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = opendir(taskDir.c_str());
  if (!dir) return out;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const std::string task = taskDir + "/" + entry->d_name;
    std::string name = bench::readFile(task + "/comm");
    if (!name.empty() && name.back() == '\n') name.pop_back();
    std::string status = bench::readFile(task + "/status");
    size_t at = status.find("\nvoluntary_ctxt_switches:");
    long n = at == std::string::npos ? 0 : atol(status.c_str() + at + 25);
    out[std::string(entry->d_name) + " " + name] = n;
  }
  closedir(dir);
  return out;
}

void printMemory(const char* when, pid_t pid) {
  bench::Memory m = bench::processMemory(pid);
  printf("%-34s RSS %6ld KiB   PSS %6ld KiB\n", when, m.rssKiB, m.pssKiB);
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::max(1.0, atof(argv[1])) : 60.0;
  bench::printMachine("idle cost over " + std::to_string(static_cast<int>(seconds)) + " s, healthy car");
  testSupport::E2eOptions options;
  options.timeScale = 1.0;
  testSupport::E2eHarness car(options);
  if (!car.waitForServiceStarted(std::chrono::seconds(30))) return 1;
  const pid_t pid = car.servicePid();
  // The button thread's first read of the vehicle status object (the
  // buttons' values at start) is the last step of the start-up.
  car.waitForTrace("UcallBtn pps value", std::chrono::seconds(10));

  const size_t traceBefore = car.trace().size();
  const auto threadsBefore = switchesPerThread(pid);
  const bench::ProcessCounters before = bench::processCounters(pid);
  const double start = bench::now();
  while (bench::now() - start < seconds) sleep(1);  // the measuring window
  const bench::ProcessCounters after = bench::processCounters(pid);
  const auto threadsAfter = switchesPerThread(pid);
  const double elapsed = bench::now() - start;
  const std::string traceInWindow = car.trace().substr(traceBefore);

  printf("\nthreads %d; over %.1f s idle: CPU %.3f s, voluntary switches %ld (%.2f/s), involuntary %ld\n",
         after.threads, elapsed, after.cpuSeconds - before.cpuSeconds,
         after.voluntarySwitches - before.voluntarySwitches,
         (after.voluntarySwitches - before.voluntarySwitches) / elapsed,
         after.involuntarySwitches - before.involuntarySwitches);
  printf("   since start: CPU %.3f s, voluntary switches %ld (the counters work)\n", after.cpuSeconds,
         after.voluntarySwitches);
  for (const auto& [thread, n] : threadsAfter) {
    auto was = threadsBefore.find(thread);
    long delta = n - (was == threadsBefore.end() ? 0 : was->second);
    if (delta != 0) printf("   thread %-28s %ld wake-ups\n", thread.c_str(), delta);
  }
  size_t lines = 0;
  std::istringstream in(traceInWindow);
  for (std::string line; std::getline(in, line); ++lines)
    if (lines < 10) printf("   trace: %s\n", line.substr(0, 140).c_str());
  printf("   trace lines in the window: %zu\n\n", lines);

  printMemory("memory idle", pid);
  const size_t mark = car.recordMark();
  car.sim("crash B can");
  Json::Value active = car.waitForRecordSince(
      mark,
      [](const Json::Value& r) {
        return r["kind"] == "signal" && r["service"] == "EmbeddedPhone" && r["name"] == "callState" &&
               r["data"].asString().find("ACTIVE") != std::string::npos;
      },
      std::chrono::seconds(30));
  if (active.isNull()) {
    fprintf(stderr, "the call did not become active\n");
    return 1;
  }
  // The service has taken the state in when it signals the call's progress.
  car.waitForTrace("ACTIVE", std::chrono::seconds(5));
  printMemory("memory during an active call", pid);
  return 0;
}
