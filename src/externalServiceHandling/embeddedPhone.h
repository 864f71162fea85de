// The embedded phone as the processor sees it: one function per request the
// service makes of the phone service, one per answer or signal it reads. The
// method names and request texts are built here and nowhere else; what to do
// with an answer is the processor's decision.
//
// Requests return the bus status of the sending (a synchronous one: of the
// whole exchange, with the answer's text in *reply). An asynchronous request
// without a handler of its own reports to the processor's completion handler
// under the context named at the function; one with a handler reports to the
// handler the caller gives.
#pragma once

#include <string>
#include <vector>

#include "platform/serviceBus.h"

namespace embeddedPhone {

// ---- Calls (asynchronous) ----

// Dials the emergency number as an emergency call; context "dial".
SVCIPC_tError dial(const std::string& number, SVCIPC_tResultCallback onReply, void* context);
// Dials the test number as a test call (call type "TEST", not an emergency
// call); replies as dial.
SVCIPC_tError dialTestCall(const std::string& number, SVCIPC_tResultCallback onReply, void* context);
// Ends the active call; context "endActiveCall".
SVCIPC_tError hangUp();
// Answers the emergency centre's call; context "acceptIncomingCall".
SVCIPC_tError acceptIncomingCall();
// Takes the cellular module out of its emergency mode; context "debugAT".
SVCIPC_tError leaveEmergencyMode();

// ---- Queries (the synchronous ones bounded by the peer reply bound) ----

// The emergency numbers.
SVCIPC_tError readEmergencyNumbers(std::string& reply);
SVCIPC_tError requestEmergencyNumbers(SVCIPC_tResultCallback onReply, void* context);
// The phone's ON/OFF status.
SVCIPC_tError readStatus(std::string& reply);
// The primary antenna's diagnosis.
SVCIPC_tError readAntennaStatus(std::string& reply);
SVCIPC_tError requestAntennaStatus(SVCIPC_tResultCallback onReply, void* context);
// The cellular module's USB ports.
SVCIPC_tError readUsbPorts(std::string& reply);
SVCIPC_tError requestUsbPorts(SVCIPC_tResultCallback onReply, void* context);

// ---- The phone service on the bus ----

SVCIPC_tError watchOwner(SVCIPC_tNameOwnerChangedCallback onChange, void* context, SVCIPC_tSigSubHnd* handle);
SVCIPC_tError hasOwner(int& owned);
// Its signal sigName ("callState", "embeddedPhoneStatus", "wendReason",
// "antennaStatus"), for the life of the process.
SVCIPC_tError subscribe(const char* sigName, SVCIPC_tSignalCallback onSignal, void* context);

// ---- Answers and signals ----

// The emergency number list: the first usable number, or why there is none.
struct emergencyNumbers {
  enum outcome {
    ERROR_REPLY,  // an error code, or a count that is not positive
    NO_LIST,      // no list, or an empty one
    NO_USABLE,    // a list without a non-empty text
    NUMBER,
  };
  outcome result = ERROR_REPLY;
  std::string number;
};
emergencyNumbers parseEmergencyNumbers(const char* reply);
// Every number of the list, in order; false for an error reply.
bool parseEmergencyNumberList(const char* reply, std::vector<std::string>& numbers);

// The phone's status out of the status answer ({"embeddedPhoneStatus":
// {"status":b}}) or, when acceptBare (the signal), also {"status":b}. False
// when there is no status at all; a status that is not a boolean reads OFF.
bool parseStatus(const char* text, bool acceptBare, bool& on);

// An antenna report (answer or signal). Only a successful diagnosis counts.
struct antennaReport {
  bool diagnosed = false;
  bool normal = false;
  std::string status;
};
antennaReport parseAntennaStatus(const char* report);

// The USB ports answer: its error code (0: none) and the port names joined
// by ", " (a port that is not a name keeps its place, empty).
struct usbPorts {
  int code = 0;
  std::string ports;
};
usbPorts parseUsbPorts(const char* reply);

// The entries of a call state report that belong to an emergency call (an
// emergency call type, not the phone's own service number), in order.
struct callEntry {
  std::string state;
  std::string number;
  bool hasNumber = false;
};
std::vector<callEntry> emergencyCallEntries(const char* report);

// The service number of an end reason signal; false when it has none.
bool parseWendReason(const char* data, int& serviceNumber);

// "#777" is the phone's own service number, never the emergency centre.
bool isServiceNumber(const std::string& number);

}  // namespace embeddedPhone
