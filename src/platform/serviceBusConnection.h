// Internals of the service bus: the objects behind the handles of
// serviceBus.h and the status words made from sd-bus results.
//
// One SvcIpcConnection is one "loop" connection to a D-Bus daemon, driven by
// a dispatch thread of its own. The loop connection owns the service names,
// serves their objects, carries the signal matches, the asynchronous calls,
// the replies and the emitted signals. Everything that touches it holds the
// connection's mutex; the dispatch thread releases the mutex while it sleeps
// in ppoll and while the user's callbacks run, and other threads wake it
// through an eventfd after they queued work.
//
// Synchronous calls (and the has-owner question) do not use the loop
// connection: they lease a connection of their own from a small pool, so a
// synchronous invoke made from inside a callback never needs the dispatch
// thread.
//
// The loop connection also follows the owner of every name it talks to
// (calls, asynchronous calls, signal subscriptions of a service), through the
// daemon's NameOwnerChanged, so that an asynchronous request to an absent
// peer is refused at once without asking the daemon first.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/serviceBus.h"
#include "platform/threadProgress.h"

namespace svcipc {

SVCIPC_tError libraryError(uint32_t code);
// errnoValue may be given positive or negative.
SVCIPC_tError errnoError(int errnoValue);
// The status of a D-Bus error (a name mapped to a domain 1 code, or an errno).
SVCIPC_tError dbusError(const sd_bus_error* error);
// A time limit of the caller (-1: the default 25 s) in microseconds, scaled.
uint64_t replyTimeoutUsec(int timeoutMsec);
uint64_t monotonicUsec();

// Opens a bus client connection to address and waits for the daemon's Hello.
int openBus(const std::string& address, sd_bus** bus);

// One callback to run on the dispatch thread, outside the connection's lock.
// The texts point into message, which is released after the callback.
struct Delivery {
  enum class Kind { Request, Signal, OwnerChange, Result };
  Kind kind = Kind::Result;
  sd_bus_message* message = nullptr;
  std::shared_ptr<SvcIpcRegistration> registration;
  std::shared_ptr<SvcIpcSubscription> subscription;
  SvcIpcRequest* request = nullptr;
  const char* text[3] = {nullptr, nullptr, nullptr};
  int noReplyExpected = 0;
  SVCIPC_tResultCallback onResult = nullptr;
  void* context = nullptr;
  SVCIPC_tCallbackStatus status = {SVCIPC_ERROR_NONE, nullptr, nullptr};
};

// An asynchronous call waiting for its reply on the loop connection.
struct PendingCall {
  SvcIpcConnection* connection = nullptr;
  sd_bus_slot* slot = nullptr;
  SVCIPC_tResultCallback onResult = nullptr;
  void* context = nullptr;
  uint64_t deadlineUsec = 0;
  std::list<PendingCall>::iterator self;
};

// The owner of a peer's name as the loop connection last heard of it: asked
// once (GetNameOwner) after a match on its NameOwnerChanged was sent, then
// kept by those signals. Both go out on the loop connection, so the daemon
// answers the question after it installed the match, and the dispatch thread
// sees the answer before any change that came later.
struct PeerOwner {
  // Unknown: not asked yet, or the question failed (asked again);
  // Unfollowed: the daemon refused the match (asked on every request).
  enum class State { Unknown, Asking, Owned, Absent, Unfollowed };
  SvcIpcConnection* connection = nullptr;
  std::string name;
  State state = State::Unknown;
  sd_bus_slot* match = nullptr;  // the NameOwnerChanged match, while it stands
  sd_bus_slot* query = nullptr;  // the GetNameOwner call, while it waits
};

}  // namespace svcipc

struct SvcIpcRegistration : std::enable_shared_from_this<SvcIpcRegistration> {
  std::shared_ptr<SvcIpcConnection> connection;
  std::string busName;
  std::string objPath;
  SVCIPC_tRequestCallback handler = nullptr;
  void* userData = nullptr;
  sd_bus_slot* slot = nullptr;  // the object; guarded by the connection's mutex
  std::atomic<bool> active{true};
};

struct SvcIpcSubscription : std::enable_shared_from_this<SvcIpcSubscription> {
  std::shared_ptr<SvcIpcConnection> connection;
  SVCIPC_tSignalCallback onSignal = nullptr;
  SVCIPC_tNameOwnerChangedCallback onOwnerChanged = nullptr;
  void* context = nullptr;
  sd_bus_slot* slot = nullptr;  // the match; guarded by the connection's mutex
  std::atomic<bool> active{true};
};

// A method request handed to a service's handler. It holds the call message
// until SVCIPC_freeReqContext, whether or not a reply was sent.
struct SvcIpcRequest {
  std::shared_ptr<SvcIpcConnection> connection;
  sd_bus_message* call = nullptr;  // guarded by the connection's mutex
  bool replied = false;            // guarded by the connection's mutex
};

struct SvcIpcConnection : std::enable_shared_from_this<SvcIpcConnection> {
 public:
  explicit SvcIpcConnection(std::string address);
  ~SvcIpcConnection();
  SvcIpcConnection(const SvcIpcConnection&) = delete;
  SvcIpcConnection& operator=(const SvcIpcConnection&) = delete;

  // Connects and starts the dispatch thread.
  SVCIPC_tError open();
  // Stops the dispatch thread: removes the objects and matches of the given
  // handles, cancels the pending calls (their callbacks get code 8), flushes
  // and closes the connection. From the dispatch thread itself it only asks
  // the thread to stop after the running callback.
  void close(const std::vector<std::shared_ptr<SvcIpcRegistration>>& registrations,
             const std::vector<std::shared_ptr<SvcIpcSubscription>>& subscriptions);

  SVCIPC_tError registerObject(SvcIpcRegistration& registration);
  SVCIPC_tError unregisterObject(SvcIpcRegistration& registration);
  SVCIPC_tError addMatch(SvcIpcSubscription& subscription, const std::string& rule);
  SVCIPC_tError removeMatch(SvcIpcSubscription& subscription);

  SVCIPC_tError reply(SvcIpcRequest& request, const char* result, bool isError);
  void release(SvcIpcRequest& request);
  SVCIPC_tError emit(SvcIpcRegistration& registration, const char* sigName, const char* data,
                     SVCIPC_tResultCallback onStatus, void* context);

  SVCIPC_tError invoke(const char* busName, const char* objPath, const char* method, const char* params,
                       int timeoutMsec, SVCIPC_tResponse** response);
  SVCIPC_tError invokeAsync(const char* busName, const char* objPath, const char* method, const char* params,
                            bool noReplyExpected, int timeoutMsec, SVCIPC_tResultCallback onResult, void* context);
  SVCIPC_tError nameHasOwner(const char* busName, int* hasOwner);
  // Starts following the owner of busName, unless it is followed already.
  void followOwner(const char* busName);

  // sd-bus callbacks of the owners followed (on the dispatch thread).
  void ownerMatchInstalled(svcipc::PeerOwner& owner, sd_bus_message* reply);
  void ownerAnswered(svcipc::PeerOwner& owner, sd_bus_message* reply);
  void ownerChanged(svcipc::PeerOwner& owner, sd_bus_message* signal);

  // sd-bus callbacks (they run inside sd_bus_process on the dispatch thread).
  void queueRequest(SvcIpcRegistration& registration, sd_bus_message* call);
  void queueSignal(SvcIpcSubscription& subscription, sd_bus_message* signal, bool ownerChange);
  void queueReply(svcipc::PendingCall& call, sd_bus_message* reply);

 private:
  template <class Operation>
  SVCIPC_tError withBus(Operation&& operation);
  void wake();
  // Under the lock: 1 owned, 0 absent, -1 not known (yet); starts following
  // the name. *sent: messages were queued for the dispatch thread.
  int knownOwner(const char* busName, bool* sent);
  SVCIPC_tError sendInvoke(sd_bus* bus, const char* busName, const char* objPath, const char* method,
                           const char* params, bool noReplyExpected, uint64_t timeoutUsec,
                           SVCIPC_tResultCallback onResult, void* context);
  void forgetOwners();

  void run();
  bool dispatchIncoming();
  void collectEmitted();
  void waitForWork(std::unique_lock<std::mutex>& lock);
  void runDeliveries(std::vector<svcipc::Delivery>& batch);
  void releaseDeliveries(std::vector<svcipc::Delivery>& batch);
  void cancelPending(SVCIPC_tError status);
  void flushAndClose();
  void finish(std::unique_lock<std::mutex>& lock);
  bool waitFinished();

  sd_bus* leaseCallBus(SVCIPC_tError* rc);
  void returnCallBus(sd_bus* bus);
  void closeCallBuses();

  const std::string mAddress;

  std::mutex mMutex;  // guards everything below down to mEmitted
  sd_bus* mBus = nullptr;
  bool mStopping = false;
  bool mBroken = false;
  std::list<svcipc::PendingCall> mPending;
  std::vector<svcipc::Delivery> mReady;
  std::vector<std::pair<SVCIPC_tResultCallback, void*>> mEmitted;
  std::vector<sd_bus_slot*> mAnsweredCalls;  // released once sd_bus_process has returned
  std::map<std::string, svcipc::PeerOwner> mOwners;  // guarded by mMutex too

  int mWakeFd = -1;
  std::thread mThread;
  // The dispatch thread as a watchdog sees it: waiting in ppoll, or busy
  // with the bus and the callbacks (a few peer requests, some with the
  // bus's own 25 s bound).
  std::unique_ptr<platform::threadProgress> mProgress;
  std::atomic<std::thread::id> mThreadId{};
  std::shared_ptr<SvcIpcConnection> mSelf;  // keeps the connection alive until its thread ends

  std::mutex mFinishMutex;
  std::condition_variable mFinishCond;
  bool mFinished = false;

  std::mutex mPoolMutex;
  std::vector<sd_bus*> mCallBuses;
  bool mPoolClosed = false;
};
