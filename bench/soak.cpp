// A long run of one service: emergencies one after the other (a request of
// the head unit, a crash, the mirror button, by turns), each from its request
// through the call, the emergency centre's hang-up and the callback period to
// idle, at time scale 0.005; every 100 the descriptors, threads and resident
// memory of the service. They should stay flat.
//
// Usage: bench_soak [EMERGENCIES]   (default 1000)
#include <cstdio>

#include "benchCommon.h"
#include "e2e/soak.h"

int main(int argc, char** argv) {
  const int emergencies = argc > 1 ? std::max(1, atoi(argv[1])) : 1000;
  char scale[16];
  snprintf(scale, sizeof scale, "%g", soak::kSoakScale);
  bench::printMachine("soak, " + std::to_string(emergencies) + " emergencies on one service, time scale " + scale);
  carScene::Scene s(soak::soakCar());
  const pid_t pid = s.car.servicePid();
  const double start = bench::now();
  auto row = [&](int n) {
    const soak::Held held = soak::heldBy(pid);
    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    printf("%6d emergencies  %3d descriptors  %3d threads  %7ld KiB resident  %7.1f s  load %.2f\n", n,
           held.descriptors, held.threads, held.rssKiB, bench::now() - start, load[0]);
    fflush(stdout);
  };
  row(0);
  for (int n = 1; n <= emergencies; ++n) {
    if (!soak::oneEmergency(s, n)) {
      fprintf(stderr, "emergency %d did not complete\n", n);
      return 1;
    }
    if (n % 100 == 0 || n == emergencies) row(n);
  }
  return 0;
}
