// The MSD: time to build its content from the car's raw inputs and encode
// it (what the service does when a call starts), and to decode it (what the
// centre's side does), in process. The usual message: N1, N2, passengers,
// one fuel (38 octets). Each figure is the median of five rounds.
//
// Usage: bench_msdCodec [MESSAGES]   (per round, default 200000)
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "benchCommon.h"
#include "msd/msd.h"

namespace {

volatile size_t sink;

// Nanoseconds per call of work, median of five rounds of count calls.
double nanosecondsEach(int count, const std::function<size_t()>& work) {
  std::vector<double> rounds;
  for (int round = 0; round < 5; ++round) {
    const double start = bench::now();
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += work();
    rounds.push_back((bench::now() - start) * 1e9 / count);
    sink = total;
  }
  std::sort(rounds.begin(), rounds.end());
  return rounds[2];
}

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

  const double buildOnly = nanosecondsEach(count, [&] { return msd::build(1, trigger, vehicle, position, 2).content.vin.size(); });
  const double encodeOnly = nanosecondsEach(count, [&] { return msd::encode(built.content).octets.size(); });
  const double both = nanosecondsEach(count, [&] {
    return msd::encode(msd::build(1, trigger, vehicle, position, 2).content).octets.size();
  });
  const double decodeOnly = nanosecondsEach(count, [&] { return msd::decode(encoded.octets).content.vin.size(); });

  printf("\n%-44s %10s\n", "", "us each");
  printf("%-44s %10.2f\n", "build the content from the raw inputs", buildOnly / 1000);
  printf("%-44s %10.2f\n", "encode it", encodeOnly / 1000);
  printf("%-44s %10.2f\n", "build and encode (when a call starts)", both / 1000);
  printf("%-44s %10.2f\n", "decode it", decodeOnly / 1000);
  return 0;
}
