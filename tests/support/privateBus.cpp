#include "support/privateBus.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "support/e2eHarness.h"
#include "support/testSupport.h"

namespace testSupport {

namespace {

std::string findDaemon() {
  const char* path = getenv("PATH");
  std::stringstream folders(path != nullptr ? path : "/usr/bin:/bin");
  std::string folder;
  while (std::getline(folders, folder, ':')) {
    const std::string candidate = (folder.empty() ? "." : folder) + "/dbus-daemon";
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "/usr/bin/dbus-daemon";
}

// A session bus policy: no limits on who owns or sends what.
const char* const kSessionPolicy =
    "  <policy context=\"default\">\n"
    "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
    "    <allow eavesdrop=\"true\"/>\n"
    "    <allow own=\"*\"/>\n"
    "  </policy>\n";

std::string configText(const std::string& dir, const std::string& policy) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <type>session</type>\n"
         "  <listen>unix:dir=" +
         dir +
         "</listen>\n"
         "  <auth>EXTERNAL</auth>\n" +
         (policy.empty() ? std::string(kSessionPolicy) : policy) + "</busconfig>\n";
}

}  // namespace

PrivateBus::PrivateBus(const std::string& policy, std::chrono::milliseconds startDeadline,
                       const std::function<void()>& beforeExec)
    : mPolicy(policy) {
  char folder[] = "/tmp/ecall-bus-XXXXXX";  // short: a socket path has at most 107 bytes
  if (mkdtemp(folder) == nullptr) throw std::runtime_error(std::string("PrivateBus: mkdtemp: ") + strerror(errno));
  mDir = folder;
  try {
    // With a policy of its own, other users reach the socket through the folder.
    if (!policy.empty() && chmod(mDir.c_str(), 0755) != 0)
      throw std::runtime_error(std::string("PrivateBus: chmod: ") + strerror(errno));
    start(startDeadline, beforeExec);
  } catch (...) {
    stop();
    throw;
  }
}

PrivateBus::~PrivateBus() { stop(); }

void PrivateBus::start(std::chrono::milliseconds startDeadline, const std::function<void()>& beforeExec) {
  const std::string config = mDir + "/bus.conf";
  writeFile(config, configText(mDir, mPolicy));
  mDaemon = std::make_unique<Child>(std::vector<std::string>{findDaemon(), "--config-file=" + config,
                                                             "--print-address", "--nofork", "--nopidfile", "--nosyslog"},
                                     std::vector<std::string>{}, false, beforeExec);
  const std::string& out = mDaemon->out();
  if (!mDaemon->waitForOutput([&] { return out.find('\n') != std::string::npos; }, startDeadline))
    throw std::runtime_error("PrivateBus: dbus-daemon gave no address; its errors: " + mDaemon->err());
  mAddress = out.substr(0, out.find('\n'));
}

void PrivateBus::stop() {
  mDaemon.reset();  // killed and reaped
  if (!mDir.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(mDir, ignored);
  }
}

}  // namespace testSupport
