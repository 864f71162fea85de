// Hung peer: what a head-unit service that takes a request and never answers
// costs, at time scale 1, beside the healthy car.
//  (a) crash to "ecallDial" at the phone, with the vehicle configuration
//      never answering the brand query;
//  (b) start to the inputs being watched (the start-up queries made, the
//      airbag channel open and the mirror buttons read), with the platform
//      service never answering (variant and software version).
// Each figure on a freshly started service in a fresh root.
//
// Usage: bench_hungPeer [RUNS]   (default 5)
#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "benchCommon.h"
#include "support/e2eHarness.h"

namespace {

using testSupport::E2eHarness;
using ms = std::chrono::milliseconds;

testSupport::E2eOptions realTime(bool startService, std::vector<std::string> commands = {}) {
  testSupport::E2eOptions options;
  options.timeScale = 1.0;
  options.startService = startService;
  options.simCommands = std::move(commands);
  options.startDeadline = ms(60000);
  return options;
}

// Milliseconds from the impact message to the dial, -1 when none came.
double crashToDial(const std::string& hang) {
  E2eHarness car(realTime(true));
  if (!car.waitForServiceStarted(ms(60000))) return -1;
  if (!hang.empty() && car.sim(hang).rfind("ok", 0) != 0) return -1;
  const size_t mark = car.recordMark();
  car.sim("crash B can");
  Json::Value dial = car.waitForRequestSince(mark, "EmbeddedPhone", "ecallDial", ms(60000));
  Json::Value crash = car.waitForRecordSince(
      mark, [](const Json::Value& r) { return r["kind"] == "vehicle" && r["sent"].asBool(); }, ms(0));
  if (dial.isNull() || crash.isNull()) return -1;
  return (dial["t"].asDouble() - crash["t"].asDouble()) * 1000;
}

// Milliseconds from the start of the service to its inputs being watched.
double startToInputs(const std::vector<std::string>& commands) {
  E2eHarness car(realTime(false, commands));
  const double start = bench::now();
  car.startService();
  if (!car.waitForServiceStarted(ms(60000)) || !car.waitForEmergencyLog("ecallBtn = 0\n", ms(60000))) return -1;
  return (bench::now() - start) * 1000;
}

void measure(const std::string& label, int runs, const std::function<double()>& once) {
  std::vector<double> samples;
  for (int i = 0; i < runs; ++i) {
    const double t = once();
    if (t < 0) fprintf(stderr, "%s: run %d failed\n", label.c_str(), i);
    else samples.push_back(t);
  }
  bench::printStats(label, samples);
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
  bench::printMachine("hung peer, time scale 1, " + std::to_string(runs) + " runs of each, fresh service each");
  measure("crash to ecallDial, healthy car", runs, [] { return crashToDial(""); });
  measure("crash to ecallDial, brand query never answered", runs,
          [] { return crashToDial("peer VehicleConfig hang getProperties"); });
  measure("start to inputs watched, healthy car", runs, [] { return startToInputs({}); });
  measure("start to inputs watched, platform never answering", runs,
          [] { return startToInputs({"peer platform hang"}); });
  measure("start to inputs watched, phone service never answering", runs,
          [] { return startToInputs({"peer EmbeddedPhone hang"}); });
  return 0;
}
