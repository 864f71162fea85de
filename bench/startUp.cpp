// Start-up: from the exec of ecallService to its name appearing on the bus
// (the bus daemon's NameOwnerChanged), with a healthy car already on the
// bus; against the same for a minimal sd-bus service (the floor).
//
// Usage: bench_startUp [RUNS]   (default 20)
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "benchCommon.h"
#include "support/e2eHarness.h"

namespace {

pid_t spawn(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

// Milliseconds from the exec of args to the name's owner change, or -1;
// *startedAt gets the monotonic time of the exec.
double timeToName(sd_bus* bus, const std::string& name, const std::vector<std::string>& args,
                  double* startedAt = nullptr) {
  bool owned = false;
  sd_bus_slot* slot = nullptr;
  const std::string match = "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name + "'";
  sd_bus_add_match(
      bus, &slot, match.c_str(),
      [](sd_bus_message* m, void* flag, sd_bus_error*) {
        const char *n = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
        if (sd_bus_message_read(m, "sss", &n, &oldOwner, &newOwner) >= 0 && newOwner && *newOwner)
          *static_cast<bool*>(flag) = true;
        return 0;
      },
      &owned);
  const double start = bench::now();
  if (startedAt) *startedAt = start;
  const pid_t pid = spawn(args);
  while (!owned && bench::now() - start < 30) {
    int r = sd_bus_process(bus, nullptr);
    if (r < 0) break;
    if (r == 0) sd_bus_wait(bus, 1000000);
  }
  const double elapsed = (bench::now() - start) * 1000;
  sd_bus_slot_unref(slot);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return owned ? elapsed : -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--floor-service") return bench::minimalService(argv[2], "benchFloor");
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 20;
  bench::printMachine("start-up, exec to the name on the bus, " + std::to_string(runs) + " starts");
  testSupport::E2eOptions options;
  options.timeScale = 1.0;
  options.startService = false;
  testSupport::E2eHarness car(options);
  sd_bus* bus = bench::busConnect(car.busAddress());
  if (!bus) return 1;

  char self[4096] = {0};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return 1;
  std::vector<double> service, floor;
  for (int i = 0; i < runs; ++i) {
    double t = timeToName(bus, "com.nordak.service.ecallService",
                          {ECALL_SERVICE_BIN, "--root", car.path(""), "--bus", car.busAddress()});
    if (t >= 0) service.push_back(t);
    t = timeToName(bus, "com.nordak.service.benchFloor", {self, "--floor-service", car.busAddress()});
    if (t >= 0) floor.push_back(t);
  }
  // One more start with the trace on, to show where the time goes.
  const std::string traceFile = car.path("") + "/startup-trace.txt";
  double startedAt = 0;
  const double traced = timeToName(bus, "com.nordak.service.ecallService",
                                   {ECALL_SERVICE_BIN, "--root", car.path(""), "--bus", car.busAddress(), "--trace",
                                    traceFile},
                                   &startedAt);
  printf("\none start with --trace: name on the bus after %.3f ms; trace lines before it:\n", traced);
  double previous = startedAt;
  for (const auto& line : bench::parseTrace(bench::readFile(traceFile))) {
    if (line.t > startedAt + traced / 1000) break;
    printf("   %+9.3f ms  (+%7.3f)  %s\n", (line.t - startedAt) * 1000, (line.t - previous) * 1000,
           line.text.substr(0, 110).c_str());
    previous = line.t;
  }
  printf("\n");
  bench::printStats("ecallService: exec to name on the bus", service);
  bench::printStats("minimal sd-bus service (floor)", floor);
  printf("%-44s p50 %.2f x\n", "ratio to floor", bench::stats(service).p50 / bench::stats(floor).p50);
  sd_bus_flush_close_unref(bus);
  return service.empty() ? 1 : 0;
}
