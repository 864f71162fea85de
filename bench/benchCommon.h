// Helpers shared by the benchmarks: the monotonic clock, sample statistics,
// the service's trace lines, and what the kernel counts for a process.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// Seconds on the monotonic clock, the clock of the trace and of the record.
double now();

// The whole text of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

// Samples in milliseconds.
struct Stats {
  size_t count = 0;
  double min = 0, p50 = 0, p99 = 0, max = 0, mean = 0;
};
Stats stats(std::vector<double> samples);
// "label  n=..  p50 .. p99 .. max .. ms"
void printStats(const std::string& label, const std::vector<double>& samples);

// One line of the service's trace: its monotonic time and the rest.
struct TraceLine {
  double t = 0;
  std::string text;
};
std::vector<TraceLine> parseTrace(const std::string& trace);

// What the kernel counts for a process, summed over its threads.
struct ProcessCounters {
  double cpuSeconds = 0;       // user + system
  long voluntarySwitches = 0;  // each one a thread that went to sleep
  long involuntarySwitches = 0;
  int threads = 0;
};
ProcessCounters processCounters(pid_t pid);
// Resident and proportional set sizes in KiB (smaps_rollup).
struct Memory {
  long rssKiB = 0, pssKiB = 0;
};
Memory processMemory(pid_t pid);

// The machine, the date and the load, for the head of each report.
void printMachine(const std::string& benchmark);

}  // namespace bench

struct sd_bus;
namespace bench {

// A client connection to the bus at address; null on failure.
sd_bus* busConnect(const std::string& address);
// The least a service on the bus can be: one thread and one connection
// that owns com.nordak.service.<name>, answers every Invoke with the
// idle answer of "IsECallInProgess", and prints "ready" once it owns the
// name. Never returns unless the bus fails.
int minimalService(const std::string& address, const std::string& name);

}  // namespace bench

namespace testSupport {
class E2eHarness;
}
namespace bench {

// The two paths a driver waits on, measured on a service that has finished
// starting (with its trace on), once each. Times on the monotonic clock in
// seconds; false when the event did not come.
struct CrashToDial {
  size_t mark = 0;  // the simulator's record before the crash
  double crashAt = 0, dialAt = 0;
};
// From the impact message ("crash B can") leaving the simulated vehicle
// micro, or the service's read of it if that was traced earlier, to
// "ecallDial" arriving at the simulated phone.
bool crashToDial(testSupport::E2eHarness& car, CrashToDial& run);
// From the vehicle status object being rewritten with the 9-1-1 button
// pressed to the first "ecall" signal arriving at the simulator.
struct ButtonToSignal {
  double pressAt = 0, signalAt = 0;
};
bool buttonToSignal(testSupport::E2eHarness& car, ButtonToSignal& run);

}  // namespace bench
