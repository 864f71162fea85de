// The service frame: its bus connection and registration, the system log and
// fatal-error helpers, the bus method handler and the two signal emitters.
#pragma once

#include <atomic>
#include <string>

#include "common/ecallTypes.h"
#include "common/sharedText.h"
#include "platform/serviceBus.h"
#include "platform/trace.h"

// Version text of the service, written to the emergency log at start.
inline const char* const ecallServiceVersion = "1.2.1r";

// How long the service waits for a peer's reply before it goes on without it
// (scaled by the time scale, as every wait). Head-unit services answer in
// milliseconds; one that takes a second is hung, and an emergency call must
// not wait on it.
constexpr int PEER_REPLY_BOUND_MS = 1000;
// The bound as a time limit for a request (the bus library scales it). In a
// car run fast for simulation, the scaled bound is kept at a quarter of a
// real second at least: a healthy but busy peer must never count as hung.
int peerReplyLimitMs();
// The status word says the peer gave no reply in time (the time limit ran
// out), as opposed to an error reply.
inline bool isPeerTimeout(SVCIPC_tError rc) {
  return SVCIPC_IS_ERROR(rc) &&
         ((SVCIPC_ERROR_DOMAIN(rc) == SVCIPC_DOMAIN_DBUS && SVCIPC_ERROR_CODE(rc) == SVCIPC_DBUS_ERR_NO_REPLY) ||
          (SVCIPC_ERROR_DOMAIN(rc) == SVCIPC_DOMAIN_IPC_LIB && SVCIPC_ERROR_CODE(rc) == SVCIPC_ERR_TIMEOUT));
}

// The frame's state: the bus connection and the service's registration
// (made once at start-up, used for every request, reply and emitted signal),
// what the last "ecall" signal told, and the quit request.
class serviceFrame {
 public:
  SVCIPC_tConnection connection() const { return mConnection.load(); }
  SVCIPC_tSvcRegHnd registration() const { return mRegistration.load(); }
  void setBus(SVCIPC_tConnection connection, SVCIPC_tSvcRegHnd registration) {
    mConnection = connection;
    mRegistration = registration;
  }

  // The "ecallModeActive" value of the last "ecall" signal; answered by
  // "IsECallInProgess".
  bool eCallInProgress() const { return mECallInProgress.load(); }
  void setECallInProgress(bool active) { mECallInProgress = active; }

  // The mode text of the last "ecall" signal ("none" at start), repeated by
  // "nochange".
  std::string callModeText() const { return mCallModeText.get(); }
  void setCallModeText(const std::string& text) { mCallModeText.set(text); }

  // Set by the SIGTERM/SIGINT handler; read by nothing: the service runs
  // until it is killed.
  void requestQuit() { mQuit = 1; }

 private:
  std::atomic<SVCIPC_tConnection> mConnection{nullptr};
  std::atomic<SVCIPC_tSvcRegHnd> mRegistration{nullptr};
  std::atomic<bool> mECallInProgress{false};
  sharedText mCallModeText{"none"};
  std::atomic<unsigned char> mQuit{0};
};

// The frame of this process: one, as the process has one bus connection and
// one registration of the service.
serviceFrame& ecallFrame();

// Trace scope of the service frame.
inline const CQVTraceScopeDef ecallMainTraceScope("ecallService_ecallMain", "all");

void sigHandler(int sig);

// Formats into a 500-byte line (longer texts are cut, never overflowed) and
// writes it to the system log as "ecallService: <text>".
void sendtoSlog(int severity, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Prints the message to standard error, shuts the bus down and aborts.
[[noreturn]] void die(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Handler of every bus method of the service.
void onECallRequest(SVCIPC_tReqContext context, const char* method, const char* params, int noReplyExpected,
                    SVCIPC_tUserToken token);
// Answers a call with {"result":"OK"}.
void sendGeneralResponse(SVCIPC_tReqContext context, SVCIPC_tUserToken token, const char* method);

// Builds and emits the "ecall" signal.
void emitEmergencySignal(bool ecall, ecallMain::eEmergencyType type, std::string phoneNumber,
                         ecallMain::eCallModeType mode, bool BTCallActive, bool ecallModeActive);
// Builds and emits the "ecallProgress" signal.
void emitECallProgressSignal(unsigned int progress);

// The mode text last emitted in the "ecall" signal ("none" at start).
std::string getCurCallModeString();
