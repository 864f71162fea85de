// What cmake --install puts where, whether systemd accepts it, the readiness it waits for.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "support/e2eHarness.h"

namespace fs = std::filesystem;
using testSupport::Outcome;
using testSupport::readFile;

namespace {

const std::string kBusName = "com.nordak.service.ecallService";

using Stage = testSupport::TempRoot;

Outcome install(const std::string& prefix, const std::string& destdir) {
  std::vector<std::string> env;
  if (!destdir.empty()) env.push_back("DESTDIR=" + destdir);
  return testSupport::run({ECALL_CMAKE_COMMAND, "--install", ECALL_BUILD_DIR, "--prefix", prefix}, env,
                           std::chrono::seconds(60));
}

bool isExecutable(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & S_IXUSR) != 0;
}

std::string findProgram(const std::string& name) {
  for (const char* dir : {"/usr/bin", "/bin", "/usr/local/bin"})
    if (isExecutable(std::string(dir) + "/" + name)) return std::string(dir) + "/" + name;
  return "";
}

// systemd-analyze verify passes unit and says nothing of file (warnings name the file).
void expectAccepted(const std::string& analyze, const std::string& unit, const std::string& file) {
  const Outcome verify = testSupport::run({analyze, "verify", unit});
  EXPECT_EQ(verify.exitCode, 0) << unit << "\n" << verify.out << verify.err;
  EXPECT_EQ((verify.out + verify.err).find(file), std::string::npos) << verify.out << verify.err;
}

}  // namespace

TEST(Install, PutsEveryFileInPlaceUnderTheStagingFolder) {
  Stage stage;
  const Outcome outcome = install("/usr", stage.dir());
  ASSERT_EQ(outcome.exitCode, 0) << outcome.out << outcome.err;
  const std::string usr = stage.dir() + "/usr";

  for (const char* program : {"ecallService", "ecallctl", "vehicle-sim"})
    EXPECT_TRUE(isExecutable(usr + "/bin/" + program)) << program;
  const Outcome version = testSupport::run({usr + "/bin/ecallService", "--version"});
  EXPECT_EQ(version.out, "1.2.1r\n");

  // The units name the installed binary, not the build's configured one.
  const std::string unit = readFile(usr + "/lib/systemd/system/ecallService.service");
  EXPECT_TRUE(testSupport::containsInOrder(testSupport::splitLines(unit),
                                           {"Type=notify", "ExecStart=/usr/bin/ecallService --bus system",
                                            "WatchdogSec=10s"})) << unit;
  const std::string activation = readFile(usr + "/share/dbus-1/system-services/" + kBusName + ".service");
  EXPECT_TRUE(testSupport::containsInOrder(testSupport::splitLines(activation),
                                           {"Name=" + kBusName, "Exec=/usr/bin/ecallService --bus system",
                                            "SystemdService=ecallService.service"})) << activation;
  EXPECT_EQ(readFile(usr + "/share/dbus-1/system.d/" + kBusName + ".conf"),
            readFile(std::string(ECALL_SOURCE_DIR) + "/data/dbus/" + kBusName + ".conf"));
  EXPECT_NE(readFile(usr + "/lib/tmpfiles.d/ecallService.conf").find("/fs/etfs/usr/var/ecall"), std::string::npos);

  for (const auto& entry : fs::recursive_directory_iterator(stage.dir()))
    EXPECT_EQ(entry.path().string().rfind(usr, 0), 0u) << entry.path();
}

// The units and drop-ins pass systemd's checks; tmpfiles makes the log folder.
TEST(Install, SystemdAcceptsTheUnitsAndDropInsAndMakesTheLogFolder) {
  const std::string analyze = findProgram("systemd-analyze");
  const std::string tmpfiles = findProgram("systemd-tmpfiles");
  if (analyze.empty() || tmpfiles.empty()) GTEST_SKIP() << "systemd's tools are not installed (package systemd)";
  Stage stage;
  const Outcome installed = install(stage.dir(), "");
  ASSERT_EQ(installed.exitCode, 0) << installed.out << installed.err;

  const std::string units = stage.dir() + "/lib/systemd/system/";
  expectAccepted(analyze, units + "ecallService.service", "ecallService.service");
  std::vector<std::string> dropIns = {"dbus.service.d/ecallService.conf"};
  if (isExecutable(stage.dir() + "/bin/ecall-headunit")) {
    expectAccepted(analyze, units + "ecall-headunit.service", "ecall-headunit.service");
    dropIns.push_back("ofono.service.d/ecall-headunit.conf");
  }
  // Each drop-in beside a stand-in for the daemon's own unit.
  for (const std::string& dropIn : dropIns) {
    ASSERT_TRUE(fs::is_regular_file(units + dropIn)) << dropIn << " is not installed";
    const std::string copy = stage.dir() + "/standIns/" + dropIn;
    fs::create_directories(fs::path(copy).parent_path());
    fs::copy_file(units + dropIn, copy);
    const std::string standIn = fs::path(copy).parent_path().replace_extension().string();
    testSupport::writeFile(standIn, "[Service]\nExecStart=/bin/true\n");
    expectAccepted(analyze, standIn, copy);
  }

  const std::string root = stage.dir() + "/root";
  fs::create_directories(root);
  const Outcome created =
      testSupport::run({tmpfiles, "--create", "--root=" + root, stage.dir() + "/lib/tmpfiles.d/ecallService.conf"});
  EXPECT_EQ(created.exitCode, 0) << created.out << created.err;
  EXPECT_TRUE(fs::is_directory(root + "/fs/etfs/usr/var/ecall"));
}

// Under Type=notify, the service's name is on the bus once it says ready.
TEST(Install, ServiceIsReadyOnlyOnceItsNameIsOnTheBus) {
  testSupport::E2eOptions options;
  options.startService = false;
  Stage stage;
  options.serviceEnv = {"NOTIFY_SOCKET=" + stage.dir() + "/notify"};
  testSupport::E2eHarness car(options);
  testSupport::NotifySocket manager(stage.dir() + "/notify");
  SVCIPC_tConnection conn = nullptr;
  ASSERT_EQ(SVCIPC_getConnectionByAddress(car.busAddress().c_str(), &conn), SVCIPC_ERROR_NONE);

  std::string message;
  int ownedWhenReady = -1;
  std::thread reader([&] {
    message = manager.next(std::chrono::seconds(20));
    SVCIPC_nameHasOwner(conn, kBusName.c_str(), &ownedWhenReady);
  });
  car.startService();
  reader.join();
  SVCIPC_closeConnection(conn);
  EXPECT_EQ(message, "READY=1");
  EXPECT_EQ(ownedWhenReady, 1) << "ready before the service was on the bus";
  EXPECT_TRUE(car.serviceRunning());
}
