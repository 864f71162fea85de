// Crash to dial: from the restraint controller's impact message leaving the
// simulated vehicle micro to "ecallDial" arriving at the simulated embedded
// phone, at time scale 1, each crash on a freshly started service in a fresh
// root. Prints p50/p99/max, where the time goes (the gap before each trace
// line of the service, median over the runs), and the floor: the same bus
// requests, emergency log writes and the journal's write made back to back by
// this program, with the two 1 ms timers the service must wait for.
//
// Usage: bench_crashToDial [RUNS] [EU]   (default 50; EU: a car of the European
// market, whose dial waits for its MSD: the position and seat belt queries)
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "benchCommon.h"
#include "support/e2eHarness.h"

namespace {

using testSupport::E2eHarness;
using ms = std::chrono::milliseconds;

// A trace text with its numbers taken out, so that the same step of
// different runs falls together.
std::string stepName(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      if (out.empty() || out.back() != '#') out += '#';
    } else {
      out += c;
    }
  }
  return out.substr(0, 110);
}

struct Run {
  double crashToDialMs = 0;
  double floorMs = 0;
  size_t requests = 0, logWrites = 0;
  std::vector<std::pair<std::string, double>> steps;  // step, gap before it in ms
  std::map<std::string, double> categories;           // category, sum of its gaps in ms
};

// What a gap of the trace was spent on, by the line that ends it. The
// trace interleaves the state machine and the bus thread, so the sums are
// an attribution of the elapsed time, not CPU time.
std::string categoryOf(const std::string& text) {
  if (text.find("Internal log file write success") != std::string::npos) return "emergency log write";
  if (text.find("Emergency journal written") != std::string::npos) return "emergency journal write (fdatasync)";
  if (text.find("pulse") != std::string::npos) return "timer pulse to the state machine";
  if (text.find("onAsyncResult") != std::string::npos) return "asynchronous bus reply";
  if (text.find("received") != std::string::npos || text.find("result") != std::string::npos)
    return "synchronous bus request";
  if (text.find("Rx:") != std::string::npos) return "channel read";
  return "other (processing, tracing)";
}

size_t lineCount(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

// The two pulses the state machine waits for between a crash and its dial
// (the delayed start and the run pulse), 1 ms timers each.
constexpr int kTimerPulses = 2;
constexpr long kTimerPulseNs = 1000000;

// The same synchronous requests and log appends back to back (appends that,
// like the service's, do not wait for the disk: its syncer does), and the two
// 1 ms timers, each slept out on the monotonic clock as the service's timer
// runs, wake-up included.
double floorOf(E2eHarness& car, const std::vector<Json::Value>& requests, size_t logWrites) {
  const std::string logPath = car.path("/fs/etfs/usr/var/ecall/ecall_log.txt");
  const std::string entry(60, 'x');  // a typical entry: stamp, odometer, text
  double start = bench::now();
  for (int i = 0; i < kTimerPulses; ++i) {
    const struct timespec pulse = {0, kTimerPulseNs};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pulse, nullptr);
  }
  for (const auto& r : requests) {
    std::string reply;
    car.invoke(r["service"].asString(), r["method"].asString(), r["params"].asString(), 5000, &reply);
  }
  for (size_t i = 0; i < logWrites; ++i) {
    int fd = open(logPath.c_str(), O_RDWR | O_APPEND);
    if (fd < 0) break;
    if (write(fd, entry.data(), entry.size()) < 0) perror("floor write");
    close(fd);
  }
  // The journal's one change: a slot written in place and synced.
  const int journal = open(car.path("/fs/etfs/usr/var/ecall/floor_journal").c_str(), O_RDWR | O_CREAT, 0644);
  if (journal >= 0) {
    const char slot[64] = {};
    if (pwrite(journal, slot, sizeof slot, 64) < 0 || fdatasync(journal) != 0) perror("floor journal write");
    close(journal);
  }
  return (bench::now() - start) * 1000;
}

bool oneRun(Run& run, bool showTimeline, bool europe) {
  testSupport::E2eOptions options;
  options.timeScale = 1.0;
  if (europe) options.simCommands = {"set market EU", "set drive 30 72"};
  E2eHarness car(options);
  if (!car.waitForServiceStarted(ms(30000))) return false;
  const size_t logLines = lineCount(car.emergencyLog());
  bench::CrashToDial times;
  if (!bench::crashToDial(car, times)) return false;
  const size_t logLinesAtDial = lineCount(car.emergencyLog());
  const double crashAt = times.crashAt;
  std::vector<Json::Value> requests;
  for (const auto& r : car.recordsSince(times.mark, "request"))
    if (r["t"].asDouble() <= times.dialAt) requests.push_back(r);
  const std::vector<bench::TraceLine> trace = bench::parseTrace(car.trace());
  const double dialAt = times.dialAt;
  run.crashToDialMs = (dialAt - crashAt) * 1000;
  run.requests = requests.size();
  run.logWrites = logLinesAtDial - logLines;

  double previous = crashAt;
  for (const auto& line : trace) {
    if (line.t < crashAt || line.t > dialAt) continue;
    run.steps.push_back({stepName(line.text), (line.t - previous) * 1000});
    run.categories[categoryOf(line.text)] += (line.t - previous) * 1000;
    if (showTimeline) printf("   %+9.3f ms  (+%7.3f)  %s\n", (line.t - crashAt) * 1000, (line.t - previous) * 1000,
                             line.text.substr(0, 120).c_str());
    previous = line.t;
  }
  run.steps.push_back({"(ecallDial recorded by the phone)", (dialAt - previous) * 1000});
  run.categories["dial request to the phone"] += (dialAt - previous) * 1000;
  if (showTimeline) printf("   %+9.3f ms  ecallDial at the phone\n", run.crashToDialMs);
  run.floorMs = floorOf(car, requests, run.logWrites);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 50;
  const bool europe = argc > 2 && std::string(argv[2]) == "EU";
  bench::printMachine("crash to dial, time scale 1, " + std::to_string(runs) + " crashes, fresh service each" +
                      (europe ? ", European market" : ""));
  std::vector<Run> all;
  for (int i = 0; i < runs; ++i) {
    Run run;
    if (!oneRun(run, i == 0, europe)) {
      fprintf(stderr, "run %d failed\n", i);
      continue;
    }
    all.push_back(run);
    fprintf(stderr, "run %d: %.3f ms\n", i, run.crashToDialMs);
  }
  if (all.empty()) return 1;

  std::vector<double> latency, floor, ratio;
  for (const auto& r : all) {
    latency.push_back(r.crashToDialMs);
    floor.push_back(r.floorMs);
    ratio.push_back(r.crashToDialMs / r.floorMs);
  }
  printf("\n");
  bench::printStats("crash to ecallDial", latency);
  bench::printStats("floor (same requests, log writes, 2 x 1 ms)", floor);
  printf("%-44s p50 %.2f x\n", "ratio to floor", bench::stats(ratio).p50);
  printf("%-44s %zu bus requests, %zu emergency log entries (first run)\n", "work between crash and dial",
         all[0].requests, all[0].logWrites);

  // Where the time goes: the gap before each step, median over the runs in
  // which the step appeared, in the order of the first run.
  std::vector<std::string> order;
  std::map<std::string, std::vector<double>> gaps;
  for (const auto& r : all)
    for (const auto& [step, gap] : r.steps) {
      if (!gaps.count(step)) order.push_back(step);
      gaps[step].push_back(gap);
    }
  std::map<std::string, std::vector<double>> categories;
  for (const auto& r : all)
    for (const auto& [category, sum] : r.categories) categories[category].push_back(sum);
  printf("\nbreakdown per crash by kind of step (sum of the gaps that end in such a step; ms)\n");
  for (const auto& [category, sums] : categories) bench::printStats("  " + category, sums);
  printf("\nsteps whose median gap is 0.1 ms or more (median, p99, runs; ms)\n");
  for (const auto& step : order) {
    auto s = bench::stats(gaps[step]);
    if (s.p50 >= 0.1) printf("  %8.3f  p99 %8.3f  [%3zu]  %s\n", s.p50, s.p99, s.count, step.c_str());
  }
  return 0;
}
