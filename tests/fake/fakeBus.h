// The SVCIPC_* functions in-process, for the unit tests and fuzz targets:
// requests and signals recorded, peers answering as the test says, results
// and method calls delivered on a bus thread. Subscriptions are never fed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/serviceBus.h"

namespace fakeBus {

struct Call {
  bool emitted = false;   // a signal of the service, else an invoke (sync or async)
  std::string busName{};  // the peer; emitted: the registered service name
  std::string method{};   // emitted: the signal name
  std::string params{};   // emitted: the data
};

// How a peer answers one method.
struct Reply {
  SVCIPC_tError rc = SVCIPC_ERROR_NONE;  // < 0: the invoke fails at once (async: not sent)
  std::string result = "{}";             // the result text
  bool noAnswer = false;                 // async: the callback never comes; sync: fails with a time-out
};

// Forgets every call and reply.
void reset();

// A peer method's answers: computed from the parameters (under the fake's
// lock), or given in turn, the last for good. Unset: rc 0 with "{}".
using Responder = std::function<Reply(const std::string& params)>;
void setResponder(const std::string& busName, const std::string& method, Responder responder);
void setReplies(const std::string& busName, const std::string& method, const std::vector<Reply>& replies);
void setReply(const std::string& busName, const std::string& method, const Reply& reply);

// Invokes (sync and async) to method of busName, in order.
std::vector<Call> requests(const std::string& busName, const std::string& method);
// The data of every emitted sigName signal.
std::vector<std::string> emittedData(const std::string& sigName);

// Calls a method of the registered service on the bus thread; waits for it.
struct MethodResult {
  bool handled = false;     // a handler was registered and ran
  bool replied = false;     // SVCIPC_asyncReturnResult was called
  std::string result;       // the reply text
  bool contextFreed = false;
};
MethodResult callMethod(const std::string& method, const char* params, int noReplyExpected = 0);

// Waits until every queued delivery (async results) has run.
void drain();

// Deliveries run, still after the call that caused them, in the thread that
// waits for them (drain, callMethod, reset): for the one-thread fuzz targets.
void deliverInWaitingThread();

}  // namespace fakeBus
