#include "unitPriorities.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

namespace bench {

namespace {

constexpr int kIoprioClassShift = 13;
constexpr int kIoprioWhoProcess = 1;

std::string trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

bool toInt(const std::string& text, int& value) {
  char* end = nullptr;
  const long v = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0') return false;
  value = static_cast<int>(v);
  return true;
}

// "infinity", or a number with a unit: the unit's multiplier of each suffix
// ("" is the value's own unit).
bool toLimit(const std::string& text, const std::map<std::string, double>& units, rlim_t& value) {
  if (text == "infinity") {
    value = RLIM_INFINITY;
    return true;
  }
  char* end = nullptr;
  const double number = strtod(text.c_str(), &end);
  const auto unit = units.find(trim(end));
  if (end == text.c_str() || unit == units.end() || number < 0) return false;
  value = static_cast<rlim_t>(std::llround(number * unit->second));
  return true;
}

// "soft:hard" or one value for both, as systemd reads its Limit...= keys.
bool toRlimit(const std::string& text, const std::map<std::string, double>& units, struct rlimit& limit) {
  const size_t colon = text.find(':');
  rlim_t soft = 0, hard = 0;
  if (!toLimit(trim(text.substr(0, colon)), units, soft)) return false;
  if (colon == std::string::npos) {
    hard = soft;
  } else if (!toLimit(trim(text.substr(colon + 1)), units, hard)) {
    return false;
  }
  limit = {soft, hard};
  return true;
}

const std::map<std::string, double> kMicroseconds = {
    {"", 1}, {"us", 1}, {"usec", 1}, {"ms", 1e3}, {"msec", 1e3}, {"s", 1e6}, {"sec", 1e6}, {"min", 60e6}};
const std::map<std::string, double> kBytes = {
    {"", 1}, {"K", 1024}, {"M", 1024.0 * 1024}, {"G", 1024.0 * 1024 * 1024}};

bool readDirective(UnitPriorities& p, const std::string& key, const std::string& value) {
  if (key == "Nice") return p.hasNice = toInt(value, p.nice);
  if (key == "CPUSchedulingPolicy") {
    const std::map<std::string, int> policies = {
        {"other", SCHED_OTHER}, {"batch", SCHED_BATCH}, {"idle", SCHED_IDLE}, {"fifo", SCHED_FIFO}, {"rr", SCHED_RR}};
    const auto policy = policies.find(value);
    if (policy == policies.end()) return false;
    p.policy = policy->second;
    return p.hasPolicy = true;
  }
  if (key == "CPUSchedulingPriority") return toInt(value, p.policyPriority);
  if (key == "CPUSchedulingResetOnFork") {
    p.resetOnFork = value == "yes" || value == "true";
    return true;
  }
  if (key == "IOSchedulingClass") {
    const std::map<std::string, int> classes = {{"realtime", 1}, {"best-effort", 2}, {"idle", 3}};
    const auto ioClass = classes.find(value);
    if (ioClass == classes.end()) return false;
    p.ioClass = ioClass->second;
    return p.hasIoClass = true;
  }
  if (key == "IOSchedulingPriority") return toInt(value, p.ioLevel);
  if (key == "LimitRTTIME") return p.hasRtTime = toRlimit(value, kMicroseconds, p.rtTime);
  if (key == "LimitMEMLOCK") return p.hasMemlock = toRlimit(value, kBytes, p.memlock);
  return true;
}

}  // namespace

std::string serviceUnitFile() { return std::string(ECALL_SOURCE_DIR) + "/data/systemd/ecallService.service.in"; }
std::string headUnitUnitFile() { return std::string(ECALL_SOURCE_DIR) + "/data/headunit/ecall-headunit.service.in"; }
std::string busDaemonDropInFile() { return std::string(ECALL_SOURCE_DIR) + "/data/systemd/emergency-path.conf"; }

UnitPriorities readUnitPriorities(const std::string& unitFile) {
  UnitPriorities p;
  std::ifstream in(unitFile);
  if (!in) p.error = "cannot read " + unitFile;
  const char* const keys[] = {"Nice",       "CPUSchedulingPolicy", "CPUSchedulingPriority", "CPUSchedulingResetOnFork",
                              "IOSchedulingClass", "IOSchedulingPriority", "LimitRTTIME", "LimitMEMLOCK"};
  for (std::string line; std::getline(in, line);) {
    const size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
    const std::string key = trim(line.substr(0, equals)), value = trim(line.substr(equals + 1));
    bool known = false;
    for (const char* k : keys) known = known || key == k;
    if (!known) continue;
    p.text += key + "=" + value + "\n";
    if (!readDirective(p, key, value)) p.error += "cannot read " + key + "=" + value + "\n";
  }
  return p;
}

bool applyUnitPriorities(const UnitPriorities& p) {
  bool ok = true;
  if (p.hasRtTime) ok = setrlimit(RLIMIT_RTTIME, &p.rtTime) == 0 && ok;
  if (p.hasMemlock) ok = setrlimit(RLIMIT_MEMLOCK, &p.memlock) == 0 && ok;
  if (p.hasNice) ok = setpriority(PRIO_PROCESS, 0, p.nice) == 0 && ok;
  if (p.hasPolicy) {
    struct sched_param param {};
    param.sched_priority = p.policyPriority;
    ok = sched_setscheduler(0, p.policy | (p.resetOnFork ? SCHED_RESET_ON_FORK : 0), &param) == 0 && ok;
  }
  if (p.hasIoClass)
    ok = syscall(SYS_ioprio_set, kIoprioWhoProcess, 0, (p.ioClass << kIoprioClassShift) | p.ioLevel) == 0 && ok;
  return ok;
}

}  // namespace bench
