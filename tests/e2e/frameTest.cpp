// The service frame end to end: the real ecallService on a private bus with
// the simulated car, asked through the bus as the head unit asks it.
#include <gtest/gtest.h>

#include <ctime>
#include <dirent.h>
#include <regex>

#include "support/e2eHarness.h"
#include "support/testSupport.h"

using testSupport::E2eHarness;
using testSupport::E2eOptions;
using ms = std::chrono::milliseconds;

namespace {

const std::string kRule(113, '-');

// The lines that open a newly created emergency log.
const std::vector<std::string> kLogHeader = {
    "Ecall Log File",
    "Notes on Rx ORC serial impact types:",
    "Bit 0:  H    Bit 1:  I    Bit 2:  K    Bit 3:  L    Bit 4:  M",
    "Bit 8:  A    Bit 9:  B    Bit 10: C    Bit 11: D    Bit 12: E    Bit 13: F    Bit 14: G",
    "Notes on Rx ORC CAN impact types:",
    "Bit 0:  H    Bit 1:  I    Bit 2:  K    Bit 3:  L    Bit 4:  M    Bit 5:  N    Bit 6:  O    Bit 7:  X",
    "Bit 8:  A    Bit 9:  B    Bit 10: C    Bit 11: D    Bit 12: E    Bit 13: F    Bit 14: G    Bit 15: Tgl",
    "Notes on TTS request codes:",
    "1:  Initiate     2:  Incoming,    3:  Ended,       4:  Error,       5:  Retry,       6:  Retry with Cancel",
    "7:  Dialing      8:  ecall PSAP1  9:  ecall PSAP2  10: acn PSAP1    11: acn PSAP2    12: GPS coordinates",
    "Notes on LED status codes:",
    "0:\tOff\t\t1:\tSolid Green\t\t2:\tBlinking Green\t\t3:\tRed",
    kRule,
    "-- START LOG ",
    "-- Time Date : Odometer : Log msg ",
    kRule,
};

const char* kLogFolder = "/fs/etfs/usr/var/ecall";

// The lines of text that are entries carrying message (time stamp, odometer
// field, then the message).
std::vector<std::string> entriesWith(const std::string& text, const std::string& message) {
  std::vector<std::string> found;
  for (const auto& line : testSupport::splitLines(text))
    if (line.find(message) != std::string::npos) found.push_back(line);
  return found;
}

// Files of a folder whose names match pattern.
std::vector<std::string> filesMatching(const std::string& folder, const std::regex& pattern) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir))
      if (std::regex_match(entry->d_name, pattern)) names.push_back(entry->d_name);
    closedir(dir);
  }
  return names;
}

}  // namespace

TEST(ServiceFrame, AnswersStatusQueriesWithFixedMemberNames) {
  E2eOptions options;
  options.simCommands = {"set language fr_CA"};  // the head unit speaks French
  E2eHarness car(options);

  EXPECT_EQ(car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");
  EXPECT_EQ(car.call("getEmergencyCallLanguage"), "{\"language\":\"en_US\"}\n");
}

TEST(ServiceFrame, GivesNoReplyToAMethodItDoesNotKnow) {
  E2eHarness car;
  std::string reply;
  SVCIPC_tError rc = car.invoke("ecallService", "startecall", "{}", 500, &reply);
  EXPECT_TRUE(testSupport::isNoReply(rc)) << "the caller runs into its own time-out, rc 0x" << std::hex << rc;
  EXPECT_TRUE(car.waitForTrace("ecallRequest: startecall, params: {}"));
  // Received, ignored, and the service still answers.
  EXPECT_EQ(car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
  EXPECT_TRUE(car.ecallSignals().empty());
}

TEST(ServiceFrame, WritesALoggedStringAsOneEntryOfANewLog) {
  E2eOptions options;
  options.simCommands = {"odo 7654321"};
  E2eHarness car(options);

  std::string reply;
  SVCIPC_tError rc = car.invoke("ecallService", "logStringToEcallLog",
                                "{\"message\":\"driver reports smoke from the hood\\n\"}", 500, &reply);
  EXPECT_TRUE(testSupport::isNoReply(rc)) << "this method never answers, rc 0x" << std::hex << rc;
  ASSERT_TRUE(car.waitForEmergencyLog("driver reports smoke from the hood\n"));

  std::vector<std::string> lines = testSupport::splitLines(car.emergencyLog());
  ASSERT_GE(lines.size(), kLogHeader.size());
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + kLogHeader.size()), kLogHeader);
  auto entries = entriesWith(car.emergencyLog(), "driver reports smoke");
  ASSERT_EQ(entries.size(), 1u);
  // Time stamp in UTC, then the odometer in tens, then the message as given.
  EXPECT_TRUE(std::regex_match(
      entries[0], std::regex(R"(\d{2}:\d{2}:\d{2} [A-Z][a-z]+ \d{2}, \d{4} GMT:0765432:driver reports smoke from the hood)")))
      << entries[0];
}

TEST(ServiceFrame, MovesTheLogsToTheUsbStick) {
  E2eHarness car;
  car.call("logStringToEcallLog", "{\"message\":\"before the export\\n\"}", 300);
  ASSERT_TRUE(car.waitForEmergencyLog("before the export"));
  const std::string gpsLog = car.path(std::string(kLogFolder) + "/GPSReset.log");
  testSupport::writeFile(gpsLog, "gps reset 1\n");
  const std::string localLog = car.path(std::string(kLogFolder) + "/ecall_log.txt");

  time_t before = time(nullptr);
  EXPECT_EQ(car.call("saveEmergencyLogToUSBAndRemoveLocalLog"), "{\"result\":\"OK\"}\n");
  // The local files go only once their copy is complete (a new log may
  // start at once with later entries, but not with the exported one).
  ASSERT_TRUE(testSupport::waitUntil([&] {
    return !testSupport::fileExists(gpsLog) && entriesWith(testSupport::readFile(localLog), "before the export").empty();
  }, ms(10000)));
  time_t after = time(nullptr);

  const std::string usb = car.path("/fs/usb0");
  auto logs = filesMatching(usb, std::regex(R"(ecall_log(\d+)\.txt)"));
  ASSERT_EQ(logs.size(), 1u);
  long long seconds = std::stoll(logs[0].substr(9));
  EXPECT_GE(seconds, static_cast<long long>(before));
  EXPECT_LE(seconds, static_cast<long long>(after));
  std::string copy = testSupport::readFile(usb + "/" + logs[0]);
  EXPECT_EQ(copy.rfind(kLogHeader[0] + "\n", 0), 0u);
  EXPECT_EQ(entriesWith(copy, "before the export").size(), 1u);

  auto gps = filesMatching(usb, std::regex(R"(GPSReset\.log\d+\.txt)"));
  ASSERT_EQ(gps.size(), 1u);
  EXPECT_EQ(testSupport::readFile(usb + "/" + gps[0]), "gps reset 1\n");
}
