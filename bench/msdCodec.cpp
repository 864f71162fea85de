// The MSD: time to build its content from the car's raw inputs and encode
// it (what the service does when a call starts), and to decode it (what the
// centre's side does), in process. The usual message: N1, N2, passengers,
// one fuel (38 octets). Each figure is the median of five rounds, in wall
// time and in the thread's CPU time (which other processes on the machine
// do not add to).
//
// Usage: bench_msdCodec [MESSAGES]   (per round, default 200000)
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "benchCommon.h"
#include "msd/msd.h"

namespace {

volatile size_t sink;

double cpuNow() {
  struct timespec t {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

struct Each {
  double wallUs, cpuUs;
};

// Microseconds per call of work, median of five rounds of count calls.
Each each(int count, const std::function<size_t()>& work) {
  std::vector<double> wall, cpu;
  for (int round = 0; round < 5; ++round) {
    const double start = bench::now(), cpuStart = cpuNow();
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += work();
    wall.push_back((bench::now() - start) * 1e6 / count);
    cpu.push_back((cpuNow() - cpuStart) * 1e6 / count);
    sink = total;
  }
  std::sort(wall.begin(), wall.end());
  std::sort(cpu.begin(), cpu.end());
  return {wall[2], cpu[2]};
}

void print(const char* what, const Each& e) { printf("%-44s %10.2f %10.2f\n", what, e.wallUs, e.cpuUs); }

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(1000, atoi(argv[1])) : 200000;
  bench::printMachine("MSD build, encode and decode, " + std::to_string(count) + " messages a round");

  const msd::Trigger trigger{.automatic = true, .testCall = false, .time = 1700000000};
  const msd::Vehicle vehicle{msd::VehicleType::passengerM1, "ZAHJNPR09KS123456", {.gasoline = true}};
  const msd::Position position{.current = msd::GeoPoint{52.520008, 13.404954}, .trusted = true, .heading = 87.5,
                               .earlier1 = msd::GeoPoint{52.519608, 13.403954},
                               .earlier2 = msd::GeoPoint{52.519208, 13.402954}};
  const msd::Built built = msd::build(1, trigger, vehicle, position, 2);
  const msd::Encoded encoded = msd::encode(built.content);
  if (!encoded.error.empty() || !built.warnings.empty() || !msd::decode(encoded.octets).error.empty()) {
    fprintf(stderr, "bench_msdCodec: the usual MSD does not go through: %s\n", encoded.error.c_str());
    return 1;
  }
  printf("   the message: %zu octets, %s\n", encoded.octets.size(), msd::toHex(encoded.octets).c_str());

  const Each buildOnly = each(count, [&] { return msd::build(1, trigger, vehicle, position, 2).content.vin.size(); });
  const Each encodeOnly = each(count, [&] { return msd::encode(built.content).octets.size(); });
  const Each both = each(count, [&] {
    return msd::encode(msd::build(1, trigger, vehicle, position, 2).content).octets.size();
  });
  const Each decodeOnly = each(count, [&] { return msd::decode(encoded.octets).content.vin.size(); });

  printf("\n%-44s %10s %10s\n", "us each", "wall", "CPU");
  print("build the content from the raw inputs", buildOnly);
  print("encode it", encodeOnly);
  print("build and encode (when a call starts)", both);
  print("decode it", decodeOnly);
  return 0;
}
