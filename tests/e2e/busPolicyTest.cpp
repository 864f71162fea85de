// The installed bus policy on a private bus denying by default; the car has its own account.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "carScene.h"

using namespace carScene;
using testSupport::Outcome;

namespace {

const char* const kCarUser = "ecall-e2e-car";
const char* const kMemberUser = "ecall-e2e-member";
const char* const kCallerGroup = "ecall";
const std::string kPolicyFile = std::string(ECALL_SOURCE_DIR) + "/data/dbus/com.nordak.service.ecallService.conf";
Outcome run(const std::string& command) { return testSupport::run({"/bin/sh", "-c", command + " 2>&1"}); }

// The test's accounts, each made when missing and then removed at the end.
class Accounts {
 public:
  Accounts() {
    const std::string userAdd = "useradd --system --no-create-home --shell /usr/sbin/nologin --user-group ";
    if (!getgrnam(kCallerGroup)) make(kCallerGroup, "groupadd --system ", "groupdel ");
    if (!getpwnam(kCarUser)) make(kCarUser, userAdd, "userdel ");
    if (!getpwnam(kMemberUser)) make(kMemberUser, userAdd + "--groups " + kCallerGroup + " ", "userdel ");
  }
  ~Accounts() {
    for (auto removal = mRemovals.rbegin(); removal != mRemovals.rend(); ++removal) run(*removal);
  }

 private:
  void make(const std::string& name, const std::string& add, const std::string& remove) {
    const Outcome outcome = run(add + name);
    EXPECT_EQ(outcome.exitCode, 0) << add << name << ": " << outcome.out;
    if (outcome.exitCode == 0) mRemovals.push_back(remove + name);
  }
  std::vector<std::string> mRemovals;
};

// Owning and calling denied unless allowed, signals and replies pass; the
// car's account owns the car's services, which anyone may call.
std::string systemLikePolicy() {
  std::string own, call;
  for (const auto& service : kCarServices) {
    own += "    <allow own=\"com.nordak.service." + service + "\"/>\n";
    call += "    <allow send_destination=\"com.nordak.service." + service +
            "\" send_interface=\"com.nordak.ServiceIpc\"/>\n";
  }
  return "  <policy context=\"default\">\n"
         "    <allow user=\"*\"/>\n"
         "    <deny own=\"*\"/>\n"
         "    <deny send_type=\"method_call\"/>\n"
         "    <allow send_type=\"signal\"/>\n"
         "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
         "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
         "    <allow receive_type=\"method_call\"/>\n"
         "    <allow receive_type=\"method_return\"/>\n"
         "    <allow receive_type=\"error\"/>\n"
         "    <allow receive_type=\"signal\"/>\n"
         "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>\n"
         "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus.Introspectable\"/>\n" +
         call +
         "  </policy>\n"
         "  <policy user=\"" +
         kCarUser + "\">\n" + own +
         "  </policy>\n"
         "  <include ignore_missing=\"no\">" +
         kPolicyFile + "</include>\n";
}

// A D-Bus client run under an account (root when user is null).
class Client {
 public:
  Client(const std::string& address, const char* user) : mAddress(address) {
    if (user == nullptr) return;
    struct passwd* account = getpwnam(user);
    if (account == nullptr) return;
    mPrefix = "/usr/bin/setpriv --reuid=" + std::to_string(account->pw_uid) +
              " --regid=" + std::to_string(account->pw_gid) + " --init-groups -- ";
  }
  Outcome call(const std::string& method) const {
    return send("--dest=com.nordak.service.ecallService /com/nordak/service/ecallService "
                "com.nordak.ServiceIpc.Invoke string:" + method + " 'string:{}'");
  }
  Outcome forgeEcallSignal(const std::string& data) const {
    return run(mPrefix + "dbus-send --bus='" + mAddress + "' --type=signal /com/nordak/service/ecallService " +
               "com.nordak.ServiceIpc.Emit string:ecall 'string:" + data + "'");
  }
  Outcome own() const {
    return send("--dest=org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.RequestName "
                "string:com.nordak.service.ecallService uint32:0");
  }

 private:
  Outcome send(const std::string& message) const {
    return run(mPrefix + "dbus-send --bus='" + mAddress + "' --print-reply --reply-timeout=10000 " + message);
  }
  std::string mAddress;
  std::string mPrefix;
};

}  // namespace

TEST(BusPolicy, OnlyRootOwnsAndSpeaksForTheServiceOnlyRootAndTheEcallGroupCallItEveryoneHearsIt) {
  if (geteuid() != 0) GTEST_SKIP() << "the bus policy test runs processes under other accounts: run it as root";
  Accounts accounts;
  ASSERT_TRUE(getgrnam(kCallerGroup) && getpwnam(kCarUser) && getpwnam(kMemberUser)) << "the test accounts are missing";

  E2eOptions options = carOptions(kScale);
  options.busPolicy = systemLikePolicy();
  options.simUser = kCarUser;
  Scene s(options);
  ASSERT_TRUE(s.car.serviceRunning());

  const Client outsider(s.car.busAddress(), kCarUser);
  const Client member(s.car.busAddress(), kMemberUser);
  const Client root(s.car.busAddress(), nullptr);

  for (const Outcome& refused :
       {outsider.call("startEcall"), outsider.call("IsECallInProgess"), outsider.own(), member.own()})
    EXPECT_TRUE(refused.exitCode != 0 && refused.out.find("Error.AccessDenied") != std::string::npos) << refused.out;

  Outcome outcome = member.call("IsECallInProgess");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.out;
  EXPECT_NE(outcome.out.find("{\"ecallInProgress\":false}"), std::string::npos) << outcome.out;
  outcome = root.own();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.out;
  EXPECT_NE(outcome.out.find("uint32 "), std::string::npos) << outcome.out;
  EXPECT_TRUE(s.signals().empty()) << "a refused call started an emergency";

  // The bus drops the member's forgery, passes root's, which the service ignores.
  testSupport::Child monitor({"/usr/bin/dbus-monitor", "--address", s.car.busAddress(),
                              "type='signal',path='/com/nordak/service/ecallService'"});
  const auto monitorSaw = [&](const char* text) { return monitor.out().find(text) != std::string::npos; };
  ASSERT_TRUE(monitor.waitForOutput([&] { return monitorSaw("NameAcquired"); }, kLong)) << monitor.err();
  EXPECT_EQ(member.forgeEcallSignal("{\"forgedBy\":\"member\"}").exitCode, 0);
  EXPECT_EQ(root.forgeEcallSignal("{\"forgedBy\":\"root\"}").exitCode, 0);
  ASSERT_TRUE(monitor.waitForOutput([&] { return monitorSaw("forgedBy\":\"root"); }, kLong));
  EXPECT_FALSE(monitorSaw("forgedBy\":\"member")) << "the bus let the member's forgery through";
  EXPECT_TRUE(s.signals().empty()) << "the service believed a forged signal";
  s.markNow();

  EXPECT_EQ(s.car.call("startEcall"), kOk);
  EXPECT_TRUE(s.waitForEmergency());
  EXPECT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial"));
  EXPECT_FALSE(s.waitForRecord([](const Json::Value& r) { return r["kind"] == "ecallProgress"; }).isNull());
  for (const Json::Value& record : s.car.recordsSince(0))
    EXPECT_EQ(record["data"].asString().find("forgedBy"), std::string::npos) << "the service believed a forged signal";
}
