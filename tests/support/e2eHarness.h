// End-to-end harness: a private bus, vehicle-sim and the real ecallService as
// processes in a temporary root folder, read as they write; every wait has a
// deadline. After a failure the logs' tails are printed and the folder kept.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/serviceBus.h"
#include "support/privateBus.h"
#include "support/testSupport.h"

#ifndef ECALL_E2E_SLOWDOWN
#define ECALL_E2E_SLOWDOWN 1
#endif

namespace testSupport {

// The --time-scale the car runs at for a test's pace: slower under the
// sanitizers (see tests/CMakeLists.txt).
inline double carScale(double testScale) { return std::min(1.0, testScale * ECALL_E2E_SLOWDOWN); }

// The peer gave no answer in time (the caller's time-out or the daemon's),
// as opposed to an error reply.
inline bool isNoReply(SVCIPC_tError rc) {
  return SVCIPC_IS_ERROR(rc) &&
         ((SVCIPC_ERROR_DOMAIN(rc) == SVCIPC_DOMAIN_DBUS && SVCIPC_ERROR_CODE(rc) == SVCIPC_DBUS_ERR_NO_REPLY) ||
          (SVCIPC_ERROR_DOMAIN(rc) == SVCIPC_DOMAIN_IPC_LIB && SVCIPC_ERROR_CODE(rc) == SVCIPC_ERR_TIMEOUT));
}

struct E2eOptions {
  double timeScale = 0.01;   // of both processes: 0.01 runs a 10 s delay in 0.1 s
  bool startService = true;  // false: the simulator alone
  bool trace = true;
  std::vector<std::string> simCommands;  // console commands before the service starts
  std::vector<std::string> simArgs;
  std::chrono::milliseconds startDeadline = kWaitDeadline;  // of each process
  std::string busPolicy;      // see PrivateBus
  std::string simUser;        // vehicle-sim's account (needs root)
  std::string serviceBinary;  // empty: the one of this build
  std::vector<std::string> serviceEnv;  // "NAME=VALUE", replacing the test's
  // Run between fork and exec (system calls only): priorities and limits.
  std::function<void()> beforeServiceExec, beforeSimExec, beforeBusExec;
};

// An "ecall" signal's text as the service emits it (members in name order).
std::string ecallSignalText(bool ecall, const std::string& type, bool modeActive, const std::string& number = "",
                            const std::string& event = "NONE", const std::string& detail = "NONE", bool btCall = false);
// "method params" of each request record.
std::vector<std::string> requestTexts(const std::vector<Json::Value>& requests);
// "readoutType: data" of each "ttsReadout" request.
std::vector<std::string> spokenTexts(const std::vector<Json::Value>& requests);
// wanted appears in all in this order (other entries may come between).
bool containsInOrder(const std::vector<std::string>& all, const std::vector<std::string>& wanted);
// The messages of the emergency log's entries (no stamp, no odometer).
std::vector<std::string> logEntryMessages(const std::string& text);
// Invokes a method of a service by its short name ("EmbeddedPhone"); the
// result text into *reply.
SVCIPC_tError invokeOn(SVCIPC_tConnection connection, const std::string& service, const std::string& method,
                       const std::string& params, int timeoutMs, std::string* reply);

// A program with its output captured; killed and reaped at the end.
class Child {
 public:
  // argv[0] is a path or a name on PATH; env entries replace the test's;
  // standard input is a pipe (send) when input is true.
  explicit Child(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}, bool input = false,
                 const std::function<void()>& beforeExec = {});
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  const std::string& out() const { return mOutText; }
  const std::string& err() const { return mErrText; }
  void signal(int sig);
  bool send(const std::string& text);
  // Reads output until pred holds or the deadline passes; pred's last value.
  bool waitForOutput(const std::function<bool()>& pred, std::chrono::milliseconds deadline);
  // Reads to the end; the exit code, or -1 when a signal ended it or it
  // still ran at the deadline (then it is killed).
  int wait(std::chrono::milliseconds deadline = kWaitDeadline);

 private:
  bool readSome(int timeoutMs);
  pid_t mPid = -1;
  int mIn = -1, mOut = -1, mErr = -1, mExit = -1;
  std::string mOutText, mErrText;
};

// The service manager's end of NOTIFY_SOCKET, bound at path.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path);
  ~NotifySocket();
  std::string next(std::chrono::milliseconds within);  // "" when none came
  void drain();  // a full socket would hold the service's feeding

 private:
  int mFd;
};

struct Outcome {
  int exitCode;  // -1: killed, or no end within the deadline
  std::string out, err;
};
Outcome run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
            std::chrono::milliseconds deadline = kWaitDeadline);

class E2eHarness {
 public:
  using ms = std::chrono::milliseconds;
  using Pred = std::function<bool(const Json::Value&)>;
  static constexpr const char* kNoReply = "no reply";  // call() without a reply

  explicit E2eHarness(E2eOptions options = {});
  ~E2eHarness();
  E2eHarness(const E2eHarness&) = delete;
  E2eHarness& operator=(const E2eHarness&) = delete;

  // A path of the service ("/fs/...") under the root.
  std::string path(const std::string& absolutePath) const { return mRoot + absolutePath; }
  const std::string& busAddress() const { return mBusAddress; }
  // A console command of the simulator; its "ok ..." or "error ..." line.
  std::string sim(const std::string& command, ms deadline = kWaitDeadline);

  void startService();
  void stopService();  // SIGKILL, and reaped
  bool serviceRunning();
  pid_t servicePid() const { return mServicePid; }
  std::string call(const std::string& method, const std::string& params = "{}", int timeoutMs = 5000);
  bool notify(const std::string& method, const std::string& params = "{}");  // no reply expected
  SVCIPC_tError invoke(const std::string& service, const std::string& method, const std::string& params,
                       int timeoutMs, std::string* reply) {
    return invokeOn(mConnection, service, method, params, timeoutMs, reply);
  }

  // The simulator's record. A mark is the number of records so far; "Since"
  // looks only after it. A wait returns null when nothing came.
  size_t recordMark() { return records().size(); }
  std::vector<Json::Value> recordsSince(size_t mark, const std::string& kind = "");  // "": all kinds
  std::vector<Json::Value> records(const std::string& kind = "") { return recordsSince(0, kind); }
  Json::Value waitForRecordSince(size_t mark, const Pred& pred, ms deadline = kWaitDeadline);
  Json::Value waitForRecord(const Pred& pred, ms deadline = kWaitDeadline) { return waitForRecordSince(0, pred, deadline); }
  // Requests the simulator received for service (and method, unless empty).
  std::vector<Json::Value> requestsSince(size_t mark, const std::string& service, const std::string& method = "");
  Json::Value waitForRequestSince(size_t mark, const std::string& service, const std::string& method,
                                  ms deadline = kWaitDeadline);
  Json::Value waitForRequest(const std::string& service, const std::string& method, ms deadline = kWaitDeadline) {
    return waitForRequestSince(0, service, method, deadline);
  }
  // The exact texts of the service's "ecall" (or name) signals.
  std::vector<std::string> ecallSignalTextsSince(size_t mark, const std::string& name = "ecall");
  // The first "ecall" signal that satisfies pred, parsed.
  Json::Value waitForEcallSignalSince(size_t mark, const Pred& pred, ms deadline = kWaitDeadline);
  // Messages on the restraint controller channel; with a first byte, only those.
  std::vector<std::vector<int>> channelMessages(size_t mark = 0, int first = -1);
  bool waitForChannelMessage(const std::vector<int>& bytes, ms deadline = kWaitDeadline);
  bool waitForChannelConnected(ms deadline = kWaitDeadline, size_t mark = 0);
  // Its last start-up query made (the mixer's volumes) and the channel read.
  bool waitForServiceStarted(ms deadline = kWaitDeadline, size_t mark = 0);

  std::string emergencyLog() const { return readFile(path("/fs/etfs/usr/var/ecall/ecall_log.txt")); }
  std::vector<std::string> emergencyLogMessages() const { return logEntryMessages(emergencyLog()); }
  std::string trace() const { return readFile(mTraceFile); }
  std::string serviceStderr() const { return readFile(mServiceErr); }  // its system log
  std::string serviceStdout() const { return readFile(mServiceOut); }
  bool waitForEmergencyLog(const std::string& part, ms deadline = kWaitDeadline) const {
    return waitForText(path("/fs/etfs/usr/var/ecall/ecall_log.txt"), part, deadline);
  }
  bool waitForTrace(const std::string& part, ms deadline = kWaitDeadline) const {
    return waitForText(mTraceFile, part, deadline);
  }
  bool waitForSlog(const std::string& part, ms deadline = kWaitDeadline) const {
    return waitForText(mServiceErr, part, deadline);
  }

 private:
  static bool waitForText(const std::string& file, const std::string& part, ms deadline) {
    return waitUntil([&] { return readFile(file).find(part) != std::string::npos; }, deadline);
  }
  void startBus();
  void startSim();
  void refreshRecords();
  void dumpOnFailure();
  bool waitForService(ms deadline);

  E2eOptions mOptions;
  std::string mWorkDir, mRoot, mBusAddress;
  std::string mRecordFile, mTraceFile, mServiceErr, mServiceOut;
  std::unique_ptr<PrivateBus> mBus;
  SVCIPC_tConnection mConnection = nullptr;
  pid_t mServicePid = -1;
  std::unique_ptr<Child> mSim;
  size_t mSimReplied = 0;  // how much of the simulator's output was read as replies
  std::mutex mRecordMutex;
  std::vector<Json::Value> mRecords;
  long long mRecordOffset = 0;
  std::string mRecordPartial;
};

}  // namespace testSupport
