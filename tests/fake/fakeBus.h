// A fake service bus for the unit tests. It implements the SVCIPC_* functions
// of platform/serviceBus.h in-process: every request, reply, emitted signal
// and subscription is recorded; peers answer as the test tells them; signals,
// owner changes, method calls and asynchronous results are delivered on a
// "bus thread" of the fake, like the real library does, and the functions
// that deliver them wait until the callback has returned.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/serviceBus.h"

namespace fakeBus {

struct Call {
  enum Kind { Invoke, AsyncInvoke, Emit, Subscribe, SubscribeOwner };
  Kind kind;
  std::string busName{};  // Emit: the registered service name
  std::string method{};   // Emit/Subscribe: the signal name
  std::string params{};   // Emit: the data
  std::string context{};  // an async invoke's context pointer read as a text, or ""
};

// How a peer answers one method.
struct Reply {
  SVCIPC_tError rc = SVCIPC_ERROR_NONE;  // < 0: the invoke fails at once (async: not sent)
  std::string result = "{}";             // the result text
  bool noAnswer = false;                 // async: the callback never comes; sync: fails with a time-out
  SVCIPC_tError callbackErr = SVCIPC_ERROR_NONE;  // async: failure status handed to the callback
};

// Forgets every call, reply, subscription and owner.
void reset();

// Answers of a peer's method: computed from the parameters, or given in
// turn, the last one for good. Unset methods answer rc 0 with "{}". A
// responder runs under the fake's lock: it must not call the fake.
using Responder = std::function<Reply(const std::string& params)>;
void setResponder(const std::string& busName, const std::string& method, Responder responder);
void setReplies(const std::string& busName, const std::string& method, const std::vector<Reply>& replies);
void setReply(const std::string& busName, const std::string& method, const Reply& reply);

// Every name has an owner unless told otherwise. Invokes (sync and async) to
// a name without owner fail at once with a D-Bus "service unknown" status.
void setOwner(const std::string& busName, bool hasOwner);

// Recorded requests, in order.
std::vector<Call> calls();
std::vector<Call> callsOf(Call::Kind kind);
// Invokes (sync and async) to method of busName ("" matches any name).
std::vector<Call> requests(const std::string& busName, const std::string& method);
// The data of every emitted sigName signal.
std::vector<std::string> emittedData(const std::string& sigName);
// Every invoke as "method params".
std::vector<std::string> requestTexts();
void clearCalls();

// Delivers signal sigName from objPath to the matching subscriptions, on the
// bus thread; returns the number of callbacks run, once they have returned.
int deliverSignal(const std::string& objPath, const std::string& sigName, const std::string& data);
// Tells the owner-change subscribers of busName, on the bus thread (and sets
// the owner: newOwner empty means gone).
int changeOwner(const std::string& busName, const std::string& oldOwner, const std::string& newOwner);

// Calls a method of the registered service on the bus thread and waits for
// the handler to return.
struct MethodResult {
  bool handled = false;     // a handler was registered and ran
  bool replied = false;     // SVCIPC_asyncReturnResult was called
  std::string result;       // the reply text
  bool contextFreed = false;
};
MethodResult callMethod(const std::string& method, const char* params, int noReplyExpected = 0);

// Waits until every queued delivery (async results, signals) has run.
void drain();

}  // namespace fakeBus
