// Emergency log: entries per second appended by the processor's own
// addEntryToEmergencyLog (open, odometer read, one synchronous write, close),
// against plain synchronous 256-byte appends to the same file system in the
// same run: once on a descriptor kept open (the floor), once opening and
// closing the file for each entry as the log does. The three take turns in
// three rounds; the median round of each is shown.
//
// Usage: bench_emergencyLog [ENTRIES]   (default 3000; the log stays under
//        its size limit, so no reset is counted)
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "benchCommon.h"
#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "support/testSupport.h"

namespace {

constexpr size_t kEntrySize = 256;

long fileSize(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

// Appends per second of count 256-byte synchronous writes; keepOpen: one
// descriptor for all of them.
double plainAppends(const std::string& path, int count, bool keepOpen) {
  const std::string entry(kEntrySize - 1, 'x');
  const std::string line = entry + "\n";
  unlink(path.c_str());
  int fd = open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_DSYNC, 0666);
  if (fd < 0) return 0;
  double start = bench::now();
  for (int i = 0; i < count; ++i) {
    if (!keepOpen) fd = open(path.c_str(), O_RDWR | O_APPEND | O_DSYNC);
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) perror("append");
    if (!keepOpen) close(fd);
  }
  double elapsed = bench::now() - start;
  if (keepOpen) close(fd);
  return count / elapsed;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(10, atoi(argv[1])) : 3000;
  bench::printMachine("emergency log appends, " + std::to_string(count) + " entries");
  testSupport::TempRoot root;
  // The car's status object, so that every entry reads a real odometer.
  mkdir(root.path("/pps").c_str(), 0777);
  mkdir(root.path("/pps/can").c_str(), 0777);
  std::ofstream(root.path(vehicleStatusPPSPath)) << "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::1234567\n";
  createProcessObjects();
  // As the processor's initialisation does: appends take the log's lock.
  ecallHandler.initLocks();

  const std::string logPath = root.path(emergencyLogPath);
  struct statfs fs {};
  statfs(root.dir().c_str(), &fs);
  printf("   file system of %s: type 0x%lx\n", root.dir().c_str(), static_cast<unsigned long>(fs.f_type));

  // The text fills the entry after the time stamp and odometer fields.
  const std::string text = std::string(kEntrySize - 60, 'e') + "\n";
  ecallHandler.addEntryToEmergencyLog(text.c_str());  // the header is written once
  const long before = fileSize(logPath);
  const std::string plainPath = root.dir() + "/plain.txt";

  // The disk's time for a synchronous write drifts within a run: the three
  // take turns for three rounds of a third each, and the median round of
  // each is compared.
  constexpr int kRounds = 3;
  const int perRound = std::max(1, count / kRounds);
  std::vector<double> service, keptOpen, reopened;
  std::string rounds;
  for (int round = 0; round < kRounds; ++round) {
    double start = bench::now();
    for (int i = 0; i < perRound; ++i) ecallHandler.addEntryToEmergencyLog(text.c_str());
    service.push_back(perRound / (bench::now() - start));
    keptOpen.push_back(plainAppends(plainPath, perRound, true));
    reopened.push_back(plainAppends(plainPath, perRound, false));
    rounds += " " + std::to_string(static_cast<long>(service.back())) + "/" +
              std::to_string(static_cast<long>(keptOpen.back()));
  }
  const double bytesPerEntry = static_cast<double>(fileSize(logPath) - before) / (perRound * kRounds);
  const double s = median(service), f = median(keptOpen), r = median(reopened);

  printf("\n%-52s %12s %10s\n", "", "entries/s", "vs floor");
  printf("%-52s %12.0f %9.2fx\n", "addEntryToEmergencyLog", s, f / s);
  printf("%-52s %12.0f %9.2fx\n", "plain 256-byte O_DSYNC appends, open each time", r, f / r);
  printf("%-52s %12.0f %9.2fx\n", "plain 256-byte O_DSYNC appends, one descriptor (floor)", f, 1.0);
  printf("   rounds (service/floor):%s\n", rounds.c_str());
  printf("   bytes per service entry: %.0f\n", bytesPerEntry);
  return 0;
}
