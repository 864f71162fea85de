// The emergency log file, its export to a USB stick, and the marker files.
#include <gtest/gtest.h>
#include <pthread.h>

#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace {

const std::string RULE(113, '-');
const std::string HEADER =
    "Ecall Log File\n"
    "Notes on Rx ORC serial impact types:\n"
    "Bit 0:  H    Bit 1:  I    Bit 2:  K    Bit 3:  L    Bit 4:  M\n"
    "Bit 8:  A    Bit 9:  B    Bit 10: C    Bit 11: D    Bit 12: E    Bit 13: F    Bit 14: G\n"
    "Notes on Rx ORC CAN impact types:\n"
    "Bit 0:  H    Bit 1:  I    Bit 2:  K    Bit 3:  L    Bit 4:  M    Bit 5:  N    Bit 6:  O    Bit 7:  X\n"
    "Bit 8:  A    Bit 9:  B    Bit 10: C    Bit 11: D    Bit 12: E    Bit 13: F    Bit 14: G    Bit 15: Tgl\n"
    "Notes on TTS request codes:\n"
    "1:  Initiate     2:  Incoming,    3:  Ended,       4:  Error,       5:  Retry,       6:  Retry with Cancel\n"
    "7:  Dialing      8:  ecall PSAP1  9:  ecall PSAP2  10: acn PSAP1    11: acn PSAP2    12: GPS coordinates\n"
    "Notes on LED status codes:\n"
    "0:\tOff\t\t1:\tSolid Green\t\t2:\tBlinking Green\t\t3:\tRed\n" +
    RULE + "\n-- START LOG \n-- Time Date : Odometer : Log msg \n" + RULE + "\n";

// "14:03:27 March 05, 2014 GMT:" in UTC.
const std::string STAMP = "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] [A-Z][a-z]+ [0-3][0-9], 20[0-9][0-9] GMT:";

class emergencyLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    createProcessObjects();  // writes its version entry
    std::filesystem::remove_all(root.path("/fs"));  // a device that never had a log
    log.clear();
  }
  std::string logPath() const { return root.path(emergencyLogPath); }
  std::string logText() const { return testSupport::readFile(logPath()); }
  void writeOdometer(const std::string& ppsText) { testSupport::writeFile(root.path(vehicleStatusPPSPath), ppsText); }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
};

TEST_F(emergencyLogTest, FirstEntryMakesFolderAndHeaderThenEntriesFollowAsGiven) {
  ecallHandler.addEntryToEmergencyLog("first");  // no line end: the next entry runs on
  ecallHandler.addFormattedEntryToEmergencyLog("second %d\n", 2);

  const std::string text = logText();
  ASSERT_EQ(text.substr(0, HEADER.size()), HEADER);
  EXPECT_TRUE(std::regex_match(text.substr(HEADER.size()),
                               std::regex(STAMP + "ODO N/A:first" + STAMP + "ODO N/A:second 2\n")))
      << text.substr(HEADER.size());
}

TEST_F(emergencyLogTest, OdometerIsReadInUnitsOfTenOrMarkedUnavailable) {
  writeOdometer("@vehstat\nE_CALL_BtnStat::0\nODO::1234567\nU_CALL_BtnStat::0\n");
  ecallHandler.addEntryToEmergencyLog("a\n");
  writeOdometer("@vehstat\nE_CALL_BtnStat::1\n");
  ecallHandler.addEntryToEmergencyLog("c\n");

  const std::string entries = logText().substr(HEADER.size());
  EXPECT_TRUE(std::regex_match(entries, std::regex(STAMP + "0123456:a\n" + STAMP + "ODO N/A:c\n")))
      << entries;
  EXPECT_TRUE(log.hasTrace("Odometer does not exist in the target PPS file, /pps/can/vehstat\n"));
}

TEST_F(emergencyLogTest, LogAtItsSizeLimitStartsAgainWithTheResetLines) {
  testSupport::writeFile(logPath(), std::string(EMERGENCY_LOG_SIZE_LIMIT - EMERGENCY_LOG_ENTRY_SIZE - 1, 'x'));
  ecallHandler.addEntryToEmergencyLog("still fits\n");
  EXPECT_EQ(logText().substr(0, 3), "xxx");

  testSupport::writeFile(logPath(), std::string(EMERGENCY_LOG_SIZE_LIMIT - EMERGENCY_LOG_ENTRY_SIZE, 'x'));
  ecallHandler.addEntryToEmergencyLog("after reset\n");
  const std::string text = logText();
  ASSERT_EQ(text.substr(0, HEADER.size()), HEADER);
  EXPECT_TRUE(std::regex_match(
      text.substr(HEADER.size()),
      std::regex(STAMP + " ERROR -- Log file has been cleared due to too many crash and emergency events\\.\n" + STAMP +
                 "          If performing crash testing, advise to dump the log to USB between crashes\n" + STAMP +
                 "ODO N/A:after reset\n")))
      << text.substr(HEADER.size());
}

// Entries from many threads at once, before and after the log lock exists:
// each lands whole, on its own line, exactly once, under one header.
TEST_F(emergencyLogTest, ConcurrentEntriesLandWholeAndExactlyOnce) {
  constexpr int THREADS = 6;
  constexpr int ENTRIES = 40;
  auto appendAll = [](const char* phase) {
    std::vector<std::thread> writers;
    for (int t = 0; t < THREADS; ++t)
      writers.emplace_back([t, phase] {
        for (int i = 0; i < ENTRIES; ++i)
          ecallHandler.addFormattedEntryToEmergencyLog("%s writer %d entry %d %s\n", phase, t, i,
                                                       std::string(100, 'a' + t).c_str());
      });
    for (auto& writer : writers) writer.join();
  };

  writeOdometer("@vehstat\nODO::120\n");
  ASSERT_EQ(pthread_mutex_init(&logWriteMutex, nullptr), 0);
  uselogWriteMutex = true;
  appendAll("locked");
  uselogWriteMutex = false;
  appendAll("unlocked");  // the file exists now: appends alone keep lines whole

  const std::string text = logText();
  ASSERT_EQ(text.substr(0, HEADER.size()), HEADER);
  EXPECT_EQ(text.find("Ecall Log File", 1), std::string::npos);
  std::vector<int> seen(2 * THREADS * ENTRIES, 0);
  const std::regex entry(STAMP + "0000012:(locked|unlocked) writer ([0-9]+) entry ([0-9]+) ([a-z]+)");
  for (const std::string& line : testSupport::splitLines(text.substr(HEADER.size()))) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, entry)) << line;
    const int t = std::stoi(m[2]);
    EXPECT_EQ(m[4].str(), std::string(100, 'a' + t));
    ++seen[(m[1] == "locked" ? 0 : THREADS * ENTRIES) + t * ENTRIES + std::stoi(m[3])];
  }
  for (size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], 1) << "entry " << i;
}

// Files on the stick whose names match pattern, with their contents.
std::vector<std::string> usbFiles(const std::string& folder, const std::string& pattern) {
  std::vector<std::string> contents;
  for (const auto& file : std::filesystem::directory_iterator(folder))
    if (std::regex_match(file.path().filename().string(), std::regex(pattern)))
      contents.push_back(testSupport::readFile(file.path()));
  return contents;
}

TEST_F(emergencyLogTest, ExportMovesOnlyWhatWasCopiedCompletely) {
  ecallHandler.addEntryToEmergencyLog("before export\n");
  const std::string original = logText();
  ecallHandler.saveEmergencyLogToUSBAndRemoveLocalLog();  // no stick
  EXPECT_TRUE(log.hasTrace("Failed open USB logfile to write, errno 2 (No such file or directory)\n"));
  EXPECT_TRUE(log.hasTrace("Failed open gpsreset logfile, errno 2 (No such file or directory)\n"));
  EXPECT_TRUE(testSupport::fileExists(logPath()));

  const std::string usb = root.path("/fs/usb0");
  testSupport::makeDirs(usb);
  const std::string gpsLog(3000, 'g');  // more than one copy chunk
  testSupport::writeFile(root.path(gpsResetLogPath), gpsLog);
  ecallHandler.saveEmergencyLogToUSBAndRemoveLocalLog();
  EXPECT_EQ(usbFiles(usb, "ecall_log[0-9]+\\.txt"), std::vector<std::string>{original});
  EXPECT_EQ(usbFiles(usb, "GPSReset\\.log[0-9]+\\.txt"), std::vector<std::string>{gpsLog});
  EXPECT_FALSE(testSupport::fileExists(logPath()));
  EXPECT_FALSE(testSupport::fileExists(root.path(gpsResetLogPath)));

  ecallHandler.addEntryToEmergencyLog("after export\n");
  EXPECT_EQ(logText().substr(0, HEADER.size()), HEADER);
}

TEST_F(emergencyLogTest, MarkerFilesAreMadeAndRemovedQuietlyWhenAlreadyThere) {
  const std::string flag = root.path(embeddedCallActiveFlag);
  ecallHandler.createFlagInTmp(true, embeddedCallActiveFlag);
  ecallHandler.createFlagInTmp(true, embeddedCallActiveFlag);
  EXPECT_TRUE(testSupport::fileExists(flag));
  ecallHandler.createFlagInTmp(false, embeddedCallActiveFlag);
  ecallHandler.createFlagInTmp(false, embeddedCallActiveFlag);
  EXPECT_FALSE(testSupport::fileExists(flag));
  EXPECT_EQ(log.traces(), (std::vector<std::string>{"successfully created flag file in /tmp/embeddedCallActive",
                                                    "Successfully removed flag file /tmp/embeddedCallActive "}));
}

}  // namespace
