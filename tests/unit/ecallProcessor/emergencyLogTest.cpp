// The emergency log file.
#include <filesystem>
#include <regex>
#include <thread>

#include "unit/unitFixture.h"

namespace {

const std::string HEADER_END = "-- Time Date : Odometer : Log msg \n" + std::string(113, '-') + "\n";
// "14:03:27 March 05, 2014 GMT:" in UTC.
const std::string STAMP = "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] [A-Z][a-z]+ [0-3][0-9], 20[0-9][0-9] GMT:";

class EmergencyLog : public UnitFixture {
 protected:
  void SetUp() override {
    UnitFixture::SetUp();  // the process objects write their version entry
    std::filesystem::remove_all(root.path("/fs"));  // a device that never had a log
  }
  // The entries after the one header the log starts with.
  std::string entries() const {
    const std::string text = emergencyLog();
    const size_t end = text.find(HEADER_END);
    const bool oneHeader = text.rfind("Ecall Log File\n", 0) == 0 && text.find("Ecall Log File", 1) == std::string::npos;
    return oneHeader && end != std::string::npos ? text.substr(end + HEADER_END.size()) : "<no single header>";
  }
  bool entriesAre(const std::string& pattern) const { return std::regex_match(entries(), std::regex(pattern)); }
  void writeOdometer(const std::string& ppsText) { testSupport::writeFile(root.path(vehicleStatusPPSPath), ppsText); }
};

// The first entry makes the folder and header; entries follow as given (no line end: the next
// runs on), the odometer in tens or missing; an entry too long is cut and still ends its line.
TEST_F(EmergencyLog, EntriesFollowTheHeaderWithStampAndOdometerAndAreCutToSize) {
  ecallHandler.addEntryToEmergencyLog("first");  // no status object yet
  writeOdometer("@vehstat\nE_CALL_BtnStat::1\n");
  ecallHandler.addEntryToEmergencyLog("second\n");
  EXPECT_TRUE(log.hasTrace("Odometer does not exist in the target PPS file, /pps/can/vehstat\n"));
  writeOdometer("@vehstat\nE_CALL_BtnStat::0\nODO::1234567\nU_CALL_BtnStat::0\n");
  ecallHandler.addFormattedEntryToEmergencyLog("third %d\n", 3);
  EXPECT_TRUE(entriesAre(STAMP + "ODO N/A:first" + STAMP + "ODO N/A:second\n" + STAMP + "0123456:third 3\n")) << entries();

  const size_t before = emergencyLog().size();
  ecallHandler.addEntryToEmergencyLog((std::string(10000, 'a') + "\n").c_str());
  const std::string after = emergencyLog();
  EXPECT_EQ(after.size(), before + EMERGENCY_LOG_ENTRY_SIZE - 1);
  EXPECT_TRUE(after.ends_with("aa\n")) << "a cut entry still ends its line";
}

TEST_F(EmergencyLog, LogAtItsSizeLimitStartsAgainWithTheResetLines) {
  const std::string path = root.path(emergencyLogPath);
  testSupport::writeFile(path, std::string(EMERGENCY_LOG_SIZE_LIMIT - EMERGENCY_LOG_ENTRY_SIZE - 1, 'x'));
  ecallHandler.addEntryToEmergencyLog("still fits\n");
  EXPECT_EQ(emergencyLog().substr(0, 3), "xxx");

  testSupport::writeFile(path, std::string(EMERGENCY_LOG_SIZE_LIMIT - EMERGENCY_LOG_ENTRY_SIZE, 'x'));
  ecallHandler.addEntryToEmergencyLog("after reset\n");
  EXPECT_TRUE(entriesAre(STAMP + " ERROR -- Log file has been cleared due to too many crash and emergency events\\.\n" +
                         STAMP + "          If performing crash testing, advise to dump the log to USB between crashes\n" +
                         STAMP + "ODO N/A:after reset\n"))
      << entries();
}

// Entries of many threads, with and without the log lock: each whole, on its own line, once.
TEST_F(EmergencyLog, ConcurrentEntriesLandWholeAndExactlyOnce) {
  constexpr int THREADS = 6, ENTRIES = 40;
  auto appendAll = [](const char* phase) {
    std::vector<std::jthread> writers;
    for (int t = 0; t < THREADS; ++t)
      writers.emplace_back([t, phase] {
        for (int i = 0; i < ENTRIES; ++i)
          ecallHandler.addFormattedEntryToEmergencyLog("%s writer %d entry %d %s\n", phase, t, i, std::string(100, 'a' + t).c_str());
      });
  };

  writeOdometer("@vehstat\nODO::120\n");
  ecallHandler.initLocks();
  ASSERT_TRUE(processProbe::uselogWriteMutex());
  appendAll("locked");
  processProbe::uselogWriteMutex() = false;
  appendAll("unlocked");  // the file exists now: appends alone keep lines whole

  std::vector<int> seen(2 * THREADS * ENTRIES, 0);
  const std::regex entry(STAMP + "0000012:(locked|unlocked) writer ([0-9]+) entry ([0-9]+) ([a-z]+)");
  for (const std::string& line : testSupport::splitLines(entries())) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, entry)) << line;
    const int t = std::stoi(m[2]);
    EXPECT_EQ(m[4].str(), std::string(100, 'a' + t));
    ++seen[(m[1] == "locked" ? 0 : THREADS * ENTRIES) + t * ENTRIES + std::stoi(m[3])];
  }
  for (size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], 1) << "entry " << i;
}

// The GPS reset log goes along whole (over one copy chunk) and is removed; a new log follows.
TEST_F(EmergencyLog, ExportCopiesBothLogsWholeThenRemovesThem) {
  ecallHandler.addEntryToEmergencyLog("before export\n");
  const std::string original = emergencyLog();
  const std::string usb = root.path("/fs/usb0");
  testSupport::makeDirs(usb);
  const std::string gpsLog(3000, 'g');
  testSupport::writeFile(root.path(gpsResetLogPath), gpsLog);
  ecallHandler.saveEmergencyLogToUSBAndRemoveLocalLog();
  std::vector<std::string> copies;
  for (const auto& file : std::filesystem::directory_iterator(usb)) copies.push_back(testSupport::readFile(file.path()));
  std::sort(copies.begin(), copies.end());
  EXPECT_EQ(copies, (std::vector<std::string>{original, gpsLog}));
  EXPECT_FALSE(testSupport::fileExists(root.path(gpsResetLogPath)));
  ecallHandler.addEntryToEmergencyLog("after export\n");
  EXPECT_TRUE(entriesAre(STAMP + "ODO N/A:after export\n")) << entries();
}

}  // namespace
