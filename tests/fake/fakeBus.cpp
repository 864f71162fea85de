#include "fake/fakeBus.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

struct SvcIpcConnection { int unused; };
struct SvcIpcRegistration {
  std::string busName;
  SVCIPC_tRequestCallback handler;
  void* userData;
};
struct SvcIpcRequest {
  bool replied = false;
  std::string result;
  bool freed = false;
};
struct SvcIpcSubscription { int unused; };

namespace {

struct State {
  std::mutex mutex;
  std::vector<fakeBus::Call> calls;
  std::map<std::pair<std::string, std::string>, fakeBus::Responder> responders;
  SvcIpcSubscription subscription{};
  SvcIpcRegistration* registration = nullptr;
  SvcIpcConnection connection{};
  // The bus thread's jobs, run in order outside the lock; kept storage: a steady run allocates nothing.
  std::condition_variable changed;
  std::vector<std::function<void()>> queue;
  size_t next = 0;  // the first job not taken
  uint64_t posted = 0, done = 0;
  std::thread::id busThreadId;
  bool inWaitingThread = false;  // no bus thread: the waiter runs the jobs
  bool delivering = false;       // a thread runs them now
};

State& state() {
  static State* s = new State();  // never destroyed: the bus thread outlives static destruction
  return *s;
}

// Runs the queued jobs in the calling thread, those they queue included.
void deliverQueued(State& s, std::unique_lock<std::mutex>& lock) {
  if (s.delivering) return;  // called from a callback: its own waiter goes on
  s.delivering = true;
  while (s.next < s.queue.size()) {
    std::function<void()> job = std::move(s.queue[s.next++]);
    if (s.next == s.queue.size()) {
      s.queue.clear();
      s.next = 0;
    }
    lock.unlock();
    job();
    lock.lock();
    ++s.done;
    s.changed.notify_all();
  }
  s.delivering = false;
}

void busThreadBody() {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  for (;;) {
    s.changed.wait(lock, [&] { return s.next < s.queue.size(); });
    deliverQueued(s, lock);
  }
}

// Queues a job on the bus thread; returns its sequence number.
uint64_t post(std::function<void()> job) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.posted == 0 && !s.inWaitingThread) {
    std::thread t(busThreadBody);
    s.busThreadId = t.get_id();
    t.detach();
  }
  s.queue.push_back(std::move(job));
  s.changed.notify_all();
  return ++s.posted;
}

void waitDone(uint64_t seq) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  if (s.inWaitingThread) return deliverQueued(s, lock);
  if (std::this_thread::get_id() == s.busThreadId) return;  // called from a callback: cannot wait for ourselves
  s.changed.wait(lock, [&] { return s.done >= seq; });
}

std::string text(const char* p) { return p ? std::string(p) : std::string(); }

// Records a call; for an invoke, finds the peer's answer (a negative rc fails at once).
SVCIPC_tError record(const fakeBus::Call& call, fakeBus::Reply* reply = nullptr) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().calls.push_back(call);
  if (!reply) return SVCIPC_ERROR_NONE;
  auto it = state().responders.find({call.busName, call.method});
  *reply = it == state().responders.end() ? fakeBus::Reply{} : it->second(call.params);
  return reply->rc < 0 ? reply->rc : SVCIPC_ERROR_NONE;
}

}  // namespace

// ---- The bus functions the service calls ----

SVCIPC_tError SVCIPC_shutdown(void) { return SVCIPC_ERROR_NONE; }

SVCIPC_tError SVCIPC_getConnection(int, int, SVCIPC_tConnection* conn) {
  if (!conn) return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_BAD_ARGS);
  *conn = &state().connection;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_registerService(SVCIPC_tConnection, const char* busName, const char*, int,
                                     SVCIPC_tRequestCallback handler, void* userData, SVCIPC_tSvcRegHnd* regHnd) {
  auto* reg = new SvcIpcRegistration{text(busName), handler, userData};
  std::lock_guard<std::mutex> lock(state().mutex);
  state().registration = reg;
  if (regHnd) *regHnd = reg;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_asyncReturnResult(SVCIPC_tReqContext context, const char* result, int, SVCIPC_tUserToken) {
  if (!context) return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_BAD_ARGS);
  context->replied = true;
  context->result = text(result);
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_freeReqContext(SVCIPC_tReqContext context) {
  if (context) context->freed = true;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_asyncEmit(SVCIPC_tSvcRegHnd regHnd, const char* sigName, const char* data,
                               SVCIPC_tResultCallback onStatus, void* context) {
  record({true, regHnd ? regHnd->busName : "", text(sigName), text(data)});
  if (onStatus) {
    post([onStatus, context] {
      SVCIPC_tCallbackStatus status{SVCIPC_ERROR_NONE, nullptr, nullptr};
      onStatus(&status, nullptr, context);
    });
  }
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_invoke(SVCIPC_tConnection, const char* busName, const char*, const char* method, const char* params,
                            int, SVCIPC_tResponse** response) {
  if (response) *response = nullptr;
  fakeBus::Reply reply;
  const SVCIPC_tError rc = record({false, text(busName), text(method), text(params)}, &reply);
  if (rc < 0) return rc;
  if (reply.noAnswer) return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_NO_REPLY);
  if (response) *response = new SVCIPC_tResponse{strdup(reply.result.c_str())};
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_asyncInvoke(SVCIPC_tConnection, const char* busName, const char*, const char* method,
                                 const char* params, int noReplyExpected, int, SVCIPC_tResultCallback onResult,
                                 void* context) {
  fakeBus::Reply reply;
  const SVCIPC_tError rc = record({false, text(busName), text(method), text(params)}, &reply);
  if (rc < 0) return rc;
  if (reply.noAnswer || noReplyExpected || !onResult) return SVCIPC_ERROR_NONE;
  post([reply, onResult, context] {
    SVCIPC_tCallbackStatus status{SVCIPC_ERROR_NONE, nullptr, nullptr};
    onResult(&status, reply.result.c_str(), context);
  });
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_subscribe(SVCIPC_tConnection, const char*, const char*, SVCIPC_tSignalCallback, void*,
                               SVCIPC_tSigSubHnd* subHnd) {
  if (subHnd) *subHnd = &state().subscription;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_subscribeOwnerChanged(SVCIPC_tConnection, const char*, SVCIPC_tNameOwnerChangedCallback, void*,
                                           SVCIPC_tSigSubHnd* subHnd) {
  if (subHnd) *subHnd = &state().subscription;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_nameHasOwner(SVCIPC_tConnection, const char*, int* hasOwnerOut) {
  if (hasOwnerOut) *hasOwnerOut = 1;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_freeResponse(SVCIPC_tResponse* response) {
  if (response) free(const_cast<char*>(response->result));
  delete response;
  return SVCIPC_ERROR_NONE;
}

// ---- The test's side ----

namespace fakeBus {

void reset() {
  drain();
  std::lock_guard<std::mutex> lock(state().mutex);
  state().calls.clear();
  state().responders.clear();
}

void setResponder(const std::string& busName, const std::string& method, Responder responder) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().responders[{busName, method}] = std::move(responder);
}

void setReplies(const std::string& busName, const std::string& method, const std::vector<Reply>& replies) {
  auto queue = std::make_shared<std::deque<Reply>>(replies.begin(), replies.end());
  setResponder(busName, method, [queue](const std::string&) {
    Reply reply = queue->front();
    if (queue->size() > 1) queue->pop_front();
    return reply;
  });
}

void setReply(const std::string& busName, const std::string& method, const Reply& reply) {
  setResponder(busName, method, [reply](const std::string&) { return reply; });
}

std::vector<Call> requests(const std::string& busName, const std::string& method) {
  std::lock_guard<std::mutex> lock(state().mutex);
  std::vector<Call> out;
  for (const Call& c : state().calls)
    if (!c.emitted && c.busName == busName && c.method == method) out.push_back(c);
  return out;
}

std::vector<std::string> emittedData(const std::string& sigName) {
  std::lock_guard<std::mutex> lock(state().mutex);
  std::vector<std::string> out;
  for (const Call& c : state().calls)
    if (c.emitted && c.method == sigName) out.push_back(c.params);
  return out;
}

MethodResult callMethod(const std::string& method, const char* params, int noReplyExpected) {
  SvcIpcRegistration* reg = [] {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().registration;
  }();
  if (!reg || !reg->handler) return MethodResult{};
  SvcIpcRequest request;
  waitDone(post([&] { reg->handler(&request, method.c_str(), params, noReplyExpected, reg->userData); }));
  return MethodResult{true, request.replied, request.result, request.freed};
}

void drain() { waitDone(post([] {})); }

void deliverInWaitingThread() {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().inWaitingThread = true;
}

}  // namespace fakeBus
