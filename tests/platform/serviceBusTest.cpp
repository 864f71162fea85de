// The service bus against a private dbus-daemon, with several connections of
// one process playing the service, its peers and its callers.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/runtime.h"
#include "platform/serviceBus.h"
#include "support/privateBus.h"

namespace {

using namespace std::chrono_literals;

// What callbacks saw, collected across threads, with a bounded wait.
template <class T>
class Inbox {
 public:
  void push(T item) {
    std::lock_guard<std::mutex> lock(mMutex);
    mItems.push_back(std::move(item));
    mCond.notify_all();
  }
  bool waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mCond.wait_for(lock, 10s, [&] { return mItems.size() >= count; });
  }
  std::vector<T> items() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mItems;
  }

 private:
  mutable std::mutex mMutex;
  std::condition_variable mCond;
  std::vector<T> mItems;
};

struct Request {
  std::string method;
  int noReplyExpected;
  SVCIPC_tError replyRc;
  std::thread::id thread;
};

struct Result {
  SVCIPC_tError rc;
  std::string errName, errMsg, result;
  void* context;
  std::thread::id thread;
};

bool isStatus(SVCIPC_tError rc, uint32_t domain, uint32_t code) {
  return SVCIPC_IS_ERROR(rc) && SVCIPC_ERROR_DOMAIN(rc) == domain && SVCIPC_ERROR_CODE(rc) == code;
}

std::string text(const char* value) { return value ? value : ""; }
std::string busName(const std::string& name) { return "com.nordak.service." + name; }
std::string objectPath(const std::string& name) { return "/com/nordak/service/" + name; }

// A synchronous "echo" of the test service "Helper", as the service asks a
// peer from inside one of its own callbacks.
SVCIPC_tError askHelper(SVCIPC_tConnection via, const char* params, std::string* answer) {
  SVCIPC_tResponse* response = nullptr;
  const SVCIPC_tError rc = SVCIPC_invoke(via, "com.nordak.service.Helper", "/com/nordak/service/Helper", "echo",
                                         params, 5000, &response);
  *answer = rc == SVCIPC_ERROR_NONE ? response->result : "failed";
  SVCIPC_freeResponse(response);
  return rc;
}

// A service for the tests. "echo..." answers its parameters, "fail" answers a
// service error, "ask" answers what askHelper returns via askVia, anything
// else is freed unanswered.
struct TestService {
  Inbox<Request> requests;
  SVCIPC_tConnection askVia = nullptr;

  static void onRequest(SVCIPC_tReqContext context, const char* method, const char* params, int noReplyExpected,
                        SVCIPC_tUserToken token) {
    auto* self = static_cast<TestService*>(token);
    const std::string name = method;
    SVCIPC_tError rc = SVCIPC_ERROR_NONE;
    if (name.rfind("echo", 0) == 0 || name == "fail") {
      rc = SVCIPC_asyncReturnResult(context, params, name == "fail", token);
    } else if (name == "ask") {
      std::string answer;
      rc = askHelper(self->askVia, params, &answer);
      if (rc == SVCIPC_ERROR_NONE) rc = SVCIPC_asyncReturnResult(context, answer.c_str(), 0, token);
    }
    self->requests.push({name, noReplyExpected, rc, std::this_thread::get_id()});
    SVCIPC_freeReqContext(context);
  }
};

void onResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context) {
  static_cast<Inbox<Result>*>(context)->push({status->errCode, text(status->errName), text(status->errMsg),
                                              text(result), context, std::this_thread::get_id()});
}

void onSignal(const char* sigName, const char* data, void* context) {
  static_cast<Inbox<std::string>*>(context)->push(std::string(sigName) + " " + data);
}

class ServiceBusTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(SVCIPC_initialize(), SVCIPC_ERROR_NONE); }
  void TearDown() override {
    SVCIPC_shutdown();
    platform::setTimeScale(1.0);
  }

  SVCIPC_tConnection connect() {
    SVCIPC_tConnection conn = nullptr;
    EXPECT_EQ(SVCIPC_getConnectionByAddress(mBus.address().c_str(), &conn), SVCIPC_ERROR_NONE);
    return conn;
  }
  // Registers service as name on conn; the status goes to rc, or must be 0.
  SVCIPC_tSvcRegHnd serve(SVCIPC_tConnection conn, const std::string& name, TestService& service,
                          SVCIPC_tError* rc = nullptr) {
    SVCIPC_tSvcRegHnd reg = nullptr;
    const SVCIPC_tError got = SVCIPC_registerService(conn, busName(name).c_str(), objectPath(name).c_str(), 0,
                                                     TestService::onRequest, &service, &reg);
    if (rc) *rc = got;
    else EXPECT_EQ(got, SVCIPC_ERROR_NONE);
    return reg;
  }
  SVCIPC_tError invoke(SVCIPC_tConnection conn, const std::string& name, const char* method, const std::string& params,
                       int timeoutMsec, std::string* result) {
    SVCIPC_tResponse* response = nullptr;
    const SVCIPC_tError rc = SVCIPC_invoke(conn, busName(name).c_str(), objectPath(name).c_str(), method,
                                           params.c_str(), timeoutMsec, &response);
    EXPECT_EQ(rc == SVCIPC_ERROR_NONE, response != nullptr);
    if (response) *result = response->result;
    SVCIPC_freeResponse(response);
    return rc;
  }
  SVCIPC_tError invokeAsync(SVCIPC_tConnection conn, const std::string& name, const char* method, int noReply,
                            int timeoutMsec, Inbox<Result>* results) {
    return SVCIPC_asyncInvoke(conn, busName(name).c_str(), objectPath(name).c_str(), method, "{\"n\":1}", noReply,
                              timeoutMsec, onResult, results);
  }

  // Objects the callbacks write to, kept beyond TearDown, which closes the
  // connections that call into them.
  template <class T>
  T& make() {
    auto object = std::make_shared<T>();
    mKept.push_back(object);
    return *object;
  }

  testSupport::PrivateBus mBus;
  std::vector<std::shared_ptr<void>> mKept;
};

TEST_F(ServiceBusTest, InvokeAndAsyncInvokeGetTheReplyOrTheServiceError) {
  TestService& service = make<TestService>();
  serve(connect(), "Echo", service);
  SVCIPC_tConnection client = connect();

  std::string result;
  EXPECT_EQ(invoke(client, "Echo", "echo", "{\"a\":1}\n", -1, &result), SVCIPC_ERROR_NONE);
  EXPECT_EQ(result, "{\"a\":1}\n");
  // Large texts pass whole in both directions.
  const std::string big(1 << 20, 'p');
  const std::string longMethod = "echo" + std::string(64 * 1024, 'm');
  EXPECT_EQ(invoke(client, "Echo", longMethod.c_str(), big, -1, &result), SVCIPC_ERROR_NONE);
  EXPECT_TRUE(result == big) << result.size();

  result.clear();
  const SVCIPC_tError rc = invoke(client, "Echo", "fail", "no volume", -1, &result);
  EXPECT_TRUE(isStatus(rc, SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR)) << std::hex << rc;
  EXPECT_TRUE(result.empty());

  // Asynchronously: a request that expects no reply reaches the handler as
  // such, and the handler's answer is not sent: the results are those of
  // the later two, with their context, on the bus thread.
  Inbox<Result>& results = make<Inbox<Result>>();
  ASSERT_EQ(invokeAsync(client, "Echo", "echo", 1, -1, &results), SVCIPC_ERROR_NONE);
  ASSERT_EQ(invokeAsync(client, "Echo", "echo", 0, -1, &results), SVCIPC_ERROR_NONE);
  ASSERT_EQ(invokeAsync(client, "Echo", "fail", 0, -1, &results), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(results.waitFor(2));

  // The handler notes a request after answering it.
  ASSERT_TRUE(service.requests.waitFor(6));
  const auto requests = service.requests.items();
  EXPECT_EQ(requests[1].method, longMethod);
  EXPECT_EQ(requests[3].noReplyExpected, 1);
  EXPECT_EQ(requests[3].replyRc, SVCIPC_ERROR_NONE);
  EXPECT_EQ(requests[4].noReplyExpected, 0);
  for (const Request& request : requests) EXPECT_NE(request.thread, std::this_thread::get_id());

  const auto got = results.items();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].rc, SVCIPC_ERROR_NONE);
  EXPECT_EQ(got[0].result, "{\"n\":1}");
  EXPECT_EQ(got[0].context, &results);
  EXPECT_NE(got[0].thread, std::this_thread::get_id());
  EXPECT_TRUE(isStatus(got[1].rc, SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR)) << std::hex << got[1].rc;
  EXPECT_EQ(got[1].errName, SVCIPC_SERVICE_ERROR_NAME);
  EXPECT_EQ(got[1].errMsg, "{\"n\":1}");
  EXPECT_TRUE(got[1].result.empty());
}

// The handler frees the request without answering: the caller hears nothing
// until its own time limit, which the time scale shortens, or until it
// closes the connection.
TEST_F(ServiceBusTest, UnansweredRequestEndsInTheCallersTimeoutOrOnClosing) {
  TestService& service = make<TestService>();
  serve(connect(), "Mute", service);
  SVCIPC_tConnection client = connect();

  std::string result;
  EXPECT_TRUE(isStatus(invoke(client, "Mute", "logStringToEcallLog", "{}", 100, &result), SVCIPC_DOMAIN_IPC_LIB,
                       SVCIPC_ERR_TIMEOUT));
  Inbox<Result>& results = make<Inbox<Result>>();
  ASSERT_EQ(invokeAsync(client, "Mute", "logStringToEcallLog", 0, 100, &results), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(results.waitFor(1));
  EXPECT_TRUE(isStatus(results.items()[0].rc, SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_TIMEOUT));

  // The default 25 s, scaled to 50 ms. The bound only proves the scaling.
  platform::setTimeScale(0.002);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(isStatus(invoke(client, "Mute", "x", "{}", SVCIPC_TIMEOUT_DEFAULT, &result), SVCIPC_DOMAIN_IPC_LIB,
                       SVCIPC_ERR_TIMEOUT));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);

  // The cancellation has run by the time closing returns.
  Inbox<Result>& cancelled = make<Inbox<Result>>();
  ASSERT_EQ(invokeAsync(client, "Mute", "unanswered", 0, -1, &cancelled), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(service.requests.waitFor(4));
  ASSERT_EQ(SVCIPC_closeConnection(client), SVCIPC_ERROR_NONE);
  ASSERT_EQ(cancelled.items().size(), 1u);
  EXPECT_TRUE(isStatus(cancelled.items()[0].rc, SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_CANCELLED));
  EXPECT_NE(cancelled.items()[0].thread, std::this_thread::get_id());
  int hasOwner = 0;
  EXPECT_TRUE(isStatus(SVCIPC_nameHasOwner(client, "com.nordak.service.Mute", &hasOwner), SVCIPC_DOMAIN_IPC_LIB,
                       SVCIPC_ERR_BAD_ARGS));
}

TEST_F(ServiceBusTest, PeerNotOnTheBusIsRefusedAtOnce) {
  TestService& service = make<TestService>();
  serve(connect(), "Echo", service);
  SVCIPC_tConnection client = connect();

  std::string result;
  EXPECT_TRUE(isStatus(invoke(client, "Nobody", "echo", "{}", -1, &result), SVCIPC_DOMAIN_DBUS,
                       SVCIPC_DBUS_ERR_SERVICE_UNKNOWN));
  Inbox<Result>& results = make<Inbox<Result>>();
  const SVCIPC_tError rc = invokeAsync(client, "Nobody", "echo", 0, -1, &results);
  EXPECT_TRUE(isStatus(rc, SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_UNKNOWN)) << std::hex << rc;

  // Callbacks come in order: once the later request's result is in, a
  // callback of the refused one would have come first.
  ASSERT_EQ(invokeAsync(client, "Echo", "echo", 0, -1, &results), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(results.waitFor(1));
  EXPECT_EQ(results.items().size(), 1u);
  EXPECT_EQ(results.items()[0].rc, SVCIPC_ERROR_NONE);
}

TEST_F(ServiceBusTest, SignalReachesOnlyTheSubscribersOfItsNameAndPath) {
  TestService& phone = make<TestService>();
  SVCIPC_tConnection emitter = connect();
  SVCIPC_tSvcRegHnd phoneReg = serve(emitter, "Phone", phone);
  SVCIPC_tSvcRegHnd otherReg = serve(emitter, "Other", make<TestService>());
  SVCIPC_tConnection listener = connect();

  auto& first = make<Inbox<std::string>>();
  auto& second = make<Inbox<std::string>>();
  SVCIPC_tSigSubHnd firstSub = nullptr, secondSub = nullptr;
  ASSERT_EQ(SVCIPC_subscribe(listener, "/com/nordak/service/Phone", "callState", onSignal, &first, &firstSub), 0);
  ASSERT_EQ(SVCIPC_subscribe(listener, "/com/nordak/service/Phone", "callState", onSignal, &second, &secondSub), 0);

  // One sender: the signals arrive in the order emitted, so once the last is
  // in, any wrongly delivered earlier one would be too.
  EXPECT_EQ(SVCIPC_asyncEmit(phoneReg, "antennaStatus", "{\"a\":0}", nullptr, nullptr), SVCIPC_ERROR_NONE);
  EXPECT_EQ(SVCIPC_asyncEmit(otherReg, "callState", "{\"b\":0}", nullptr, nullptr), SVCIPC_ERROR_NONE);
  EXPECT_EQ(SVCIPC_asyncEmit(phoneReg, "callState", "{\"c\":1}", nullptr, nullptr), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(first.waitFor(1));
  ASSERT_TRUE(second.waitFor(1));
  EXPECT_EQ(first.items(), std::vector<std::string>{"callState {\"c\":1}"});
  EXPECT_EQ(second.items(), first.items());

  // Another client sends from the phone's path under a name of its own: not
  // the phone's word. Its next signal, from its own path, comes after it.
  SVCIPC_tConnection forger = connect();
  SVCIPC_tSvcRegHnd forged = nullptr;
  ASSERT_EQ(SVCIPC_registerService(forger, busName("Forger0").c_str(), "/com/nordak/service/Phone", 0,
                                   TestService::onRequest, &make<TestService>(), &forged),
            SVCIPC_ERROR_NONE);
  SVCIPC_tSvcRegHnd own = serve(forger, "Forger", make<TestService>());
  auto& marks = make<Inbox<std::string>>();
  SVCIPC_tSigSubHnd markSub = nullptr;
  ASSERT_EQ(SVCIPC_subscribe(listener, "/com/nordak/service/Forger", "callState", onSignal, &marks, &markSub), 0);
  EXPECT_EQ(SVCIPC_asyncEmit(forged, "callState", "{\"forged\":1}", nullptr, nullptr), SVCIPC_ERROR_NONE);
  EXPECT_EQ(SVCIPC_asyncEmit(own, "callState", "{\"d\":1}", nullptr, nullptr), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(marks.waitFor(1));
  EXPECT_EQ(first.items(), std::vector<std::string>{"callState {\"c\":1}"});
}

// The service asks a peer synchronously from its method handler and from
// its signal callback, on the connection whose thread runs the callback.
TEST_F(ServiceBusTest, SynchronousInvokeWorksInsideCallbacks) {
  SVCIPC_tSvcRegHnd helperReg = serve(connect(), "Helper", make<TestService>());
  TestService& front = make<TestService>();
  SVCIPC_tConnection frontConn = connect();
  front.askVia = frontConn;
  serve(frontConn, "Front", front);

  std::string result;
  EXPECT_EQ(invoke(connect(), "Front", "ask", "{\"q\":7}", 5000, &result), SVCIPC_ERROR_NONE);
  EXPECT_EQ(result, "{\"q\":7}");

  struct Asker {
    SVCIPC_tConnection conn = nullptr;
    Inbox<std::string> answers;
  };
  Asker& asker = make<Asker>();
  asker.conn = frontConn;
  auto onStatus = [](const char*, const char* data, void* context) {
    auto* self = static_cast<Asker*>(context);
    std::string answer;
    askHelper(self->conn, data, &answer);
    self->answers.push(answer);
  };
  SVCIPC_tSigSubHnd sub = nullptr;
  ASSERT_EQ(SVCIPC_subscribe(frontConn, "/com/nordak/service/Helper", "status", onStatus, &asker, &sub), 0);
  ASSERT_EQ(SVCIPC_asyncEmit(helperReg, "status", "{\"s\":1}", nullptr, nullptr), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(asker.answers.waitFor(1));
  EXPECT_EQ(asker.answers.items()[0], "{\"s\":1}");
}

// A second owner of a taken name, a bus that is not there, and a peer that
// speaks plain D-Bus (other members, wrong arguments).
TEST_F(ServiceBusTest, RefusesWhatItCannotDoAndForeignCallsDoNoHarm) {
  TestService& service = make<TestService>();
  serve(connect(), "Echo", service);
  SVCIPC_tError taken = SVCIPC_ERROR_NONE;
  serve(connect(), "Echo", service, &taken);
  EXPECT_TRUE(isStatus(taken, SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_NAME_TAKEN));
  SVCIPC_tConnection nowhere = nullptr;
  EXPECT_TRUE(isStatus(SVCIPC_getConnectionByAddress("unix:path=/nonexistent/bus", &nowhere), SVCIPC_DOMAIN_IPC_LIB,
                       SVCIPC_ERR_CONNECTION));
  EXPECT_EQ(nowhere, nullptr);

  sd_bus* raw = nullptr;
  ASSERT_GE(sd_bus_new(&raw), 0);
  sd_bus_set_address(raw, mBus.address().c_str());
  sd_bus_set_bus_client(raw, 1);
  ASSERT_GE(sd_bus_start(raw), 0);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  for (const auto& [member, expected] : {std::pair{"Other", SD_BUS_ERROR_UNKNOWN_METHOD},
                                         std::pair{"Invoke", SD_BUS_ERROR_INVALID_ARGS}}) {
    EXPECT_LT(sd_bus_call_method(raw, "com.nordak.service.Echo", "/com/nordak/service/Echo", SVCIPC_INTERFACE_NAME,
                                 member, &error, &reply, "s", "echo"),
              0);
    EXPECT_TRUE(sd_bus_error_has_name(&error, expected)) << member << ": " << error.name;
    sd_bus_error_free(&error);
  }
  ASSERT_GE(sd_bus_call_method(raw, "com.nordak.service.Echo", "/com/nordak/service/Echo", SVCIPC_INTERFACE_NAME,
                               "Invoke", &error, &reply, "ss", "echo", "{}"),
            0);
  const char* result = nullptr;
  ASSERT_GT(sd_bus_message_read(reply, "s", &result), 0);
  EXPECT_STREQ(result, "{}");
  sd_bus_message_unref(reply);
  sd_bus_flush_close_unref(raw);
  // Requests reach the handler in order: the refused ones would come first.
  ASSERT_TRUE(service.requests.waitFor(1));
  EXPECT_EQ(service.requests.items()[0].method, "echo");
}

}  // namespace
