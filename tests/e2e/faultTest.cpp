// The log's file system refusing writes, no USB stick, the vehicle object
// replaced and removed: after each the service still places a call.
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>

#include "carScene.h"

using namespace carScene;

namespace {

const char* const kLogFolder = "/fs/etfs/usr/var/ecall";

// Mounts of a test live in a namespace of its thread and the processes it starts.
bool privateMounts() {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

struct SmallFileSystem {
  SmallFileSystem(const std::string& folder, unsigned long flags, const char* options) : dir(folder) {
    testSupport::makeDirs(dir);
    mounted = mount("tmpfs", dir.c_str(), "tmpfs", flags, options) == 0;
    EXPECT_TRUE(mounted) << strerror(errno);
  }
  ~SmallFileSystem() {
    if (mounted) umount2(dir.c_str(), MNT_DETACH);
  }
  bool remount(unsigned long flags) { return mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0; }
  std::string dir;
  bool mounted = false;
};

}  // namespace

// Past a file size limit entries are lost whole, the service unharmed; then the log goes on.
TEST(Faults, FileSizeLimitOnTheLog) {
  Scene s(carOptions(kScale));
  const std::string before = s.car.emergencyLog();
  struct rlimit old {};
  ASSERT_EQ(prlimit(s.car.servicePid(), RLIMIT_FSIZE, nullptr, &old), 0);
  struct rlimit tight = old;
  tight.rlim_cur = before.size() + 150;
  ASSERT_EQ(prlimit(s.car.servicePid(), RLIMIT_FSIZE, &tight, nullptr), 0) << strerror(errno);

  ASSERT_TRUE(logThrough(s.car, "fits"));
  expectStartEcallDials(s.car);
  const std::string full = s.car.emergencyLog();
  EXPECT_EQ(full.rfind(before, 0), 0u) << "the entries before the limit changed";
  EXPECT_LE(full.size(), tight.rlim_cur);

  ASSERT_EQ(prlimit(s.car.servicePid(), RLIMIT_FSIZE, &old, nullptr), 0);
  ASSERT_TRUE(logThrough(s.car, "room again"));
  for (const auto& line : testSupport::splitLines(s.car.emergencyLog().substr(before.size())))
    EXPECT_EQ(countOf(line, " GMT:"), 1u) << "not one entry: " << line;
}

// A log folder read-only, then full: the call is placed, entries that do not fit
// are lost whole; writable again or emptied by the export, the log starts afresh.
TEST(Faults, LogFolderNotWritableOrFull) {
  E2eHarness car(carOptions(kScale, {}, false));
  if (!privateMounts()) GTEST_SKIP() << "mounting needs root (CAP_SYS_ADMIN): " << strerror(errno);
  SmallFileSystem folder(car.path(kLogFolder), MS_RDONLY, "size=8k");
  ASSERT_TRUE(folder.mounted);
  // Ends the emergency, so that none of its entries races what follows.
  auto exitEcall = [&] {
    const size_t beforeExit = car.recordMark();
    ASSERT_EQ(car.call("exitEcall"), kOk);
    ASSERT_FALSE(car.waitForEcallSignalSince(beforeExit, [](const Json::Value& sig) {
                      return !sig["ecallModeActive"].asBool();
                    }, kLong).isNull());
  };
  car.startService();
  ASSERT_TRUE(car.waitForServiceStarted());
  ASSERT_TRUE(car.waitForTrace("Failed to open internal logfile, errno 30", kLong));
  expectStartEcallDials(car);
  EXPECT_FALSE(testSupport::fileExists(car.path(std::string(kLogFolder) + "/ecall_log.txt")));
  ASSERT_TRUE(folder.remount(0)) << strerror(errno);
  ASSERT_TRUE(logThrough(car, "writable again"));
  EXPECT_EQ(car.emergencyLog().rfind("Ecall Log File\n", 0), 0u);
  ASSERT_NO_FATAL_FAILURE(exitEcall());

  // The log keeps one page of the two; the other is taken.
  testSupport::writeFile(folder.dir + "/filler", std::string(4096, 'f'));
  const std::string filling = "{\"message\":\"" + std::string(200, 'x') + "\\n\"}";
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(car.notify("logStringToEcallLog", filling));
  ASSERT_TRUE(car.waitForTrace("to internal logfile, errno 28", kLong));
  expectStartEcallDials(car);
  // An entry that does not fit is written in part, then taken back.
  std::string full;
  EXPECT_TRUE(testSupport::waitUntil(
      [&] { return !(full = car.emergencyLog()).empty() && full.back() == '\n'; }, kLong))
      << "a partly written entry was left behind";
  EXPECT_LE(full.size(), 4096u);
  for (const auto& line : testSupport::splitLines(full))
    EXPECT_LE(countOf(line, " GMT:"), 1u) << "not one entry: " << line;

  // The kernel counts the export's room free a moment after the log's removal.
  ASSERT_NO_FATAL_FAILURE(exitEcall());
  EXPECT_EQ(car.call("saveEmergencyLogToUSBAndRemoveLocalLog"), kOk);
  ASSERT_TRUE(testSupport::waitUntil([&] {
    struct statvfs room {};
    return statvfs(folder.dir.c_str(), &room) == 0 && room.f_bfree > 0;
  }, kLong));
  ASSERT_TRUE(logThrough(car, "after the export"));
  EXPECT_EQ(car.emergencyLog().rfind("Ecall Log File\n", 0), 0u);
}

// No USB stick: the export fails, the local log stays whole; with one it takes it all.
// The vehicle object and its folder replaced, removed, recreated: the odometer follows.
TEST(Faults, UsbStickMissingAndVehicleObjectReplacedRemovedAndRecreated) {
  Scene s(carOptions(kScale));
  std::error_code ec;
  std::filesystem::remove_all(s.car.path("/fs/usb0"), ec);
  ASSERT_TRUE(logThrough(s.car, "before the export"));
  const std::string before = s.car.emergencyLog();
  EXPECT_EQ(s.car.call("saveEmergencyLogToUSBAndRemoveLocalLog"), kOk);
  ASSERT_TRUE(s.car.waitForTrace("Failed open USB logfile to write, errno 2", kLong));
  EXPECT_EQ(s.car.emergencyLog().rfind(before, 0), 0u) << "the local log was not kept";

  testSupport::makeDirs(s.car.path("/fs/usb0"));
  EXPECT_EQ(s.car.call("saveEmergencyLogToUSBAndRemoveLocalLog"), kOk);
  ASSERT_TRUE(testSupport::waitUntil([&] { return s.countInTrace("End of function for moving log file") == 2; }, kLong));
  EXPECT_EQ(exportedLog(s.car).rfind(before, 0), 0u) << "the export lacks entries of the kept log";

  replaceVehicleObject(s.car, "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::4200\nSPEED::0\n");
  ASSERT_TRUE(logThrough(s.car, "replaced", "0000420:replaced"));

  ASSERT_EQ(unlink(s.car.path("/pps/can/vehstat").c_str()), 0);
  ASSERT_TRUE(logThrough(s.car, "removed", "ODO N/A:removed"));
  s.button("ecall", true);  // the simulator writes the object anew
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial"));
  s.button("ecall", false);
  ASSERT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_TRUE(s.waitForIdle());

  const std::string folder = s.car.path("/pps/can");
  ASSERT_GT(std::filesystem::remove_all(folder, ec), 0u) << ec.message();
  ASSERT_TRUE(s.car.waitForSlog("Error reading pps file /pps/can/vehstat", kLong));
  testSupport::makeDirs(folder);
  s.markNow();
  s.sim("button ecall press");
  EXPECT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "a press in the recreated object did not call";
}
