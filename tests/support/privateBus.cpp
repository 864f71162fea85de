#include "support/privateBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

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

// Reads up to the first line end, or until the deadline or end of file.
std::string readLine(int fd, std::chrono::milliseconds deadline) {
  const auto until = std::chrono::steady_clock::now() + deadline;
  std::string text;
  while (text.find('\n') == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
    if (left <= 0) return "";
    struct pollfd p = {fd, POLLIN, 0};
    const int r = poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return "";
    char chunk[256];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return "";
    text.append(chunk, static_cast<size_t>(n));
  }
  return text.substr(0, text.find('\n'));
}

}  // namespace

PrivateBus::PrivateBus(const std::string& policy, std::chrono::milliseconds startDeadline) : mPolicy(policy) {
  char folder[] = "/tmp/ecall-bus-XXXXXX";  // short: a socket path has at most 107 bytes
  if (mkdtemp(folder) == nullptr) throw std::runtime_error(std::string("PrivateBus: mkdtemp: ") + strerror(errno));
  mDir = folder;
  try {
    // With a policy of its own, other users reach the socket through the folder.
    if (!policy.empty() && chmod(mDir.c_str(), 0755) != 0)
      throw std::runtime_error(std::string("PrivateBus: chmod: ") + strerror(errno));
    start(startDeadline);
  } catch (...) {
    stop();
    throw;
  }
}

PrivateBus::~PrivateBus() { stop(); }

void PrivateBus::start(std::chrono::milliseconds startDeadline) {
  const std::string config = mDir + "/bus.conf";
  const std::string logPath = mDir + "/daemon.log";
  writeFile(config, configText(mDir, mPolicy));

  // Everything the child needs is prepared before fork: after it, only
  // async-signal-safe calls.
  const std::string program = findDaemon();
  const std::string configArg = "--config-file=" + config;
  const char* argv[] = {program.c_str(), configArg.c_str(), "--print-address", "--nofork",
                        "--nopidfile",   "--nosyslog",      nullptr};
  int addressPipe[2];
  if (pipe2(addressPipe, O_CLOEXEC) != 0) throw std::runtime_error("PrivateBus: pipe2 failed");
  const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const pid_t parent = getpid();

  mPid = fork();
  if (mPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(addressPipe[1], STDOUT_FILENO);
    if (log >= 0) dup2(log, STDERR_FILENO);
    execv(program.c_str(), const_cast<char* const*>(argv));
    _exit(127);
  }
  close(addressPipe[1]);
  if (log >= 0) close(log);
  if (mPid < 0) {
    close(addressPipe[0]);
    throw std::runtime_error(std::string("PrivateBus: fork: ") + strerror(errno));
  }
  mAddress = readLine(addressPipe[0], startDeadline);
  close(addressPipe[0]);
  if (mAddress.empty())
    throw std::runtime_error("PrivateBus: " + program + " gave no address; its log: " + readFile(logPath));
}

void PrivateBus::stop() {
  if (mPid > 0) {
    kill(mPid, SIGKILL);
    while (waitpid(mPid, nullptr, 0) < 0 && errno == EINTR) {
    }
    mPid = -1;
  }
  if (!mDir.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(mDir, ignored);
  }
}

}  // namespace testSupport
