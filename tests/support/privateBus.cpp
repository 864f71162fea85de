#include "support/privateBus.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "support/e2eHarness.h"

namespace testSupport {

namespace {

// A session bus policy: no limits on who owns or sends what.
const char* const kSessionPolicy = R"(  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
)";

std::string configText(const std::string& dir, const std::string& policy) {
  return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=)" + dir + R"(</listen>
  <auth>EXTERNAL</auth>
)" + (policy.empty() ? std::string(kSessionPolicy) : policy) + "</busconfig>\n";
}

}  // namespace

PrivateBus::PrivateBus(const std::string& policy, std::chrono::milliseconds startDeadline,
                       const std::function<void()>& beforeExec) {
  char folder[] = "/tmp/ecall-bus-XXXXXX";  // short: a socket path has at most 107 bytes
  if (mkdtemp(folder) == nullptr) throw std::runtime_error(std::string("PrivateBus: mkdtemp: ") + strerror(errno));
  mDir = folder;
  // With a policy of its own, other users reach the socket through the folder.
  const bool opened = policy.empty() || chmod(mDir.c_str(), 0755) == 0;
  const std::string config = mDir + "/bus.conf";
  writeFile(config, configText(mDir, policy));
  mDaemon = std::make_unique<Child>(std::vector<std::string>{"dbus-daemon", "--config-file=" + config,
                                                             "--print-address", "--nofork", "--nopidfile", "--nosyslog"},
                                     std::vector<std::string>{}, false, beforeExec);
  const std::string& out = mDaemon->out();
  if (!opened || !mDaemon->waitForOutput([&] { return out.find('\n') != std::string::npos; }, startDeadline)) {
    const std::string error = "PrivateBus: no bus (its folder not opened, or no address); dbus-daemon said: " + mDaemon->err();
    stop();
    throw std::runtime_error(error);
  }
  mAddress = out.substr(0, out.find('\n'));
}

PrivateBus::~PrivateBus() { stop(); }

void PrivateBus::stop() {
  mDaemon.reset();  // killed and reaped
  std::error_code ignored;
  std::filesystem::remove_all(mDir, ignored);
}

}  // namespace testSupport
