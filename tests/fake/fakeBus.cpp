#include "fake/fakeBus.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

struct SvcIpcConnection {
  int unused;
};
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
struct SvcIpcSubscription {
  bool owner = false;
  std::string objPath;  // signals
  std::string name;     // signal name, or bus name for owner changes
  SVCIPC_tSignalCallback signalHandler = nullptr;
  SVCIPC_tNameOwnerChangedCallback ownerHandler = nullptr;
  void* context = nullptr;
};

namespace {

struct State {
  std::mutex mutex;
  std::vector<fakeBus::Call> calls;
  std::map<std::pair<std::string, std::string>, fakeBus::Responder> responders;
  std::set<std::string> absent;
  std::vector<SvcIpcSubscription*> subscriptions;
  SvcIpcRegistration* registration = nullptr;
  SvcIpcConnection connection{};

  // The bus thread.
  std::mutex queueMutex;
  std::condition_variable queueChanged;
  std::deque<std::function<void()>> queue;
  uint64_t posted = 0;
  uint64_t done = 0;
  std::thread::id busThreadId;
  bool started = false;
};

State& state() {
  static State* s = new State();  // never destroyed: the bus thread outlives static destruction
  return *s;
}

// Runs f on the state under its lock and returns what f returns.
template <typename F>
auto locked(F f) {
  std::lock_guard<std::mutex> lock(state().mutex);
  return f(state());
}

void busThreadBody() {
  State& s = state();
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(s.queueMutex);
      s.queueChanged.wait(lock, [&] { return !s.queue.empty(); });
      job = std::move(s.queue.front());
      s.queue.pop_front();
    }
    job();
    {
      std::lock_guard<std::mutex> lock(s.queueMutex);
      ++s.done;
    }
    s.queueChanged.notify_all();
  }
}

// Queues a job on the bus thread; returns its sequence number.
uint64_t post(std::function<void()> job) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.queueMutex);
  if (!s.started) {
    s.started = true;
    std::thread t(busThreadBody);
    s.busThreadId = t.get_id();
    t.detach();
  }
  s.queue.push_back(std::move(job));
  s.queueChanged.notify_all();
  return ++s.posted;
}

void waitDone(uint64_t seq) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.queueMutex);
  if (std::this_thread::get_id() == s.busThreadId) return;  // called from a callback: cannot wait for ourselves
  s.queueChanged.wait(lock, [&] { return s.done >= seq; });
}

void record(const fakeBus::Call& call) {
  locked([&](State& s) { s.calls.push_back(call); });
}

std::string text(const char* p) { return p ? std::string(p) : std::string(); }

fakeBus::Reply replyOf(const std::string& busName, const std::string& method, const std::string& params) {
  std::lock_guard<std::mutex> lock(state().mutex);
  auto it = state().responders.find({busName, method});
  return it == state().responders.end() ? fakeBus::Reply{} : it->second(params);
}

bool hasOwner(const std::string& busName) {
  return locked([&](State& s) { return s.absent.count(busName) == 0; });
}

const SVCIPC_tError kServiceUnknown = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_UNKNOWN);
const SVCIPC_tError kNoReply = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_NO_REPLY);

// Records an invoke and finds the peer's answer: a name without owner fails
// at once, and so does an answer with a negative rc.
SVCIPC_tError request(const fakeBus::Call& call, fakeBus::Reply& reply) {
  record(call);
  if (!hasOwner(call.busName)) return kServiceUnknown;
  reply = replyOf(call.busName, call.method, call.params);
  return reply.rc < 0 ? reply.rc : SVCIPC_ERROR_NONE;
}

SVCIPC_tError addSubscription(SvcIpcSubscription* sub, const fakeBus::Call& call, SVCIPC_tSigSubHnd* subHnd) {
  locked([&](State& s) { s.subscriptions.push_back(sub); });
  record(call);
  if (subHnd) *subHnd = sub;
  return SVCIPC_ERROR_NONE;
}

// Runs notify for every active subscription that matches, on the bus thread,
// and waits until it has run; returns how many matched.
int deliver(const std::function<bool(const SvcIpcSubscription&)>& matches,
            const std::function<void(const SvcIpcSubscription&)>& notify) {
  std::vector<SvcIpcSubscription*> targets;
  locked([&](State& s) {
    for (auto* sub : s.subscriptions)
      if (matches(*sub)) targets.push_back(sub);
  });
  waitDone(post([targets, notify] {
    for (auto* sub : targets) notify(*sub);
  }));
  return static_cast<int>(targets.size());
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
  locked([&](State& s) { s.registration = reg; });
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
  record({fakeBus::Call::Emit, regHnd ? regHnd->busName : "", text(sigName), text(data)});
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
  const SVCIPC_tError rc = request({fakeBus::Call::Invoke, text(busName), text(method), text(params)}, reply);
  if (rc < 0) return rc;
  if (reply.noAnswer) return kNoReply;
  if (response) {
    auto* r = new SVCIPC_tResponse;
    r->result = strdup(reply.result.c_str());
    *response = r;
  }
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_asyncInvoke(SVCIPC_tConnection, const char* busName, const char*, const char* method,
                                 const char* params, int noReplyExpected, int, SVCIPC_tResultCallback onResult,
                                 void* context) {
  fakeBus::Reply reply;
  const SVCIPC_tError rc = request(
      {fakeBus::Call::AsyncInvoke, text(busName), text(method), text(params), context ? static_cast<const char*>(context) : ""},
      reply);
  if (rc < 0) return rc;
  if (reply.noAnswer || noReplyExpected || !onResult) return SVCIPC_ERROR_NONE;
  post([reply, onResult, context] {
    SVCIPC_tCallbackStatus status{reply.callbackErr, nullptr, nullptr};
    if (reply.callbackErr != SVCIPC_ERROR_NONE) {
      status.errName = "com.nordak.service.Error";
      status.errMsg = "failed";
      onResult(&status, nullptr, context);
    } else {
      onResult(&status, reply.result.c_str(), context);
    }
  });
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_subscribe(SVCIPC_tConnection, const char* objPath, const char* sigName,
                               SVCIPC_tSignalCallback handler, void* context, SVCIPC_tSigSubHnd* subHnd) {
  auto* sub = new SvcIpcSubscription{false, text(objPath), text(sigName), handler, nullptr, context};
  return addSubscription(sub, {fakeBus::Call::Subscribe, "", text(sigName)}, subHnd);
}

SVCIPC_tError SVCIPC_subscribeOwnerChanged(SVCIPC_tConnection, const char* busName,
                                           SVCIPC_tNameOwnerChangedCallback handler, void* context,
                                           SVCIPC_tSigSubHnd* subHnd) {
  auto* sub = new SvcIpcSubscription{true, "", text(busName), nullptr, handler, context};
  return addSubscription(sub, {fakeBus::Call::SubscribeOwner, text(busName)}, subHnd);
}

SVCIPC_tError SVCIPC_nameHasOwner(SVCIPC_tConnection, const char* busName, int* hasOwnerOut) {
  if (hasOwnerOut) *hasOwnerOut = hasOwner(text(busName)) ? 1 : 0;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_freeResponse(SVCIPC_tResponse* response) {
  if (response) {
    free(const_cast<char*>(response->result));
    delete response;
  }
  return SVCIPC_ERROR_NONE;
}

// ---- The test's side ----

namespace fakeBus {

void reset() {
  drain();
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.calls.clear();
  s.responders.clear();
  s.absent.clear();
  s.subscriptions.clear();
}

void setResponder(const std::string& busName, const std::string& method, Responder responder) {
  locked([&](State& s) { s.responders[{busName, method}] = std::move(responder); });
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
  setReplies(busName, method, {reply});
}

void setOwner(const std::string& busName, bool owned) {
  locked([&](State& s) { owned ? void(s.absent.erase(busName)) : void(s.absent.insert(busName)); });
}

std::vector<Call> calls() {
  return locked([](State& s) { return s.calls; });
}

namespace {
bool isRequest(const Call& c) { return c.kind == Call::Invoke || c.kind == Call::AsyncInvoke; }
// take(c) of every recorded call c that keep(c) holds for, in order.
template <typename Keep, typename Take>
auto select(Keep keep, Take take) {
  std::vector<decltype(take(std::declval<const Call&>()))> out;
  for (const Call& c : calls())
    if (keep(c)) out.push_back(take(c));
  return out;
}
Call whole(const Call& c) { return c; }
}  // namespace

std::vector<Call> callsOf(Call::Kind kind) {
  return select([&](const Call& c) { return c.kind == kind; }, whole);
}

std::vector<Call> requests(const std::string& busName, const std::string& method) {
  return select([&](const Call& c) { return isRequest(c) && (busName.empty() || c.busName == busName) && c.method == method; },
                whole);
}

std::vector<std::string> emittedData(const std::string& sigName) {
  return select([&](const Call& c) { return c.kind == Call::Emit && c.method == sigName; },
                [](const Call& c) { return c.params; });
}

std::vector<std::string> requestTexts() {
  return select(isRequest, [](const Call& c) { return c.method + " " + c.params; });
}

void clearCalls() {
  locked([](State& s) { s.calls.clear(); });
}

int deliverSignal(const std::string& objPath, const std::string& sigName, const std::string& data) {
  return deliver([&](const SvcIpcSubscription& sub) { return !sub.owner && sub.objPath == objPath && sub.name == sigName; },
                 [sigName, data](const SvcIpcSubscription& sub) {
                   sub.signalHandler(sigName.c_str(), data.c_str(), sub.context);
                 });
}

int changeOwner(const std::string& busName, const std::string& oldOwner, const std::string& newOwner) {
  setOwner(busName, !newOwner.empty());
  return deliver([&](const SvcIpcSubscription& sub) { return sub.owner && sub.name == busName; },
                 [busName, oldOwner, newOwner](const SvcIpcSubscription& sub) {
                   sub.ownerHandler(busName.c_str(), oldOwner.c_str(), newOwner.c_str(), sub.context);
                 });
}

MethodResult callMethod(const std::string& method, const char* params, int noReplyExpected) {
  SvcIpcRegistration* const reg = locked([](State& s) { return s.registration; });
  if (!reg || !reg->handler) return MethodResult{};
  SvcIpcRequest request;
  waitDone(post([&] { reg->handler(&request, method.c_str(), params, noReplyExpected, reg->userData); }));
  return MethodResult{true, request.replied, request.result, request.freed};
}

void drain() { waitDone(post([] {})); }

}  // namespace fakeBus
