#include "benchCommon.h"

#include <dirent.h>
#include <systemd/sd-bus.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <numeric>
#include <sstream>

#include "support/e2eHarness.h"

namespace bench {

double now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

namespace {

// Nearest-rank percentile of sorted samples.
double percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * sorted.size()));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

long field(const std::string& text, const std::string& name) {
  size_t at = text.find(name);
  if (at == std::string::npos) return 0;
  return std::atol(text.c_str() + at + name.size());
}

}  // namespace

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

Stats stats(std::vector<double> samples) {
  Stats s;
  if (samples.empty()) return s;
  std::sort(samples.begin(), samples.end());
  s.count = samples.size();
  s.min = samples.front();
  s.max = samples.back();
  s.p50 = percentile(samples, 50);
  s.p99 = percentile(samples, 99);
  s.mean = std::accumulate(samples.begin(), samples.end(), 0.0) / samples.size();
  return s;
}

void printStats(const std::string& label, const std::vector<double>& samples) {
  Stats s = stats(samples);
  printf("%-44s n=%-4zu p50 %8.3f  p99 %8.3f  max %8.3f  mean %8.3f ms\n", label.c_str(), s.count, s.p50, s.p99,
         s.max, s.mean);
}

std::vector<TraceLine> parseTrace(const std::string& trace) {
  std::vector<TraceLine> lines;
  std::istringstream in(trace);
  std::string line;
  while (std::getline(in, line)) {
    char* end = nullptr;
    double t = std::strtod(line.c_str(), &end);
    if (end == line.c_str()) continue;
    lines.push_back({t, std::string(end + (*end == ' ' ? 1 : 0))});
  }
  return lines;
}

ProcessCounters processCounters(pid_t pid) {
  ProcessCounters c;
  const std::string taskDir = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = opendir(taskDir.c_str());
  if (!dir) return c;
  const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const std::string task = taskDir + "/" + entry->d_name;
    std::string status = readFile(task + "/status");
    c.voluntarySwitches += field(status, "\nvoluntary_ctxt_switches:");
    c.involuntarySwitches += field(status, "nonvoluntary_ctxt_switches:");
    // utime and stime are fields 14 and 15; the command name may hold blanks.
    std::string stat = readFile(task + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(stat.substr(close + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i) rest >> skip;
    long utime = 0, stime = 0;
    rest >> utime >> stime;
    c.cpuSeconds += (utime + stime) / tick;
    ++c.threads;
  }
  closedir(dir);
  return c;
}

Memory processMemory(pid_t pid) {
  std::string rollup = readFile("/proc/" + std::to_string(pid) + "/smaps_rollup");
  return {field(rollup, "\nRss:"), field(rollup, "\nPss:")};
}

void printMachine(const std::string& benchmark) {
  struct utsname u {};
  uname(&u);
  std::string cpu;
  std::istringstream info(readFile("/proc/cpuinfo"));
  for (std::string line; std::getline(info, line);)
    if (line.rfind("model name", 0) == 0) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  double load[3] = {0, 0, 0};
  getloadavg(load, 3);
  time_t t = time(nullptr);
  char date[64];
  strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", gmtime(&t));
  printf("== %s\n   %s, %ld CPUs, %s %s, %s, load %.2f %.2f %.2f\n", benchmark.c_str(), cpu.c_str(),
         sysconf(_SC_NPROCESSORS_ONLN), u.sysname, u.release, date, load[0], load[1], load[2]);
}

}  // namespace bench

namespace bench {

sd_bus* busConnect(const std::string& address) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return nullptr;
  sd_bus_set_address(bus, address.c_str());
  sd_bus_set_bus_client(bus, 1);
  if (sd_bus_start(bus) < 0) {
    sd_bus_unref(bus);
    return nullptr;
  }
  return bus;
}

namespace {

int onInvoke(sd_bus_message* m, void*, sd_bus_error*) {
  const char* method = nullptr;
  const char* params = nullptr;
  int r = sd_bus_message_read(m, "ss", &method, &params);
  if (r < 0) return r;
  return sd_bus_reply_method_return(m, "s", "{\"ecallInProgress\":false}\n");
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Invoke", "ss", "s", onInvoke, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

int minimalService(const std::string& address, const std::string& name) {
  sd_bus* bus = busConnect(address);
  if (!bus) return 1;
  const std::string path = "/com/nordak/service/" + name;
  if (sd_bus_add_object_vtable(bus, nullptr, path.c_str(), "com.nordak.ServiceIpc", kVtable, nullptr) < 0) return 1;
  if (sd_bus_request_name(bus, ("com.nordak.service." + name).c_str(), 0) < 0) return 1;
  printf("ready\n");
  fflush(stdout);
  for (;;) {
    int r = sd_bus_process(bus, nullptr);
    if (r < 0) return 1;
    if (r == 0) sd_bus_wait(bus, UINT64_MAX);
  }
}

}  // namespace bench

namespace bench {

bool crashToDial(testSupport::E2eHarness& car, CrashToDial& run) {
  run.mark = car.recordMark();
  car.sim("crash B can");
  const Json::Value dial = car.waitForRequestSince(run.mark, "EmbeddedPhone", "ecallDial", std::chrono::seconds(30));
  if (dial.isNull()) return false;
  run.crashAt = 0;
  for (const auto& r : car.recordsSince(run.mark, "vehicle"))
    if (r["sent"].asBool()) {
      run.crashAt = r["t"].asDouble();
      break;
    }
  if (run.crashAt == 0) return false;
  // The simulator records the message once its write has returned, and the
  // service may have read it by then: the start is the earlier of the two.
  for (const auto& line : parseTrace(car.trace()))
    if (line.text.find(" Rx: ") != std::string::npos && line.t < run.crashAt && line.t > run.crashAt - 0.05)
      run.crashAt = line.t;
  run.dialAt = dial["t"].asDouble();
  return true;
}

bool buttonToSignal(testSupport::E2eHarness& car, ButtonToSignal& run) {
  const size_t mark = car.recordMark();
  car.sim("button ecall press");
  const Json::Value signal = car.waitForRecordSince(mark, [](const Json::Value& r) {
    Json::Value data;
    return r["kind"] == "ecall" && Json::Reader().parse(r["data"].asString(), data) && data["ecall"].asBool();
  });
  if (signal.isNull()) return false;
  run.pressAt = 0;
  for (const auto& r : car.recordsSince(mark, "vehicle"))
    if (r["event"] == "button") {
      run.pressAt = r["t"].asDouble();
      break;
    }
  run.signalAt = signal["t"].asDouble();
  return run.pressAt != 0;
}

}  // namespace bench
