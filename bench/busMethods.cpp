// Bus methods: "IsECallInProgess" calls per second against ecallService,
// with one client and with 8 clients (each its own connection and thread,
// each waiting for its reply before the next call), and the same against a
// minimal sd-bus service on the same bus that answers the same JSON text:
// the floor of the bus itself. The service runs without its trace, as in
// the car.
//
// Usage: bench_busMethods [SECONDS]   (default 5 per measurement; three rounds)
//        bench_busMethods --floor-service ADDRESS   (the minimal service)
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "benchCommon.h"
#include "support/e2eHarness.h"

namespace {

const char* const kInterface = "com.nordak.ServiceIpc";

// Calls per second of `clients` clients calling for `seconds`.
double callsPerSecond(const std::string& address, const std::string& name, int clients, double seconds) {
  const std::string path = "/com/nordak/service/" + name;
  const std::string dest = "com.nordak.service." + name;
  std::atomic<long> calls{0}, failures{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  double start = bench::now();
  for (int c = 0; c < clients; ++c)
    threads.emplace_back([&] {
      sd_bus* bus = bench::busConnect(address);
      if (!bus) {
        ++failures;
        return;
      }
      while (!stop.load()) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r = sd_bus_call_method(bus, dest.c_str(), path.c_str(), kInterface, "Invoke", &error, &reply, "ss",
                                   "IsECallInProgess", "{}");
        const char* text = nullptr;
        if (r >= 0 && sd_bus_message_read(reply, "s", &text) >= 0 && text && strstr(text, "ecallInProgress"))
          ++calls;
        else
          ++failures;
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
      }
      sd_bus_flush_close_unref(bus);
    });
  while (bench::now() - start < seconds) usleep(100000);  // the measuring window
  stop = true;
  for (auto& t : threads) t.join();
  double elapsed = bench::now() - start;
  if (failures) fprintf(stderr, "%s, %d clients: %ld failed calls\n", name.c_str(), clients, failures.load());
  return calls / elapsed;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--floor-service") return bench::minimalService(argv[2], "benchFloor");
  const double seconds = argc > 1 ? std::max(0.5, atof(argv[1])) : 5.0;
  bench::printMachine("bus method \"IsECallInProgess\", " + std::to_string(seconds) + " s per measurement");

  testSupport::E2eOptions options;
  options.timeScale = 1.0;
  options.trace = false;  // as in the car: every traced call would write three more lines
  testSupport::E2eHarness car(options);
  if (!car.waitForServiceStarted(std::chrono::seconds(30))) return 1;

  // The minimal service, as a process of its own like the real one.
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return 1;
  pid_t floorPid = fork();
  if (floorPid == 0) {
    dup2(out[1], STDOUT_FILENO);
    execl("/proc/self/exe", argv[0], "--floor-service", car.busAddress().c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  char ready[16] = {0};
  if (read(out[0], ready, sizeof ready - 1) <= 0) {
    fprintf(stderr, "the minimal service did not start\n");
    return 1;
  }

  // On a shared machine one window can be unlucky: the two services take
  // turns for three rounds and the median round of each is reported.
  constexpr int kRounds = 3;
  printf("\n%-10s %18s %18s %8s   (each round: service/floor)\n", "clients", "ecallService/s", "minimal sd-bus/s",
         "slowdown");
  for (int clients : {1, 8}) {
    std::vector<double> service, floor;
    std::string rounds;
    for (int round = 0; round < kRounds; ++round) {
      service.push_back(callsPerSecond(car.busAddress(), "ecallService", clients, seconds));
      floor.push_back(callsPerSecond(car.busAddress(), "benchFloor", clients, seconds));
      rounds += " " + std::to_string(static_cast<long>(service.back())) + "/" +
                std::to_string(static_cast<long>(floor.back()));
    }
    std::sort(service.begin(), service.end());
    std::sort(floor.begin(), floor.end());
    const double s = service[kRounds / 2], f = floor[kRounds / 2];
    printf("%-10d %18.0f %18.0f %7.2fx  %s\n", clients, s, f, f / s, rounds.c_str());
  }
  kill(floorPid, SIGKILL);
  waitpid(floorPid, nullptr, 0);
  return 0;
}
