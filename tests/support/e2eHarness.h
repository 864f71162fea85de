// End-to-end harness: a private bus, vehicle-sim and the real ecallService as
// processes in a temporary root folder. It reads the simulator's record (a
// JSON object a line), the service's trace, standard error (its system log)
// and emergency log as they grow; every wait has a deadline. At the end all
// is killed and reaped; after a failure the logs' tails are printed and the
// folder is kept.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/serviceBus.h"
#include "support/privateBus.h"
#include "support/testSupport.h"

namespace testSupport {

// A status word that says the peer gave no answer in time (the caller's
// own time-out or the bus daemon's), as opposed to an error reply.
inline bool isNoReply(SVCIPC_tError rc) {
  return SVCIPC_IS_ERROR(rc) &&
         ((SVCIPC_ERROR_DOMAIN(rc) == SVCIPC_DOMAIN_DBUS && SVCIPC_ERROR_CODE(rc) == SVCIPC_DBUS_ERR_NO_REPLY) ||
          (SVCIPC_ERROR_DOMAIN(rc) == SVCIPC_DOMAIN_IPC_LIB && SVCIPC_ERROR_CODE(rc) == SVCIPC_ERR_TIMEOUT));
}

struct E2eOptions {
  // --time-scale of both processes: 0.01 runs a 10 s delay in 0.1 s (the
  // sanitizer builds run the car at half that pace, see tests/CMakeLists.txt).
  double timeScale = 0.01;
  bool startService = true;  // in the constructor (false: the simulator alone)
  bool trace = true;         // the service's trace into the file trace() reads
  // Console commands for the simulator before the service starts ("phone
  // off"); extra command-line options of vehicle-sim.
  std::vector<std::string> simCommands;
  std::vector<std::string> simArgs;
  std::chrono::milliseconds startDeadline = kWaitDeadline;  // of each process
  std::string busPolicy;      // see PrivateBus; empty: anyone owns and calls anything
  std::string simUser;        // vehicle-sim's account (needs root)
  std::string serviceBinary;  // empty: the one of this build
  // "NAME=VALUE" entries of the service's environment, in place of the test's.
  std::vector<std::string> serviceEnv;
  // Run in the service's, the simulator's and the bus daemon's process
  // between fork and exec (system calls only): priorities and limits.
  std::function<void()> beforeServiceExec;
  std::function<void()> beforeSimExec;
  std::function<void()> beforeBusExec;
};

// The text of an "ecall" signal exactly as the service emits it (members in
// name order, one line). event and detail are "NONE" for ecall false;
// btCall: a Bluetooth call is reported active.
std::string ecallSignalText(bool ecall, const std::string& type, bool modeActive, const std::string& number = "",
                            const std::string& event = "NONE", const std::string& detail = "NONE", bool btCall = false);
// "method params" of each request record, the parameter text verbatim.
std::vector<std::string> requestTexts(const std::vector<Json::Value>& requests);
// "readoutType: data" of each "ttsReadout" request among the records.
std::vector<std::string> spokenTexts(const std::vector<Json::Value>& requests);
// wanted appears in all in this order (other entries may come between).
bool containsInOrder(const std::vector<std::string>& all, const std::vector<std::string>& wanted);

// The messages of the emergency log entries in text (no stamp, no odometer).
std::vector<std::string> logEntryMessages(const std::string& text);
// Invokes a method of a service ("EmbeddedPhone", ...) by its short name on
// a connection; the status word, and *reply gets the result text.
SVCIPC_tError invokeOn(SVCIPC_tConnection connection, const std::string& service, const std::string& method,
                       const std::string& params, int timeoutMs, std::string* reply);

// A program run by a test with its output captured: to completion (run), or
// kept running while the test reads what it prints (Child). A child still
// running at the end is killed and reaped.
class Child {
 public:
  // argv[0] is the program's path; env entries "NAME=VALUE" are added to the
  // test's environment; standard input is a pipe (send) when input is true.
  // beforeExec runs in the child before its program (system calls only).
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
  // Reads everything until the program ends; its exit code, or -1 when a
  // signal ended it or it still ran at the deadline (then it is killed).
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
  // The next message, or "" when none comes within the time.
  std::string next(std::chrono::milliseconds within);
  // Reads what is queued already (a full socket would hold the service's feeding).
  void drain();

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
  // What call() returns when the service gives no reply (or an error).
  static constexpr const char* kNoReply = "no reply";

  explicit E2eHarness(E2eOptions options = {});
  ~E2eHarness();
  E2eHarness(const E2eHarness&) = delete;
  E2eHarness& operator=(const E2eHarness&) = delete;

  // A path of the service ("/fs/...") under the root.
  std::string path(const std::string& absolutePath) const { return mRoot + absolutePath; }
  const std::string& busAddress() const { return mBusAddress; }

  // --- the simulator's console: one command, its "ok ..." / "error ..." line.
  std::string sim(const std::string& command, ms deadline = kWaitDeadline);

  void startService();
  void stopService();  // SIGKILL, and reaped
  bool serviceRunning();
  pid_t servicePid() const { return mServicePid; }
  // Invokes a method of ecallService; the reply text, or kNoReply.
  std::string call(const std::string& method, const std::string& params = "{}", int timeoutMs = 5000);
  // Invokes a method of ecallService expecting no reply; false when not sent.
  bool notify(const std::string& method, const std::string& params = "{}");
  // Invokes a method of any service by its short name (see invokeOn).
  SVCIPC_tError invoke(const std::string& service, const std::string& method, const std::string& params,
                       int timeoutMs, std::string* reply) {
    return invokeOn(mConnection, service, method, params, timeoutMs, reply);
  }

  // The simulator's record. A mark is the number of records so far; the
  // "...Since" calls look only at what came after it. A wait returns null
  // when nothing came.
  using Pred = std::function<bool(const Json::Value&)>;
  size_t recordMark();
  // Records of a kind ("" for all), in order.
  std::vector<Json::Value> recordsSince(size_t mark, const std::string& kind = "");
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
  // The service's "ecall" signals (or those of another name, such as
  // "ecallProgress") as their exact JSON texts.
  std::vector<std::string> ecallSignalTextsSince(size_t mark, const std::string& name = "ecall");
  // The first "ecall" signal since mark that satisfies pred (parsed).
  Json::Value waitForEcallSignalSince(size_t mark, const Pred& pred, ms deadline = kWaitDeadline);
  // Messages the service wrote on the restraint controller channel.
  std::vector<std::vector<int>> channelMessages(size_t mark = 0);
  bool waitForChannelMessage(const std::vector<int>& bytes, ms deadline = kWaitDeadline);
  // The service has connected to the restraint controller channel (since mark).
  bool waitForChannelConnected(ms deadline = kWaitDeadline, size_t mark = 0);
  // The service has started (since mark): it made its last start-up query
  // (the audio mixer's volumes) and reads the channel.
  bool waitForServiceStarted(ms deadline = kWaitDeadline, size_t mark = 0);

  std::string emergencyLog() const;
  // The emergency log's entries in order, as logEntryMessages gives them.
  std::vector<std::string> emergencyLogMessages() const { return logEntryMessages(emergencyLog()); }
  bool waitForEmergencyLog(const std::string& part, ms deadline = kWaitDeadline) const;
  std::string trace() const;
  bool waitForTrace(const std::string& part, ms deadline = kWaitDeadline) const;
  // The service's standard error: its system log lines.
  std::string serviceStderr() const;
  bool waitForSlog(const std::string& part, ms deadline = kWaitDeadline) const;
  std::string serviceStdout() const;

 private:
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
  size_t mSimReplied = 0;  // how much of the simulator's output has been read as replies
  std::mutex mRecordMutex;
  std::vector<Json::Value> mRecords;
  long long mRecordOffset = 0;
  std::string mRecordPartial;
};

}  // namespace testSupport
