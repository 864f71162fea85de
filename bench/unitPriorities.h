// The CPU and disk priorities and the limits that a systemd unit or drop-in
// gives a process, read from the file itself so that a benchmark runs the
// process exactly as the unit would, and applied the way the service manager
// applies them: in the new process, before its program starts.
#pragma once

#include <sys/resource.h>

#include <string>

namespace bench {

struct UnitPriorities {
  bool hasNice = false;
  int nice = 0;
  bool hasPolicy = false;
  int policy = 0;  // SCHED_OTHER, SCHED_FIFO, ...
  int policyPriority = 0;
  bool resetOnFork = false;
  bool hasIoClass = false;
  int ioClass = 0;  // 1 realtime, 2 best-effort, 3 idle
  int ioLevel = 4;
  bool hasRtTime = false;
  struct rlimit rtTime {};  // microseconds
  bool hasMemlock = false;
  struct rlimit memlock {};  // bytes
  // The directives as read, one "Key=value" a line, or an error.
  std::string text;
  std::string error;
};

// The unit file of the source tree (data/systemd/ecallService.service.in).
std::string serviceUnitFile();
// ecall-headunit's unit (data/headunit/ecall-headunit.service.in).
std::string headUnitUnitFile();
// The drop-in installed for the system bus daemon (data/systemd/emergency-path.conf).
std::string busDaemonDropInFile();
// Reads Nice=, CPUSchedulingPolicy=, CPUSchedulingPriority=,
// CPUSchedulingResetOnFork=, IOSchedulingClass=, IOSchedulingPriority=,
// LimitRTTIME= and LimitMEMLOCK=; error is set for a value it cannot read.
UnitPriorities readUnitPriorities(const std::string& unitFile);
// Applies them to the calling process; only system calls, so that it can run
// between fork and exec. False when one was refused.
bool applyUnitPriorities(const UnitPriorities& p);

}  // namespace bench
