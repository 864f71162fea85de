// One connection to the service bus: its dispatch thread, the objects and
// matches it serves, asynchronous and synchronous calls, and the status words
// made from sd-bus results.
#include "platform/serviceBusConnection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <system_error>

#include "platform/runtime.h"
#include "platform/slog.h"

using svcipc::Delivery;
using svcipc::PendingCall;

namespace {

constexpr int64_t kDefaultReplyTimeoutMs = 25000;
// Closing waits this long for a dispatch thread busy in a callback, and for
// the last queued writes; a stuck peer must not hold up shutdown for ever.
constexpr auto kCloseWait = std::chrono::seconds(5);
constexpr uint64_t kFlushWaitUsec = 1000000;
// Messages handled in one round before the callbacks they produced run.
constexpr int kDispatchBatch = 64;

const char kDbusName[] = "org.freedesktop.DBus";
const char kDbusPath[] = "/org/freedesktop/DBus";
const char kNoReplyError[] = "org.freedesktop.DBus.Error.NoReply";

struct NamedCode {
  const char* name;
  uint32_t code;
};

constexpr NamedCode kDbusErrorCodes[] = {
    {"org.freedesktop.DBus.Error.ServiceUnknown", SVCIPC_DBUS_ERR_SERVICE_UNKNOWN},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", SVCIPC_DBUS_ERR_SERVICE_UNKNOWN},
    {kNoReplyError, SVCIPC_DBUS_ERR_NO_REPLY},
    {"org.freedesktop.DBus.Error.Timeout", SVCIPC_DBUS_ERR_NO_REPLY},
    {"org.freedesktop.DBus.Error.TimedOut", SVCIPC_DBUS_ERR_NO_REPLY},
    {"org.freedesktop.DBus.Error.AccessDenied", SVCIPC_DBUS_ERR_ACCESS_DENIED},
    {"org.freedesktop.DBus.Error.UnknownMethod", SVCIPC_DBUS_ERR_UNKNOWN_METHOD},
    {"org.freedesktop.DBus.Error.UnknownObject", SVCIPC_DBUS_ERR_UNKNOWN_METHOD},
    {"org.freedesktop.DBus.Error.UnknownInterface", SVCIPC_DBUS_ERR_UNKNOWN_METHOD},
    {SVCIPC_SERVICE_ERROR_NAME, SVCIPC_DBUS_ERR_SERVICE_ERROR},
};

int onInvoke(sd_bus_message* call, void* userdata, sd_bus_error*) {
  auto* registration = static_cast<SvcIpcRegistration*>(userdata);
  registration->connection->queueRequest(*registration, call);
  return 1;  // handled, answered or not: an unanswered request gets no reply at all
}

int onEmitSignal(sd_bus_message* signal, void* userdata, sd_bus_error*) {
  auto* subscription = static_cast<SvcIpcSubscription*>(userdata);
  subscription->connection->queueSignal(*subscription, signal, false);
  return 0;  // other subscriptions to the same signal get it too
}

int onOwnerSignal(sd_bus_message* signal, void* userdata, sd_bus_error*) {
  auto* subscription = static_cast<SvcIpcSubscription*>(userdata);
  subscription->connection->queueSignal(*subscription, signal, true);
  return 0;
}

int onOwnerMatchInstalled(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  auto* owner = static_cast<svcipc::PeerOwner*>(userdata);
  owner->connection->ownerMatchInstalled(*owner, reply);
  return 0;  // a refused match is handled there: the connection stays
}

int onOwnerAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  auto* owner = static_cast<svcipc::PeerOwner*>(userdata);
  owner->connection->ownerAnswered(*owner, reply);
  return 1;
}

int onFollowedOwnerChanged(sd_bus_message* signal, void* userdata, sd_bus_error*) {
  auto* owner = static_cast<svcipc::PeerOwner*>(userdata);
  owner->connection->ownerChanged(*owner, signal);
  return 0;  // the caller's own owner subscriptions get it too
}

// Bus names only (well-known or unique): anything else is never put into a
// match rule, and is left to the daemon to refuse.
bool isBusName(const char* name) {
  if (*name == '\0' || strlen(name) > 255) return false;
  for (const char* c = name; *c != '\0'; ++c)
    if (!isalnum(static_cast<unsigned char>(*c)) && strchr("_-.:", *c) == nullptr) return false;
  return true;
}

int onAsyncReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  auto* call = static_cast<PendingCall*>(userdata);
  call->connection->queueReply(*call, reply);
  return 1;
}

const sd_bus_vtable kServiceVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Invoke", "ss", SD_BUS_PARAM(method) SD_BUS_PARAM(parameters), "s",
                             SD_BUS_PARAM(result), onInvoke, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Emit", "ss", SD_BUS_PARAM(name) SD_BUS_PARAM(data), 0),
    SD_BUS_VTABLE_END};

// A method call of Invoke that never starts a service on the way.
int newInvoke(sd_bus* bus, const char* busName, const char* objPath, const char* method, const char* params,
              sd_bus_message** call) {
  int r = sd_bus_message_new_method_call(bus, call, busName, objPath, SVCIPC_INTERFACE_NAME, "Invoke");
  if (r < 0) return r;
  r = sd_bus_message_append(*call, "ss", method, params ? params : "");
  if (r >= 0) r = sd_bus_message_set_auto_start(*call, 0);
  if (r < 0) *call = sd_bus_message_unref(*call);
  return r;
}

// The status of a reply to Invoke; on success result points into reply.
// sd-bus reports its own time-out and a lost connection as NoReply errors
// from the daemon; the deadline and the connection state tell them apart.
SVCIPC_tError replyStatus(sd_bus* bus, sd_bus_message* reply, uint64_t deadlineUsec, const char** result) {
  *result = nullptr;
  if (sd_bus_message_is_method_error(reply, nullptr)) {
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    if (sd_bus_error_has_name(error, kNoReplyError)) {
      if (sd_bus_is_open(bus) <= 0) return svcipc::errnoError(ECONNRESET);
      if (svcipc::monotonicUsec() >= deadlineUsec) return svcipc::libraryError(SVCIPC_ERR_TIMEOUT);
    }
    return svcipc::dbusError(error);
  }
  if (sd_bus_message_read(reply, "s", result) <= 0) return svcipc::libraryError(SVCIPC_ERR_BAD_REPLY);
  return SVCIPC_ERROR_NONE;
}

struct SyncReply {
  sd_bus_message* reply = nullptr;
};

int onSyncReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  static_cast<SyncReply*>(userdata)->reply = sd_bus_message_ref(reply);
  return 1;
}

// Sends call on a connection used by this thread alone and drives it until
// the reply (or sd-bus's own time-out error) is there.
int awaitReply(sd_bus* bus, sd_bus_message* call, uint64_t timeoutUsec, sd_bus_message** reply) {
  SyncReply waiting;
  sd_bus_slot* slot = nullptr;
  int r = sd_bus_call_async(bus, &slot, call, onSyncReply, &waiting, timeoutUsec);
  if (r < 0) return r;
  // sd_bus_process may report 0 although it ran the time-out callback: check
  // for the reply after every round.
  while (waiting.reply == nullptr) {
    r = sd_bus_process(bus, nullptr);
    if (r < 0 || waiting.reply != nullptr) break;
    if (r > 0) continue;
    r = sd_bus_wait(bus, UINT64_MAX);
    if (r < 0 && r != -EINTR) break;
  }
  sd_bus_slot_unref(slot);
  if (waiting.reply == nullptr) return r < 0 ? r : -EIO;
  *reply = waiting.reply;
  return 0;
}

SVCIPC_tResponse* newResponse(const char* text) {
  const size_t length = strlen(text);
  // One block: the response and its text behind it.
  auto* response = static_cast<SVCIPC_tResponse*>(malloc(sizeof(SVCIPC_tResponse) + length + 1));
  if (response == nullptr) return nullptr;
  char* copy = reinterpret_cast<char*>(response + 1);
  memcpy(copy, text, length + 1);
  response->result = copy;
  return response;
}

}  // namespace

namespace svcipc {

SVCIPC_tError libraryError(uint32_t code) { return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_IPC_LIB, code); }

SVCIPC_tError errnoError(int errnoValue) {
  return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_C_LIB, errnoValue < 0 ? -errnoValue : errnoValue);
}

SVCIPC_tError dbusError(const sd_bus_error* error) {
  if (error == nullptr || error->name == nullptr) return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_FAILED);
  // An errno carried as an error name (sd-bus peers send "System.Error.ENOENT").
  if (strncmp(error->name, "System.Error.", 13) == 0) return errnoError(sd_bus_error_get_errno(error));
  for (const NamedCode& known : kDbusErrorCodes)
    if (strcmp(error->name, known.name) == 0) return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, known.code);
  return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_FAILED);
}

uint64_t replyTimeoutUsec(int timeoutMsec) {
  const int64_t ms = timeoutMsec > 0 ? timeoutMsec : kDefaultReplyTimeoutMs;
  return static_cast<uint64_t>(platform::scaledMs(ms)) * 1000u;
}

uint64_t monotonicUsec() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

int openBus(const std::string& address, sd_bus** bus) {
  sd_bus* opened = nullptr;
  int r = sd_bus_new(&opened);
  if (r < 0) return r;
  r = sd_bus_set_address(opened, address.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(opened, 1);
  if (r >= 0) r = sd_bus_start(opened);
  const char* uniqueName = nullptr;
  if (r >= 0) r = sd_bus_get_unique_name(opened, &uniqueName);  // waits for the daemon's Hello
  if (r < 0) {
    sd_bus_close_unref(opened);
    return r;
  }
  *bus = opened;
  return 0;
}

}  // namespace svcipc

// ---- life of a connection -------------------------------------------------

SvcIpcConnection::SvcIpcConnection(std::string address) : mAddress(std::move(address)) {}

SvcIpcConnection::~SvcIpcConnection() {
  if (mThread.joinable()) {
    if (mThread.get_id() == std::this_thread::get_id())
      mThread.detach();  // the dispatch thread dropped the last reference on its way out
    else
      mThread.join();
  }
  if (mBus != nullptr) sd_bus_flush_close_unref(mBus);  // never started its thread
  closeCallBuses();
  if (mWakeFd >= 0) ::close(mWakeFd);
}

SVCIPC_tError SvcIpcConnection::open() {
  if (mAddress.empty()) return svcipc::libraryError(SVCIPC_ERR_CONNECTION);
  if (svcipc::openBus(mAddress, &mBus) < 0) {
    mBus = nullptr;
    return svcipc::libraryError(SVCIPC_ERR_CONNECTION);
  }
  mWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (mWakeFd < 0) return svcipc::errnoError(errno);
  mSelf = shared_from_this();
  mProgress = std::make_unique<platform::threadProgress>("bus thread", 90000);
  try {
    mThread = std::thread([this] {
      mThreadId.store(std::this_thread::get_id());
      run();
      std::shared_ptr<SvcIpcConnection> self = std::move(mSelf);
    });
  } catch (const std::system_error& e) {
    mSelf.reset();
    return svcipc::errnoError(e.code().value());
  }
  return SVCIPC_ERROR_NONE;
}

void SvcIpcConnection::close(const std::vector<std::shared_ptr<SvcIpcRegistration>>& registrations,
                             const std::vector<std::shared_ptr<SvcIpcSubscription>>& subscriptions) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& registration : registrations) {
      registration->active = false;
      registration->slot = sd_bus_slot_unref(registration->slot);
    }
    for (const auto& subscription : subscriptions) {
      subscription->active = false;
      subscription->slot = sd_bus_slot_unref(subscription->slot);
    }
    if (mStopping) return;
    mStopping = true;
  }
  if (mWakeFd >= 0) wake();
  // From a callback the thread stops once the callback returns.
  if (mThreadId.load() == std::this_thread::get_id() || !mThread.joinable()) return;
  if (waitFinished())
    mThread.join();
  else
    mThread.detach();  // stuck in a callback; it ends on its own
}

bool SvcIpcConnection::waitFinished() {
  std::unique_lock<std::mutex> lock(mFinishMutex);
  return mFinishCond.wait_for(lock, kCloseWait, [this] { return mFinished; });
}

template <class Operation>
SVCIPC_tError SvcIpcConnection::withBus(Operation&& operation) {
  SVCIPC_tError rc;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mStopping || mBus == nullptr) return svcipc::libraryError(SVCIPC_ERR_NOT_INITIALIZED);
    if (mBroken) return svcipc::errnoError(ENOTCONN);
    rc = operation(mBus);
  }
  // New timeouts, unwritten messages or queued completions for the loop. A
  // callback on the dispatch thread needs no wake: the loop processes the
  // bus and computes its wait anew after every callback.
  if (mThreadId.load() != std::this_thread::get_id()) wake();
  return rc;
}

void SvcIpcConnection::wake() {
  const uint64_t one = 1;
  (void)!::write(mWakeFd, &one, sizeof one);
}

// ---- services and subscriptions ------------------------------------------

SVCIPC_tError SvcIpcConnection::registerObject(SvcIpcRegistration& registration) {
  return withBus([&](sd_bus* bus) -> SVCIPC_tError {
    // The object first, so that a request arriving as soon as the name is
    // owned finds it.
    int r = sd_bus_add_object_vtable(bus, &registration.slot, registration.objPath.c_str(), SVCIPC_INTERFACE_NAME,
                                     kServiceVtable, &registration);
    if (r < 0) return svcipc::errnoError(r);
    r = sd_bus_request_name(bus, registration.busName.c_str(), 0);
    if (r < 0 && r != -EALREADY) {
      registration.slot = sd_bus_slot_unref(registration.slot);
      return r == -EEXIST ? svcipc::libraryError(SVCIPC_ERR_NAME_TAKEN) : svcipc::errnoError(r);
    }
    return SVCIPC_ERROR_NONE;
  });
}

SVCIPC_tError SvcIpcConnection::unregisterObject(SvcIpcRegistration& registration) {
  registration.active = false;
  std::lock_guard<std::mutex> lock(mMutex);
  registration.slot = sd_bus_slot_unref(registration.slot);
  if (mStopping || mBroken || mBus == nullptr) return SVCIPC_ERROR_NONE;  // closing gives the name up anyway
  const int r = sd_bus_release_name(mBus, registration.busName.c_str());
  return r < 0 ? svcipc::errnoError(r) : SVCIPC_ERROR_NONE;
}

SVCIPC_tError SvcIpcConnection::addMatch(SvcIpcSubscription& subscription, const std::string& rule) {
  return withBus([&](sd_bus* bus) -> SVCIPC_tError {
    // Installed synchronously: a signal sent after this returns is seen.
    const int r = sd_bus_add_match(bus, &subscription.slot, rule.c_str(),
                                   subscription.onOwnerChanged ? onOwnerSignal : onEmitSignal, &subscription);
    return r < 0 ? svcipc::errnoError(r) : SVCIPC_ERROR_NONE;
  });
}

SVCIPC_tError SvcIpcConnection::removeMatch(SvcIpcSubscription& subscription) {
  subscription.active = false;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    subscription.slot = sd_bus_slot_unref(subscription.slot);
  }
  if (mWakeFd >= 0) wake();  // the RemoveMatch message may wait for the loop to be written
  return SVCIPC_ERROR_NONE;
}

// ---- requests to this connection's services ------------------------------

void SvcIpcConnection::queueRequest(SvcIpcRegistration& registration, sd_bus_message* call) {
  if (mStopping || !registration.active) return;  // dropped: the caller runs into its time-out
  Delivery delivery;
  // sd-bus has checked the signature "ss" and the texts before it got here.
  if (sd_bus_message_read(call, "ss", &delivery.text[0], &delivery.text[1]) <= 0) return;
  delivery.kind = Delivery::Kind::Request;
  delivery.message = sd_bus_message_ref(call);
  delivery.registration = registration.shared_from_this();
  delivery.request = new SvcIpcRequest;
  delivery.request->connection = shared_from_this();
  delivery.request->call = sd_bus_message_ref(call);
  delivery.noReplyExpected = sd_bus_message_get_expect_reply(call) > 0 ? 0 : 1;
  mReady.push_back(std::move(delivery));
}

SVCIPC_tError SvcIpcConnection::reply(SvcIpcRequest& request, const char* result, bool isError) {
  return withBus([&](sd_bus*) -> SVCIPC_tError {
    if (request.call == nullptr || request.replied) return svcipc::libraryError(SVCIPC_ERR_BAD_ARGS);
    if (sd_bus_message_get_expect_reply(request.call) <= 0) {
      request.replied = true;  // the caller asked for no reply: nothing to send
      return SVCIPC_ERROR_NONE;
    }
    int r;
    if (isError) {
      const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(SVCIPC_SERVICE_ERROR_NAME, result);
      r = sd_bus_reply_method_error(request.call, &error);
    } else {
      r = sd_bus_reply_method_return(request.call, "s", result);
    }
    if (r < 0) return svcipc::errnoError(r);
    request.replied = true;
    return SVCIPC_ERROR_NONE;
  });
}

void SvcIpcConnection::release(SvcIpcRequest& request) {
  std::lock_guard<std::mutex> lock(mMutex);
  request.call = sd_bus_message_unref(request.call);
}

SVCIPC_tError SvcIpcConnection::emit(SvcIpcRegistration& registration, const char* sigName, const char* data,
                                     SVCIPC_tResultCallback onStatus, void* context) {
  return withBus([&](sd_bus* bus) -> SVCIPC_tError {
    if (!registration.active) return svcipc::libraryError(SVCIPC_ERR_BAD_ARGS);
    // Sent by the connection that owns the name, from the service's path.
    const int r = sd_bus_emit_signal(bus, registration.objPath.c_str(), SVCIPC_INTERFACE_NAME, "Emit", "ss", sigName,
                                     data ? data : "");
    if (r < 0) return svcipc::errnoError(r);
    if (onStatus != nullptr) mEmitted.emplace_back(onStatus, context);
    return SVCIPC_ERROR_NONE;
  });
}

void SvcIpcConnection::queueSignal(SvcIpcSubscription& subscription, sd_bus_message* signal, bool ownerChange) {
  if (mStopping || !subscription.active) return;
  Delivery delivery;
  // Several subscriptions may read the same message.
  if (sd_bus_message_rewind(signal, 1) < 0) return;
  const int r = ownerChange ? sd_bus_message_read(signal, "sss", &delivery.text[0], &delivery.text[1],
                                                  &delivery.text[2])
                            : sd_bus_message_read(signal, "ss", &delivery.text[0], &delivery.text[1]);
  if (r <= 0) return;  // not of the form the subscription expects
  delivery.kind = ownerChange ? Delivery::Kind::OwnerChange : Delivery::Kind::Signal;
  delivery.message = sd_bus_message_ref(signal);
  delivery.subscription = subscription.shared_from_this();
  mReady.push_back(std::move(delivery));
}

// ---- calls to other services ----------------------------------------------

SVCIPC_tError SvcIpcConnection::invoke(const char* busName, const char* objPath, const char* method,
                                       const char* params, int timeoutMsec, SVCIPC_tResponse** response) {
  followOwner(busName);  // for the asynchronous requests that may follow
  SVCIPC_tError rc = SVCIPC_ERROR_NONE;
  sd_bus* bus = leaseCallBus(&rc);
  if (bus == nullptr) return rc;
  sd_bus_message* call = nullptr;
  int r = newInvoke(bus, busName, objPath, method, params, &call);
  if (r < 0) {
    returnCallBus(bus);
    return svcipc::errnoError(r);
  }
  const uint64_t timeoutUsec = svcipc::replyTimeoutUsec(timeoutMsec);
  const uint64_t deadline = svcipc::monotonicUsec() + timeoutUsec;
  sd_bus_message* reply = nullptr;
  r = awaitReply(bus, call, timeoutUsec, &reply);
  sd_bus_message_unref(call);
  if (r < 0) {
    rc = svcipc::errnoError(r);
  } else {
    const char* result = nullptr;
    rc = replyStatus(bus, reply, deadline, &result);
    if (rc == SVCIPC_ERROR_NONE) {
      *response = newResponse(result);
      if (*response == nullptr) rc = svcipc::libraryError(SVCIPC_ERR_NO_MEMORY);
    }
    sd_bus_message_unref(reply);
  }
  returnCallBus(bus);
  return rc;
}

SVCIPC_tError SvcIpcConnection::nameHasOwner(const char* busName, int* hasOwner) {
  SVCIPC_tError rc = SVCIPC_ERROR_NONE;
  sd_bus* bus = leaseCallBus(&rc);
  if (bus == nullptr) return rc;
  sd_bus_message* call = nullptr;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_call(bus, &call, kDbusName, kDbusPath, kDbusName, "NameHasOwner");
  if (r >= 0) r = sd_bus_message_append(call, "s", busName);
  if (r >= 0) r = awaitReply(bus, call, svcipc::replyTimeoutUsec(SVCIPC_TIMEOUT_DEFAULT), &reply);
  sd_bus_message_unref(call);
  if (r < 0) {
    rc = svcipc::errnoError(r);
  } else if (sd_bus_message_is_method_error(reply, nullptr)) {
    rc = svcipc::dbusError(sd_bus_message_get_error(reply));
  } else {
    int owned = 0;
    if (sd_bus_message_read(reply, "b", &owned) > 0)
      *hasOwner = owned ? 1 : 0;
    else
      rc = svcipc::libraryError(SVCIPC_ERR_BAD_REPLY);
  }
  sd_bus_message_unref(reply);
  returnCallBus(bus);
  return rc;
}

SVCIPC_tError SvcIpcConnection::invokeAsync(const char* busName, const char* objPath, const char* method,
                                            const char* params, bool noReplyExpected, int timeoutMsec,
                                            SVCIPC_tResultCallback onResult, void* context) {
  // A peer that is not on the bus is refused here, on the caller's thread,
  // so that the caller sees the negative status and no callback follows.
  // Its owner is known from the daemon's owner changes; only a name the
  // connection has not heard of yet is asked about, once.
  const uint64_t timeoutUsec = svcipc::replyTimeoutUsec(timeoutMsec);
  bool unknown = false;
  SVCIPC_tError rc = withBus([&](sd_bus* bus) -> SVCIPC_tError {
    bool sent = false;
    const int owned = knownOwner(busName, &sent);
    if (owned < 0) {
      unknown = true;
      return SVCIPC_ERROR_NONE;
    }
    if (owned == 0) return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_UNKNOWN);
    return sendInvoke(bus, busName, objPath, method, params, noReplyExpected, timeoutUsec, onResult, context);
  });
  if (!unknown) return rc;

  int owned = 0;
  rc = nameHasOwner(busName, &owned);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  if (!owned) return SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_UNKNOWN);
  return withBus([&](sd_bus* bus) -> SVCIPC_tError {
    return sendInvoke(bus, busName, objPath, method, params, noReplyExpected, timeoutUsec, onResult, context);
  });
}

SVCIPC_tError SvcIpcConnection::sendInvoke(sd_bus* bus, const char* busName, const char* objPath, const char* method,
                                           const char* params, bool noReplyExpected, uint64_t timeoutUsec,
                                           SVCIPC_tResultCallback onResult, void* context) {
  sd_bus_message* call = nullptr;
  int r = newInvoke(bus, busName, objPath, method, params, &call);
  if (r < 0) return svcipc::errnoError(r);
  if (noReplyExpected || onResult == nullptr) {
    if (noReplyExpected) r = sd_bus_message_set_expect_reply(call, 0);
    if (r >= 0) r = sd_bus_send(bus, call, nullptr);
  } else {
    PendingCall& pending = mPending.emplace_back();
    pending.connection = this;
    pending.onResult = onResult;
    pending.context = context;
    pending.deadlineUsec = svcipc::monotonicUsec() + timeoutUsec;
    pending.self = std::prev(mPending.end());
    r = sd_bus_call_async(bus, &pending.slot, call, onAsyncReply, &pending, timeoutUsec);
    if (r < 0) mPending.erase(pending.self);
  }
  sd_bus_message_unref(call);
  return r < 0 ? svcipc::errnoError(r) : SVCIPC_ERROR_NONE;
}

void SvcIpcConnection::queueReply(PendingCall& call, sd_bus_message* reply) {
  Delivery delivery;
  delivery.kind = Delivery::Kind::Result;
  delivery.message = sd_bus_message_ref(reply);
  delivery.onResult = call.onResult;
  delivery.context = call.context;
  delivery.status.errCode = replyStatus(mBus, reply, call.deadlineUsec, &delivery.text[0]);
  if (delivery.status.errCode != SVCIPC_ERROR_NONE && sd_bus_message_is_method_error(reply, nullptr)) {
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    delivery.status.errName = error->name;
    delivery.status.errMsg = error->message;
  }
  mReady.push_back(std::move(delivery));
  // The slot is still in use by sd-bus while this callback runs.
  mAnsweredCalls.push_back(call.slot);
  mPending.erase(call.self);
}

// ---- the owners of the peers' names ---------------------------------------

void SvcIpcConnection::followOwner(const char* busName) {
  bool sent = false;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mStopping || mBroken || mBus == nullptr) return;
    knownOwner(busName, &sent);
  }
  // The match and the question go out on the loop, which must also time
  // the question.
  if (sent && mThreadId.load() != std::this_thread::get_id()) wake();
}

int SvcIpcConnection::knownOwner(const char* busName, bool* sent) {
  using State = svcipc::PeerOwner::State;
  if (!isBusName(busName)) return -1;
  svcipc::PeerOwner& owner = mOwners[busName];
  if (owner.state == State::Owned) return 1;
  if (owner.state == State::Absent) return 0;
  if (owner.state == State::Asking || owner.state == State::Unfollowed) return -1;
  // Not followed yet, or the last attempt failed: the match first, then the
  // question, so that no change falls between the two.
  owner.connection = this;
  owner.name = busName;
  if (owner.match == nullptr) {
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        owner.name + "'";
    if (sd_bus_add_match_async(mBus, &owner.match, rule.c_str(), onFollowedOwnerChanged, onOwnerMatchInstalled,
                               &owner) < 0) {
      owner.match = nullptr;
      return -1;
    }
    *sent = true;
  }
  if (sd_bus_call_method_async(mBus, &owner.query, kDbusName, kDbusPath, kDbusName, "GetNameOwner", onOwnerAnswer,
                               &owner, "s", busName) < 0) {
    owner.query = nullptr;
    return -1;
  }
  *sent = true;
  owner.state = State::Asking;
  return -1;
}

void SvcIpcConnection::ownerMatchInstalled(svcipc::PeerOwner& owner, sd_bus_message* reply) {
  if (!sd_bus_message_is_method_error(reply, nullptr)) return;
  // Refused (the daemon's limit of matches): the name is asked about on
  // every request, as before it was followed.
  slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "service bus: cannot follow the owner of %s: %s", owner.name.c_str(),
        sd_bus_message_get_error(reply)->name);
  mAnsweredCalls.push_back(owner.match);
  owner.match = nullptr;
  owner.state = svcipc::PeerOwner::State::Unfollowed;
}

void SvcIpcConnection::ownerAnswered(svcipc::PeerOwner& owner, sd_bus_message* reply) {
  using State = svcipc::PeerOwner::State;
  mAnsweredCalls.push_back(owner.query);
  owner.query = nullptr;
  if (owner.match == nullptr) {
    owner.state = State::Unfollowed;  // no match: nothing would keep the answer true
  } else if (!sd_bus_message_is_method_error(reply, nullptr)) {
    owner.state = State::Owned;
  } else if (sd_bus_error_has_name(sd_bus_message_get_error(reply), "org.freedesktop.DBus.Error.NameHasNoOwner")) {
    owner.state = State::Absent;
  } else {
    owner.state = State::Unknown;  // asked again on the next request
  }
}

void SvcIpcConnection::ownerChanged(svcipc::PeerOwner& owner, sd_bus_message* signal) {
  // While the question waits, its answer tells the owner after this change.
  using State = svcipc::PeerOwner::State;
  if (owner.state == State::Asking || owner.state == State::Unfollowed) return;
  const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
  if (sd_bus_message_rewind(signal, 1) < 0 || sd_bus_message_read(signal, "sss", &name, &oldOwner, &newOwner) <= 0)
    return;
  owner.state = *newOwner != '\0' ? State::Owned : State::Absent;
}

// Under the lock, before the connection closes.
void SvcIpcConnection::forgetOwners() {
  for (auto& [name, owner] : mOwners) {
    owner.match = sd_bus_slot_unref(owner.match);
    owner.query = sd_bus_slot_unref(owner.query);
  }
  mOwners.clear();
}

// ---- the pool of connections for synchronous calls ------------------------

sd_bus* SvcIpcConnection::leaseCallBus(SVCIPC_tError* rc) {
  {
    std::lock_guard<std::mutex> lock(mPoolMutex);
    if (mPoolClosed) {
      *rc = svcipc::libraryError(SVCIPC_ERR_NOT_INITIALIZED);
      return nullptr;
    }
    if (!mCallBuses.empty()) {
      sd_bus* bus = mCallBuses.back();
      mCallBuses.pop_back();
      return bus;
    }
  }
  // A thread more than ever called at once: one more connection, kept after.
  sd_bus* bus = nullptr;
  if (svcipc::openBus(mAddress, &bus) < 0) {
    *rc = svcipc::libraryError(SVCIPC_ERR_CONNECTION);
    return nullptr;
  }
  return bus;
}

void SvcIpcConnection::returnCallBus(sd_bus* bus) {
  if (sd_bus_is_open(bus) > 0) {
    std::lock_guard<std::mutex> lock(mPoolMutex);
    if (!mPoolClosed) {
      mCallBuses.push_back(bus);
      return;
    }
  }
  sd_bus_close_unref(bus);
}

void SvcIpcConnection::closeCallBuses() {
  std::vector<sd_bus*> buses;
  {
    std::lock_guard<std::mutex> lock(mPoolMutex);
    mPoolClosed = true;
    buses.swap(mCallBuses);
  }
  for (sd_bus* bus : buses) sd_bus_close_unref(bus);
}

// ---- the dispatch thread ---------------------------------------------------

void SvcIpcConnection::run() {
  std::vector<Delivery> batch;
  std::unique_lock<std::mutex> lock(mMutex);
  while (!mStopping) {
    const bool more = dispatchIncoming();
    collectEmitted();
    if (!mReady.empty()) {
      // Callbacks run without the lock, so that they (and every other
      // thread) can use this connection meanwhile.
      batch.swap(mReady);
      lock.unlock();
      runDeliveries(batch);
      lock.lock();
      releaseDeliveries(batch);
      continue;
    }
    if (!more) waitForWork(lock);
  }
  finish(lock);
}

bool SvcIpcConnection::dispatchIncoming() {
  if (mBroken) return false;
  for (int i = 0; i < kDispatchBatch; ++i) {
    const int r = sd_bus_process(mBus, nullptr);
    for (sd_bus_slot* slot : mAnsweredCalls) sd_bus_slot_unref(slot);
    mAnsweredCalls.clear();
    if (r == 0) return false;
    if (r < 0) {
      mBroken = true;
      slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "service bus connection lost: %s", strerror(-r));
      cancelPending(svcipc::errnoError(ECONNRESET));
      return false;
    }
  }
  return true;
}

// Emit completions are due once everything queued before them is written.
void SvcIpcConnection::collectEmitted() {
  if (mEmitted.empty()) return;
  uint64_t unwritten = 0;
  if (!mBroken && (sd_bus_get_n_queued_write(mBus, &unwritten) < 0 || unwritten > 0)) return;
  const SVCIPC_tError status = mBroken ? svcipc::errnoError(ECONNRESET) : SVCIPC_ERROR_NONE;
  for (const auto& [onStatus, context] : mEmitted) {
    Delivery delivery;
    delivery.onResult = onStatus;
    delivery.context = context;
    delivery.status.errCode = status;
    mReady.push_back(std::move(delivery));
  }
  mEmitted.clear();
}

void SvcIpcConnection::waitForWork(std::unique_lock<std::mutex>& lock) {
  struct pollfd fds[2] = {{mWakeFd, POLLIN, 0}, {-1, 0, 0}};
  nfds_t count = 1;
  struct timespec relative = {0, 0};
  struct timespec* timeout = nullptr;
  if (!mBroken) {
    uint64_t until = UINT64_MAX;
    const int fd = sd_bus_get_fd(mBus);
    const int events = sd_bus_get_events(mBus);
    if (fd >= 0 && events >= 0 && sd_bus_get_timeout(mBus, &until) >= 0) {
      fds[1] = {fd, static_cast<short>(events), 0};
      count = 2;
      if (until != UINT64_MAX) {
        const uint64_t now = svcipc::monotonicUsec();
        const uint64_t left = until > now ? until - now : 0;
        relative.tv_sec = static_cast<time_t>(left / 1000000u);
        relative.tv_nsec = static_cast<long>(left % 1000000u) * 1000;
        timeout = &relative;
      }
    }
  }
  lock.unlock();
  int r;
  {
    platform::blockingCall wait(*mProgress);
    r = ppoll(fds, count, timeout, nullptr);
  }
  lock.lock();
  if (r > 0 && (fds[0].revents & POLLIN)) {
    uint64_t wakes;
    (void)!::read(mWakeFd, &wakes, sizeof wakes);
  }
}

void SvcIpcConnection::runDeliveries(std::vector<Delivery>& batch) {
  for (Delivery& delivery : batch) {
    switch (delivery.kind) {
      case Delivery::Kind::Request: {
        SvcIpcRegistration& registration = *delivery.registration;
        if (registration.active) {
          registration.handler(delivery.request, delivery.text[0], delivery.text[1], delivery.noReplyExpected,
                               registration.userData);
        } else {
          release(*delivery.request);
          delete delivery.request;
        }
        break;
      }
      case Delivery::Kind::Signal:
        if (delivery.subscription->active)
          delivery.subscription->onSignal(delivery.text[0], delivery.text[1], delivery.subscription->context);
        break;
      case Delivery::Kind::OwnerChange:
        if (delivery.subscription->active)
          delivery.subscription->onOwnerChanged(delivery.text[0], delivery.text[1], delivery.text[2],
                                                delivery.subscription->context);
        break;
      case Delivery::Kind::Result:
        if (delivery.onResult != nullptr) delivery.onResult(&delivery.status, delivery.text[0], delivery.context);
        break;
    }
  }
}

// Under the lock: the messages belong to the connection.
void SvcIpcConnection::releaseDeliveries(std::vector<Delivery>& batch) {
  for (Delivery& delivery : batch) sd_bus_message_unref(delivery.message);
  batch.clear();
}

void SvcIpcConnection::cancelPending(SVCIPC_tError status) {
  for (PendingCall& call : mPending) {
    sd_bus_slot_unref(call.slot);  // sd-bus forgets the call: no reply reaches it any more
    Delivery delivery;
    delivery.onResult = call.onResult;
    delivery.context = call.context;
    delivery.status.errCode = status;
    mReady.push_back(std::move(delivery));
  }
  mPending.clear();
}

// Writes what is still queued (bounded), then closes. Requests that arrive
// meanwhile are dropped (mStopping).
void SvcIpcConnection::flushAndClose() {
  if (!mBroken) {
    const uint64_t deadline = svcipc::monotonicUsec() + kFlushWaitUsec;
    for (;;) {
      uint64_t unwritten = 0;
      if (sd_bus_get_n_queued_write(mBus, &unwritten) < 0 || unwritten == 0) break;
      const uint64_t now = svcipc::monotonicUsec();
      if (now >= deadline) break;
      const int r = sd_bus_process(mBus, nullptr);
      if (r < 0) break;
      if (r == 0) sd_bus_wait(mBus, deadline - now);
    }
  }
  for (sd_bus_slot* slot : mAnsweredCalls) sd_bus_slot_unref(slot);
  mAnsweredCalls.clear();
  forgetOwners();
  collectEmitted();
  for (const auto& [onStatus, context] : mEmitted) {
    Delivery delivery;
    delivery.onResult = onStatus;
    delivery.context = context;
    delivery.status.errCode = svcipc::libraryError(SVCIPC_ERR_CANCELLED);
    mReady.push_back(std::move(delivery));
  }
  mEmitted.clear();
  sd_bus_close(mBus);
  mBus = sd_bus_unref(mBus);  // request contexts still held keep the rest alive
}

void SvcIpcConnection::finish(std::unique_lock<std::mutex>& lock) {
  cancelPending(svcipc::libraryError(SVCIPC_ERR_CANCELLED));
  flushAndClose();
  std::vector<Delivery> batch;
  batch.swap(mReady);
  lock.unlock();
  runDeliveries(batch);
  lock.lock();
  releaseDeliveries(batch);
  lock.unlock();
  closeCallBuses();
  {
    std::lock_guard<std::mutex> finished(mFinishMutex);
    mFinished = true;
  }
  mFinishCond.notify_all();
}
