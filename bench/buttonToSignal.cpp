// The 9-1-1 button to the first "ecall" signal: from the simulated vehicle
// status object being rewritten with E_CALL_BtnStat::1 to the service's
// "ecall" signal arriving at the simulator, at time scale 1, each press on a
// freshly started service (a press during an emergency starts nothing).
// Prints the gap before each trace line of the service as well.
//
// Usage: bench_buttonToSignal [RUNS]   (default 30)
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "benchCommon.h"
#include "support/e2eHarness.h"

namespace {

using ms = std::chrono::milliseconds;

// Milliseconds from the press to the signal, or a negative value.
double oneRun(bool showTimeline) {
  testSupport::E2eOptions options;
  options.timeScale = 1.0;
  testSupport::E2eHarness car(options);
  if (!car.waitForServiceStarted(ms(30000))) return -1;
  bench::ButtonToSignal times;
  if (!bench::buttonToSignal(car, times)) return -1;
  const double pressAt = times.pressAt, signalAt = times.signalAt;
  if (showTimeline) {
    double previous = pressAt;
    for (const auto& line : bench::parseTrace(car.trace())) {
      if (line.t < pressAt || line.t > signalAt) continue;
      printf("   %+9.3f ms  (+%7.3f)  %s\n", (line.t - pressAt) * 1000, (line.t - previous) * 1000,
             line.text.substr(0, 120).c_str());
      previous = line.t;
    }
    printf("   %+9.3f ms  \"ecall\" signal at the simulator\n", (signalAt - pressAt) * 1000);
  }
  return (signalAt - pressAt) * 1000;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 30;
  bench::printMachine("9-1-1 button to first \"ecall\" signal, time scale 1, " + std::to_string(runs) + " presses");
  std::vector<double> latency;
  for (int i = 0; i < runs; ++i) {
    double t = oneRun(i == 0);
    if (t < 0) {
      fprintf(stderr, "run %d failed\n", i);
      continue;
    }
    latency.push_back(t);
  }
  printf("\n");
  bench::printStats("button (PPS written) to \"ecall\" signal", latency);
  return latency.empty() ? 1 : 0;
}
