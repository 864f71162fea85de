// The service bus on a private dbus-daemon, one process's connections playing every side.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/runtime.h"
#include "platform/serviceBus.h"
#include "support/e2eHarness.h"
#include "support/testSupport.h"

namespace {

using namespace std::chrono_literals;
using testSupport::invokeOn;

// What callbacks saw, collected across threads, with a bounded wait.
template <class T>
struct Inbox {
  void push(T item) {
    std::lock_guard<std::mutex> lock(mMutex);
    mItems.push_back(std::move(item));
  }
  bool waitFor(size_t count) { return testSupport::waitUntil([&] { return items().size() >= count; }); }
  std::vector<T> items() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mItems;
  }
  mutable std::mutex mMutex;
  std::vector<T> mItems;
};

struct Result {
  SVCIPC_tError rc;
  std::thread::id thread;
};

bool isStatus(SVCIPC_tError rc, uint32_t domain, uint32_t code) {
  return SVCIPC_IS_ERROR(rc) && SVCIPC_ERROR_DOMAIN(rc) == domain && SVCIPC_ERROR_CODE(rc) == code;
}

std::string busName(const std::string& name) { return "com.nordak.service." + name; }
std::string objectPath(const std::string& name) { return "/com/nordak/service/" + name; }

// "echo" answers its parameters, "ask" what "Helper" echoes to a request made
// via askVia from inside the callback; anything else is freed unanswered.
struct TestService {
  Inbox<std::string> requests;
  SVCIPC_tConnection askVia = nullptr;

  static void onRequest(SVCIPC_tReqContext context, const char* method, const char* params, int,
                        SVCIPC_tUserToken token) {
    auto* self = static_cast<TestService*>(token);
    const std::string name = method;
    std::string answer = params;
    if (name == "ask") invokeOn(self->askVia, "Helper", "echo", params, 5000, &answer);
    if (name == "echo" || name == "ask") SVCIPC_asyncReturnResult(context, answer.c_str(), 0, token);
    self->requests.push(name);
    SVCIPC_freeReqContext(context);
  }
};

void onResult(const SVCIPC_tCallbackStatus* status, const char*, void* context) {
  static_cast<Inbox<Result>*>(context)->push({status->errCode, std::this_thread::get_id()});
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

  // Objects the callbacks write to, kept beyond TearDown, which closes their connections.
  template <class T>
  T& make() {
    auto object = std::make_shared<T>();
    mKept.push_back(object);
    return *object;
  }

  testSupport::PrivateBus mBus;
  std::vector<std::shared_ptr<void>> mKept;
};

// A request freed unanswered ends in the caller's own time limit, which the
// time scale shortens, or when the caller closes its connection.
TEST_F(ServiceBusTest, UnansweredRequestEndsInTheCallersTimeoutOrOnClosing) {
  TestService& service = make<TestService>();
  serve(connect(), "Mute", service);
  SVCIPC_tConnection client = connect();

  // The default 25 s, scaled to 1 s: over well before ten times that.
  platform::setTimeScale(0.04);
  const auto start = std::chrono::steady_clock::now();
  std::string result;
  EXPECT_TRUE(isStatus(invokeOn(client, "Mute", "x", "{}", SVCIPC_TIMEOUT_DEFAULT, &result), SVCIPC_DOMAIN_IPC_LIB,
                       SVCIPC_ERR_TIMEOUT));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);

  // The cancellation has run by the time closing returns.
  Inbox<Result>& cancelled = make<Inbox<Result>>();
  ASSERT_EQ(SVCIPC_asyncInvoke(client, busName("Mute").c_str(), objectPath("Mute").c_str(), "unanswered", "{}", 0, -1,
                               onResult, &cancelled),
            SVCIPC_ERROR_NONE);
  ASSERT_TRUE(service.requests.waitFor(2));
  ASSERT_EQ(SVCIPC_closeConnection(client), SVCIPC_ERROR_NONE);
  ASSERT_EQ(cancelled.items().size(), 1u);
  EXPECT_TRUE(isStatus(cancelled.items()[0].rc, SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_CANCELLED));
  EXPECT_NE(cancelled.items()[0].thread, std::this_thread::get_id());
  int hasOwner = 0;
  EXPECT_TRUE(isStatus(SVCIPC_nameHasOwner(client, "com.nordak.service.Mute", &hasOwner), SVCIPC_DOMAIN_IPC_LIB,
                       SVCIPC_ERR_BAD_ARGS));
}

// The service asks a peer synchronously from its method handler and from
// its signal callback, on the connection whose thread runs the callback.
TEST_F(ServiceBusTest, SynchronousInvokeWorksInsideCallbacks) {
  SVCIPC_tSvcRegHnd helperReg = serve(connect(), "Helper", make<TestService>());
  TestService& front = make<TestService>();
  front.askVia = connect();
  serve(front.askVia, "Front", front);

  std::string result;
  EXPECT_EQ(invokeOn(connect(), "Front", "ask", "{\"q\":7}", 5000, &result), SVCIPC_ERROR_NONE);
  EXPECT_EQ(result, "{\"q\":7}");

  // The signal's echo joins the front's inbox, after "ask" (one thread runs both).
  auto onStatus = [](const char*, const char* data, void* context) {
    auto* self = static_cast<TestService*>(context);
    std::string answer;
    invokeOn(self->askVia, "Helper", "echo", data, 5000, &answer);
    self->requests.push(answer);
  };
  SVCIPC_tSigSubHnd sub = nullptr;
  ASSERT_EQ(SVCIPC_subscribe(front.askVia, "/com/nordak/service/Helper", "status", onStatus, &front, &sub), 0);
  ASSERT_EQ(SVCIPC_asyncEmit(helperReg, "status", "{\"s\":1}", nullptr, nullptr), SVCIPC_ERROR_NONE);
  ASSERT_TRUE(front.requests.waitFor(2));
  EXPECT_EQ(front.requests.items(), (std::vector<std::string>{"ask", "{\"s\":1}"}));
}

// A request to a name without an owner is refused at once with no callback,
// also once an earlier owner left; a new owner of the name gets the requests.
TEST_F(ServiceBusTest, AsyncRequestsFollowTheOwnerOfThePeersName) {
  SVCIPC_tConnection client = connect();
  Inbox<std::string>& owners = make<Inbox<std::string>>();
  auto onOwner = [](const char*, const char*, const char* newOwner, void* context) {
    static_cast<Inbox<std::string>*>(context)->push(newOwner);
  };
  SVCIPC_tSigSubHnd sub = nullptr;
  ASSERT_EQ(SVCIPC_subscribeOwnerChanged(client, busName("Echo").c_str(), onOwner, &owners, &sub), 0);
  Inbox<Result>& results = make<Inbox<Result>>();
  auto request = [&] {
    return SVCIPC_asyncInvoke(client, busName("Echo").c_str(), objectPath("Echo").c_str(), "echo", "{}", 0, -1,
                              onResult, &results);
  };
  const SVCIPC_tError absent = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_UNKNOWN);
  EXPECT_EQ(request(), absent);
  EXPECT_EQ(request(), absent);
  TestService& service = make<TestService>();
  for (size_t round = 0; round < 2; ++round) {
    SVCIPC_tConnection owner = connect();
    serve(owner, "Echo", service);
    // The owner change reaches the test's callback after the bus layer.
    ASSERT_TRUE(owners.waitFor(2 * round + 1));
    ASSERT_EQ(request(), SVCIPC_ERROR_NONE);
    ASSERT_TRUE(results.waitFor(round + 1));
    EXPECT_EQ(results.items()[round].rc, SVCIPC_ERROR_NONE);
    ASSERT_EQ(SVCIPC_closeConnection(owner), SVCIPC_ERROR_NONE);
    ASSERT_TRUE(owners.waitFor(2 * round + 2));
    EXPECT_EQ(request(), absent) << "round " << round;
  }
  EXPECT_EQ(results.items().size(), 2u);
}

// A second owner of a taken name, a missing bus, and a plain D-Bus peer's odd calls.
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
  EXPECT_EQ(service.requests.items()[0], "echo");
}

}  // namespace
