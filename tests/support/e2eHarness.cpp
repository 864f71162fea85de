#include "support/e2eHarness.h"

#include <fcntl.h>
#include <poll.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>

#include "common/jsonText.h"

extern char** environ;

namespace testSupport {

namespace {

std::string fixed(double value) {
  char text[32];
  snprintf(text, sizeof text, "%g", value);
  return text;
}

// Starts a program on the given streams, env's entries replacing the test's.
// It dies with the creating thread, so that nothing outlives its test.
pid_t spawn(const std::vector<std::string>& args, int in, int out, int err, const std::vector<std::string>& env = {},
            const std::function<void()>& beforeExec = {}) {
  std::vector<std::string> environment(env);
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string_view name(*e, strcspn(*e, "=") + 1);
    auto replaced = [&](const std::string& given) { return given.starts_with(name); };
    if (std::ranges::none_of(env, replaced)) environment.emplace_back(*e);
  }
  std::vector<char*> argv, envp;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls from here to exec.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the test died already
    if (dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) _exit(127);
    if (beforeExec) beforeExec();
    execvpe(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  return pid;
}

int openOutput(const std::string& path) { return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }

void killAndReap(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid = -1;
}

std::string tail(const std::string& text, size_t lines) {
  std::vector<std::string> all = splitLines(text);
  std::string out;
  for (size_t i = all.size() > lines ? all.size() - lines : 0; i < all.size(); ++i) out += "    " + all[i] + "\n";
  return out;
}

}  // namespace

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& env, bool input,
             const std::function<void()>& beforeExec) {
  int in[2] = {-1, -1}, out[2], err[2];
  if ((input ? pipe2(in, O_CLOEXEC) : (in[0] = open("/dev/null", O_RDONLY | O_CLOEXEC))) < 0 ||
      pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
    return;
  mPid = spawn(argv, in[0], out[1], err[1], env, beforeExec);
  for (int fd : {in[0], out[1], err[1]}) close(fd);
  mIn = in[1];
  mOut = out[0];
  mErr = err[0];
}

Child::~Child() {
  killAndReap(mPid);
  for (int fd : {mIn, mOut, mErr})
    if (fd >= 0) close(fd);
}

void Child::signal(int sig) {
  if (mPid > 0) kill(mPid, sig);
}

bool Child::send(const std::string& text) {
  return mIn >= 0 && write(mIn, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool Child::waitForOutput(const std::function<bool()>& pred, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!pred()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) return pred();
  }
  return true;
}

int Child::wait(std::chrono::milliseconds deadline) {
  waitForOutput([] { return false; }, deadline);
  if (mPid > 0) kill(mPid, SIGKILL);
  int status = 0;
  if (mPid > 0 && waitpid(mPid, &status, 0) == mPid) {
    mExit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    mPid = -1;
  }
  return mExit;
}

// One poll of both pipes; false once both are closed or the time is up.
bool Child::readSome(int timeoutMs) {
  pollfd fds[2] = {{mOut, POLLIN, 0}, {mErr, POLLIN, 0}};
  if ((mOut < 0 && mErr < 0) || poll(fds, 2, timeoutMs) <= 0) return false;
  auto drain = [](const pollfd& polled, int& fd, std::string& text) {
    if (fd < 0 || polled.revents == 0) return;
    char chunk[4096];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else {
      close(fd);
      fd = -1;
    }
  };
  drain(fds[0], mOut, mOutText);
  drain(fds[1], mErr, mErrText);
  return true;
}

NotifySocket::NotifySocket(const std::string& path) : mFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(mFd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
}

NotifySocket::~NotifySocket() { close(mFd); }

std::string NotifySocket::next(std::chrono::milliseconds within) {
  timeval limit{static_cast<time_t>(within.count() / 1000), static_cast<suseconds_t>(within.count() % 1000 * 1000)};
  setsockopt(mFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  char text[256];
  const ssize_t n = recv(mFd, text, sizeof text, 0);
  return n > 0 ? std::string(text, static_cast<size_t>(n)) : "";
}

void NotifySocket::drain() {
  while (!next(std::chrono::milliseconds(1)).empty()) {
  }
}

Outcome run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            std::chrono::milliseconds deadline) {
  Child child(argv, env);
  const int code = child.wait(deadline);
  return {code, child.out(), child.err()};
}

std::string ecallSignalText(bool ecall, const std::string& type, bool modeActive, const std::string& number,
                            const std::string& event, const std::string& detail, bool btCall) {
  auto flag = [](bool b) { return b ? "true" : "false"; };
  return std::string("{\"BTCallActive\":") + flag(btCall) + ",\"ecall\":" + flag(ecall) + ",\"ecallModeActive\":" +
         flag(modeActive) + ",\"event\":\"" + event + "\",\"eventdetail\":\"" + detail +
         "\",\"phoneNumber\":\"" + number + "\",\"type\":\"" + type + "\"}\n";
}

std::vector<std::string> requestTexts(const std::vector<Json::Value>& requests) {
  std::vector<std::string> out;
  for (const auto& r : requests) out.push_back(r["method"].asString() + " " + r["params"].asString());
  return out;
}

std::vector<std::string> spokenTexts(const std::vector<Json::Value>& requests) {
  std::vector<std::string> out;
  for (const auto& r : requests) {
    if (r["method"].asString() != "ttsReadout") continue;
    Json::Value params;
    jsonParse(r["params"].asString().c_str(), params);
    out.push_back(params["readoutType"].asString() + ": " + params["data"].asString());
  }
  return out;
}

bool containsInOrder(const std::vector<std::string>& all, const std::vector<std::string>& wanted) {
  size_t next = 0;
  for (const auto& entry : all)
    if (next < wanted.size() && entry == wanted[next]) ++next;
  return next == wanted.size();
}

E2eHarness::E2eHarness(E2eOptions options) : mOptions(std::move(options)) {
  char tmpl[] = "/tmp/ecall-e2e-XXXXXX";
  char* dir = mkdtemp(tmpl);
  mWorkDir = dir ? dir : "/tmp";
  mRoot = mWorkDir + "/root";
  makeDirs(mRoot);
  mRecordFile = mWorkDir + "/record.jsonl";
  mTraceFile = mWorkDir + "/trace.txt";
  mServiceErr = mWorkDir + "/service.stderr";
  mServiceOut = mWorkDir + "/service.stdout";
  if (!mOptions.simUser.empty()) {
    // The simulator writes its record, socket and vehicle object here.
    struct passwd* user = getpwnam(mOptions.simUser.c_str());
    EXPECT_NE(user, nullptr) << "no user " << mOptions.simUser;
    if (user == nullptr || chmod(mWorkDir.c_str(), 0755) != 0 || chown(mWorkDir.c_str(), user->pw_uid, user->pw_gid) != 0 ||
        chown(mRoot.c_str(), user->pw_uid, user->pw_gid) != 0)
      ADD_FAILURE() << "cannot hand " << mWorkDir << " to " << mOptions.simUser << ": " << strerror(errno);
  }

  startBus();
  startSim();
  for (const auto& command : mOptions.simCommands) {
    std::string reply = sim(command);
    EXPECT_EQ(reply.rfind("ok", 0), 0u) << "vehicle-sim refused '" << command << "': " << reply;
  }
  if (mOptions.startService) startService();
}

E2eHarness::~E2eHarness() {
  killAndReap(mServicePid);
  if (mSim) {
    mSim->signal(SIGKILL);
    mSim->wait();  // and its last errors read
  }
  if (mConnection) SVCIPC_closeConnection(mConnection);
  SVCIPC_shutdown();
  mBus.reset();
  if (::testing::Test::HasFailure()) {
    dumpOnFailure();
  } else if (!getenv("ECALL_E2E_KEEP")) {
    std::error_code ec;
    std::filesystem::remove_all(mWorkDir, ec);
  }
}

void E2eHarness::startBus() {
  mBus = std::make_unique<PrivateBus>(mOptions.busPolicy, std::chrono::seconds(10), mOptions.beforeBusExec);
  mBusAddress = mBus->address();
  ASSERT_FALSE(mBusAddress.empty()) << "the private bus did not start";
  ASSERT_FALSE(SVCIPC_IS_ERROR(SVCIPC_initialize()));
  SVCIPC_tError rc = SVCIPC_getConnectionByAddress(mBusAddress.c_str(), &mConnection);
  ASSERT_FALSE(SVCIPC_IS_ERROR(rc)) << "cannot connect to the private bus, rc 0x" << std::hex << rc;
}

void E2eHarness::startSim() {
#ifndef VEHICLE_SIM_BIN
  FAIL() << "vehicle-sim is not part of this build";
#else
  std::vector<std::string> args = {VEHICLE_SIM_BIN, "--root", mRoot, "--bus", mBusAddress,
                                   "--record", mRecordFile, "--time-scale", fixed(carScale(mOptions.timeScale))};
  if (struct passwd* user = mOptions.simUser.empty() ? nullptr : getpwnam(mOptions.simUser.c_str())) {
    // The simulator runs from a copy: the build folder may be closed to others.
    args[0] = mWorkDir + "/vehicle-sim";
    std::error_code ec;
    std::filesystem::copy_file(VEHICLE_SIM_BIN, args[0], ec);
    ASSERT_FALSE(ec) << "cannot copy " << VEHICLE_SIM_BIN << ": " << ec.message();
    ASSERT_EQ(chmod(args[0].c_str(), 0755), 0);
    args.insert(args.begin(), {"/usr/bin/setpriv", "--reuid=" + std::to_string(user->pw_uid),
                               "--regid=" + std::to_string(user->pw_gid), "--clear-groups", "--"});
  }
  args.insert(args.end(), mOptions.simArgs.begin(), mOptions.simArgs.end());
  mSim = std::make_unique<Child>(args, std::vector<std::string>{}, true, mOptions.beforeSimExec);
  // The console answers only once every simulated service is on the bus.
  std::string reply = sim("status", mOptions.startDeadline);
  ASSERT_EQ(reply.rfind("ok", 0), 0u) << "vehicle-sim did not come up: " << reply << "\n" << mSim->err();
#endif
}

std::string E2eHarness::sim(const std::string& command, ms deadline) {
  // One command at a time: the reply is the next "ok"/"error" line.
  if (!mSim || !mSim->send(command + "\n")) return "error vehicle-sim does not take commands";
  std::string reply;
  auto replied = [&] {
    for (size_t eol; (eol = mSim->out().find('\n', mSimReplied)) != std::string::npos;) {
      reply = mSim->out().substr(mSimReplied, eol - mSimReplied);
      mSimReplied = eol + 1;
      if (reply.rfind("ok", 0) == 0 || reply.rfind("error", 0) == 0) return true;
    }
    return false;
  };
  return mSim->waitForOutput(replied, deadline) ? reply : "error no answer from vehicle-sim to '" + command + "'";
}

void E2eHarness::startService() {
  ASSERT_LE(mServicePid, 0) << "the service is running already";
  int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
  int out = openOutput(mServiceOut);
  int err = openOutput(mServiceErr);
  const std::string binary = mOptions.serviceBinary.empty() ? ECALL_SERVICE_BIN : mOptions.serviceBinary;
  std::vector<std::string> args = {binary, "--root", mRoot, "--bus", mBusAddress,
                                   "--time-scale", fixed(carScale(mOptions.timeScale))};
  if (mOptions.trace) args.insert(args.end(), {"--trace", mTraceFile});
  mServicePid = spawn(args, in, out, err, mOptions.serviceEnv, mOptions.beforeServiceExec);
  for (int fd : {in, out, err}) close(fd);
  ASSERT_GT(mServicePid, 0) << "cannot start " << binary;
  ASSERT_TRUE(waitForService(mOptions.startDeadline))
      << "ecallService did not register on the bus; its standard error:\n"
      << tail(serviceStderr(), 30);
}

bool E2eHarness::waitForService(ms deadline) {
  auto registered = [this] {
    int has = 0;
    return !SVCIPC_IS_ERROR(SVCIPC_nameHasOwner(mConnection, "com.nordak.service.ecallService", &has)) && has != 0;
  };
  return waitUntil([&] { return !serviceRunning() || registered(); }, deadline) && serviceRunning();
}

void E2eHarness::stopService() { killAndReap(mServicePid); }

bool E2eHarness::serviceRunning() {
  if (mServicePid > 0 && waitpid(mServicePid, nullptr, WNOHANG) == mServicePid) mServicePid = -1;
  return mServicePid > 0;
}

SVCIPC_tError invokeOn(SVCIPC_tConnection connection, const std::string& service, const std::string& method,
                       const std::string& params, int timeoutMs, std::string* reply) {
  const std::string name = "com.nordak.service." + service, objectPath = "/com/nordak/service/" + service;
  SVCIPC_tResponse* response = nullptr;
  SVCIPC_tError rc = SVCIPC_invoke(connection, name.c_str(), objectPath.c_str(), method.c_str(), params.c_str(),
                                   timeoutMs, &response);
  if (reply) *reply = response && response->result ? response->result : "";
  if (response) SVCIPC_freeResponse(response);
  return rc;
}

std::string E2eHarness::call(const std::string& method, const std::string& params, int timeoutMs) {
  std::string reply;
  return SVCIPC_IS_ERROR(invoke("ecallService", method, params, timeoutMs, &reply)) ? kNoReply : reply;
}

bool E2eHarness::notify(const std::string& method, const std::string& params) {
  return !SVCIPC_IS_ERROR(SVCIPC_asyncInvoke(mConnection, "com.nordak.service.ecallService",
                                             "/com/nordak/service/ecallService", method.c_str(), params.c_str(), 1,
                                             SVCIPC_TIMEOUT_DEFAULT, nullptr, nullptr));
}

void E2eHarness::refreshRecords() {
  // Called with mRecordMutex held. Reads what the simulator appended since.
  int fd = open(mRecordFile.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  char buffer[8192];
  ssize_t n;
  while ((n = pread(fd, buffer, sizeof buffer, mRecordOffset)) > 0) {
    mRecordOffset += n;
    mRecordPartial.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  size_t end;
  while ((end = mRecordPartial.find('\n')) != std::string::npos) {
    Json::Value value;
    if (jsonParse(mRecordPartial.substr(0, end).c_str(), value)) mRecords.push_back(value);
    mRecordPartial.erase(0, end + 1);
  }
}

std::vector<Json::Value> E2eHarness::recordsSince(size_t mark, const std::string& kind) {
  std::lock_guard<std::mutex> lock(mRecordMutex);
  refreshRecords();
  std::vector<Json::Value> out;
  for (size_t i = mark; i < mRecords.size(); ++i)
    if (kind.empty() || mRecords[i]["kind"].asString() == kind) out.push_back(mRecords[i]);
  return out;
}

Json::Value E2eHarness::waitForRecordSince(size_t mark, const Pred& pred, ms deadline) {
  Json::Value found;
  auto came = [&] {
    const auto all = recordsSince(mark);
    const auto it = std::ranges::find_if(all, pred);
    if (it != all.end()) found = *it;
    return it != all.end();
  };
  waitUntil(came, deadline);
  return found;
}

std::vector<Json::Value> E2eHarness::requestsSince(size_t mark, const std::string& service, const std::string& method) {
  std::vector<Json::Value> out;
  for (const auto& r : recordsSince(mark, "request"))
    if (r["service"].asString() == service && (method.empty() || r["method"].asString() == method)) out.push_back(r);
  return out;
}

Json::Value E2eHarness::waitForRequestSince(size_t mark, const std::string& service, const std::string& method,
                                            ms deadline) {
  auto asked = [&](const Json::Value& r) {
    return r["kind"] == "request" && r["service"] == service && r["method"] == method;
  };
  return waitForRecordSince(mark, asked, deadline);
}

std::vector<std::string> E2eHarness::ecallSignalTextsSince(size_t mark, const std::string& name) {
  std::vector<std::string> out;
  for (const auto& r : recordsSince(mark, name)) out.push_back(r["data"].asString());
  return out;
}

Json::Value E2eHarness::waitForEcallSignalSince(size_t mark, const Pred& pred, ms deadline) {
  Json::Value data;
  auto matches = [&](const Json::Value& r) {
    return r["kind"] == "ecall" && jsonParse(r["data"].asString().c_str(), data) && pred(data);
  };
  return waitForRecordSince(mark, matches, deadline).isNull() ? Json::Value() : data;
}

std::vector<std::vector<int>> E2eHarness::channelMessages(size_t mark, int first) {
  std::vector<std::vector<int>> out;
  for (const auto& r : recordsSince(mark, "channel")) {
    std::vector<int> bytes;
    for (const auto& b : r["bytes"]) bytes.push_back(b.asInt());
    if (first < 0 || (!bytes.empty() && bytes[0] == first)) out.push_back(bytes);
  }
  return out;
}

bool E2eHarness::waitForChannelMessage(const std::vector<int>& bytes, ms deadline) {
  auto sent = [&] { return std::ranges::count(channelMessages(), bytes) > 0; };
  return waitUntil(sent, deadline);
}

bool E2eHarness::waitForChannelConnected(ms deadline, size_t mark) {
  auto connected = [](const Json::Value& r) { return r["kind"] == "vehicle" && r["event"] == "connected"; };
  return !waitForRecordSince(mark, connected, deadline).isNull();
}

bool E2eHarness::waitForServiceStarted(ms deadline, size_t mark) {
  return !waitForRequestSince(mark, "AudioMixerManager", "getProperties", deadline).isNull() &&
         waitForChannelConnected(deadline, mark);
}

std::vector<std::string> logEntryMessages(const std::string& text) {
  // An entry: "HH:MM:SS Month DD, YYYY GMT:" then "NNNNNNN:" or "ODO N/A:".
  static const std::regex entry(R"(^\d\d:\d\d:\d\d [A-Za-z]+ \d\d, \d{4} GMT:(?:\d{7}|ODO N/A):(.*)$)");
  std::vector<std::string> out;
  std::smatch match;
  for (const auto& line : splitLines(text))
    if (std::regex_match(line, match, entry)) out.push_back(match[1].str());
  return out;
}

void E2eHarness::dumpOnFailure() {
  fprintf(stderr,
          "--- end-to-end files kept in %s\n--- ecallService standard error (last lines):\n%s"
          "--- ecallService trace (last lines):\n%s--- vehicle-sim standard error:\n%s"
          "--- vehicle-sim record (last entries):\n%s",
          mWorkDir.c_str(), tail(serviceStderr(), 30).c_str(), tail(trace(), 40).c_str(),
          tail(mSim ? mSim->err() : "", 20).c_str(), tail(readFile(mRecordFile), 40).c_str());
}

}  // namespace testSupport
