// The SVCIPC_* functions over sd-bus: argument checks, the tables of live
// handles, and which bus a connection goes to. The work itself is done by
// SvcIpcConnection (serviceBusConnection.cpp).
#include "platform/serviceBus.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/serviceBusConnection.h"

using svcipc::libraryError;

namespace {

// A service's object path and its bus name, one derived from the other.
constexpr const char* SERVICE_PATH_PREFIX = "/com/nordak/service/";
constexpr const char* SERVICE_NAME_PREFIX = "com.nordak.service.";

// Handles given out are looked up before use, so that a closed or unknown
// handle is refused instead of followed.
template <class T>
class HandleTable {
 public:
  T* add(std::shared_ptr<T> object) {
    T* handle = object.get();
    mObjects.emplace(handle, std::move(object));
    return handle;
  }
  std::shared_ptr<T> find(T* handle) const {
    const auto found = mObjects.find(handle);
    return found == mObjects.end() ? nullptr : found->second;
  }
  std::shared_ptr<T> take(T* handle) {
    const auto found = mObjects.find(handle);
    if (found == mObjects.end()) return nullptr;
    std::shared_ptr<T> object = std::move(found->second);
    mObjects.erase(found);
    return object;
  }
  // Takes every object of connection (all of them when connection is null).
  std::vector<std::shared_ptr<T>> takeOf(const SvcIpcConnection* connection) {
    std::vector<std::shared_ptr<T>> taken;
    for (auto it = mObjects.begin(); it != mObjects.end();) {
      if (connection == nullptr || it->second->connection.get() == connection) {
        taken.push_back(std::move(it->second));
        it = mObjects.erase(it);
      } else {
        ++it;
      }
    }
    return taken;
  }
  std::vector<std::shared_ptr<T>> takeAll() {
    std::vector<std::shared_ptr<T>> taken;
    for (auto& [handle, object] : mObjects) taken.push_back(std::move(object));
    mObjects.clear();
    return taken;
  }

 private:
  std::unordered_map<T*, std::shared_ptr<T>> mObjects;
};

// Process-wide state. Never destroyed, so that die() may still shut the bus
// down from any thread while the process exits.
struct Library {
  std::mutex mutex;
  bool initialized = false;
  std::string defaultBus = "session";
  HandleTable<SvcIpcConnection> connections;
  HandleTable<SvcIpcRegistration> registrations;
  HandleTable<SvcIpcSubscription> subscriptions;
};

Library& library() {
  static Library* instance = new Library;
  return *instance;
}

template <class T>
SVCIPC_tError lookup(HandleTable<T> Library::*table, T* handle, std::shared_ptr<T>* object) {
  if (handle == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  Library& lib = library();
  std::lock_guard<std::mutex> lock(lib.mutex);
  if (!lib.initialized) return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
  *object = (lib.*table).find(handle);
  return *object ? SVCIPC_ERROR_NONE : libraryError(SVCIPC_ERR_BAD_ARGS);
}

// Keeps a new registration or subscription, unless its connection was
// closed (or the library shut down) while it was being made.
template <class T>
bool keep(HandleTable<T> Library::*table, const std::shared_ptr<T>& object, T** handle) {
  Library& lib = library();
  std::lock_guard<std::mutex> lock(lib.mutex);
  if (!lib.initialized || !lib.connections.find(object->connection.get())) return false;
  *handle = (lib.*table).add(object);
  return true;
}

std::string environment(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "";
}

std::string sessionBusAddress() {
  std::string address = environment("DBUS_SESSION_BUS_ADDRESS");
  if (address.empty() && !environment("XDG_RUNTIME_DIR").empty())
    address = "unix:path=" + environment("XDG_RUNTIME_DIR") + "/bus";
  return address;
}

std::string systemBusAddress() {
  const std::string address = environment("DBUS_SYSTEM_BUS_ADDRESS");
  return address.empty() ? "unix:path=/run/dbus/system_bus_socket" : address;
}

std::string busAddress(const std::string& bus) {
  if (bus == "session") return sessionBusAddress();
  if (bus == "system") return systemBusAddress();
  return bus;
}

// A value of a match rule: quoted, a quote inside written as '\''.
std::string matchValue(const char* text) {
  std::string quoted = "'";
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c == '\'')
      quoted += "'\\''";
    else
      quoted += *c;
  }
  return quoted + "'";
}

SVCIPC_tError openConnection(const std::string& address, SVCIPC_tConnection* conn) {
  Library& lib = library();
  {
    std::lock_guard<std::mutex> lock(lib.mutex);
    if (!lib.initialized) return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
  }
  auto connection = std::make_shared<SvcIpcConnection>(address);
  const SVCIPC_tError rc = connection->open();
  if (rc != SVCIPC_ERROR_NONE) {
    connection->close({}, {});
    return rc;
  }
  {
    std::lock_guard<std::mutex> lock(lib.mutex);
    if (lib.initialized) {
      *conn = lib.connections.add(connection);
      return SVCIPC_ERROR_NONE;
    }
  }
  connection->close({}, {});  // shut down meanwhile
  return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
}

SVCIPC_tError subscribeWith(SVCIPC_tConnection conn, const std::shared_ptr<SvcIpcSubscription>& subscription,
                            const std::string& rule, SVCIPC_tSigSubHnd* subHnd) {
  SVCIPC_tError rc = lookup(&Library::connections, conn, &subscription->connection);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  rc = subscription->connection->addMatch(*subscription, rule);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  if (!keep(&Library::subscriptions, subscription, subHnd)) {
    subscription->connection->removeMatch(*subscription);
    return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
  }
  return SVCIPC_ERROR_NONE;
}

}  // namespace

SVCIPC_tError SVCIPC_initialize(void) {
  Library& lib = library();
  std::lock_guard<std::mutex> lock(lib.mutex);
  lib.initialized = true;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_shutdown(void) {
  Library& lib = library();
  std::vector<std::shared_ptr<SvcIpcConnection>> connections;
  std::vector<std::shared_ptr<SvcIpcRegistration>> registrations;
  std::vector<std::shared_ptr<SvcIpcSubscription>> subscriptions;
  {
    std::lock_guard<std::mutex> lock(lib.mutex);
    lib.initialized = false;
    connections = lib.connections.takeAll();
    registrations = lib.registrations.takeAll();
    subscriptions = lib.subscriptions.takeAll();
  }
  for (const auto& connection : connections) {
    std::vector<std::shared_ptr<SvcIpcRegistration>> ownRegistrations;
    for (const auto& registration : registrations)
      if (registration->connection == connection) ownRegistrations.push_back(registration);
    std::vector<std::shared_ptr<SvcIpcSubscription>> ownSubscriptions;
    for (const auto& subscription : subscriptions)
      if (subscription->connection == connection) ownSubscriptions.push_back(subscription);
    connection->close(ownRegistrations, ownSubscriptions);
  }
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_getConnection(int connType, int flags, SVCIPC_tConnection* conn) {
  if (conn == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  *conn = nullptr;
  std::string bus;
  switch (connType) {
    case SVCIPC_CONNECTION_DEFAULT: {
      Library& lib = library();
      std::lock_guard<std::mutex> lock(lib.mutex);
      bus = lib.defaultBus;
      break;
    }
    case SVCIPC_CONNECTION_SESSION:
      bus = "session";
      break;
    case SVCIPC_CONNECTION_SYSTEM:
      bus = "system";
      break;
    default:
      return libraryError(SVCIPC_ERR_BAD_ARGS);
  }
  return openConnection(busAddress(bus), conn);
}

SVCIPC_tError SVCIPC_getConnectionByAddress(const char* address, SVCIPC_tConnection* conn) {
  if (address == nullptr || conn == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  *conn = nullptr;
  return openConnection(address, conn);
}

SVCIPC_tError SVCIPC_closeConnection(SVCIPC_tConnection conn) {
  if (conn == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  Library& lib = library();
  std::shared_ptr<SvcIpcConnection> connection;
  std::vector<std::shared_ptr<SvcIpcRegistration>> registrations;
  std::vector<std::shared_ptr<SvcIpcSubscription>> subscriptions;
  {
    std::lock_guard<std::mutex> lock(lib.mutex);
    if (!lib.initialized) return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
    connection = lib.connections.take(conn);
    if (!connection) return libraryError(SVCIPC_ERR_BAD_ARGS);
    registrations = lib.registrations.takeOf(connection.get());
    subscriptions = lib.subscriptions.takeOf(connection.get());
  }
  connection->close(registrations, subscriptions);
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_registerService(SVCIPC_tConnection conn, const char* busName, const char* objPath, int flags,
                                     SVCIPC_tRequestCallback handler, void* userData, SVCIPC_tSvcRegHnd* regHnd) {
  if (busName == nullptr || objPath == nullptr || handler == nullptr || regHnd == nullptr)
    return libraryError(SVCIPC_ERR_BAD_ARGS);
  *regHnd = nullptr;
  auto registration = std::make_shared<SvcIpcRegistration>();
  SVCIPC_tError rc = lookup(&Library::connections, conn, &registration->connection);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  registration->busName = busName;
  registration->objPath = objPath;
  registration->handler = handler;
  registration->userData = userData;
  rc = registration->connection->registerObject(*registration);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  if (!keep(&Library::registrations, registration, regHnd)) {
    registration->connection->unregisterObject(*registration);
    return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
  }
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_unregisterService(SVCIPC_tSvcRegHnd regHnd) {
  if (regHnd == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  std::shared_ptr<SvcIpcRegistration> registration;
  {
    Library& lib = library();
    std::lock_guard<std::mutex> lock(lib.mutex);
    if (!lib.initialized) return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
    registration = lib.registrations.take(regHnd);
  }
  if (!registration) return libraryError(SVCIPC_ERR_BAD_ARGS);
  return registration->connection->unregisterObject(*registration);
}

SVCIPC_tError SVCIPC_asyncReturnResult(SVCIPC_tReqContext context, const char* result, int isError,
                                       SVCIPC_tUserToken token) {
  if (context == nullptr || result == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  return context->connection->reply(*context, result, isError != 0);
}

SVCIPC_tError SVCIPC_freeReqContext(SVCIPC_tReqContext context) {
  if (context == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  context->connection->release(*context);
  delete context;
  return SVCIPC_ERROR_NONE;
}

SVCIPC_tError SVCIPC_asyncEmit(SVCIPC_tSvcRegHnd regHnd, const char* sigName, const char* data,
                               SVCIPC_tResultCallback onStatus, void* context) {
  if (sigName == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  std::shared_ptr<SvcIpcRegistration> registration;
  const SVCIPC_tError rc = lookup(&Library::registrations, regHnd, &registration);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  return registration->connection->emit(*registration, sigName, data, onStatus, context);
}

SVCIPC_tError SVCIPC_invoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                            const char* params, int timeoutMsec, SVCIPC_tResponse** response) {
  if (response == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  *response = nullptr;
  if (busName == nullptr || objPath == nullptr || method == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  std::shared_ptr<SvcIpcConnection> connection;
  const SVCIPC_tError rc = lookup(&Library::connections, conn, &connection);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  return connection->invoke(busName, objPath, method, params, timeoutMsec, response);
}

SVCIPC_tError SVCIPC_asyncInvoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                                 const char* params, int noReplyExpected, int timeoutMsec,
                                 SVCIPC_tResultCallback onResult, void* context) {
  if (busName == nullptr || objPath == nullptr || method == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  std::shared_ptr<SvcIpcConnection> connection;
  const SVCIPC_tError rc = lookup(&Library::connections, conn, &connection);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  return connection->invokeAsync(busName, objPath, method, params, noReplyExpected != 0, timeoutMsec, onResult,
                                 context);
}

SVCIPC_tError SVCIPC_subscribe(SVCIPC_tConnection conn, const char* objPath, const char* sigName,
                               SVCIPC_tSignalCallback handler, void* context, SVCIPC_tSigSubHnd* subHnd) {
  if (objPath == nullptr || sigName == nullptr || handler == nullptr || subHnd == nullptr)
    return libraryError(SVCIPC_ERR_BAD_ARGS);
  *subHnd = nullptr;
  auto subscription = std::make_shared<SvcIpcSubscription>();
  subscription->onSignal = handler;
  subscription->context = context;
  std::string rule = "type='signal',interface='" SVCIPC_INTERFACE_NAME "',member='Emit',path=" +
                     matchValue(objPath) + ",arg0=" + matchValue(sigName);
  // Any client may send a signal from any path. The signal of a service is
  // only believed from the owner of that service's name, so no other client
  // can end an emergency call or turn the phone off by a forged state.
  const std::string path = objPath;
  std::string service;
  if (path.rfind(SERVICE_PATH_PREFIX, 0) == 0) {
    service = SERVICE_NAME_PREFIX + path.substr(strlen(SERVICE_PATH_PREFIX));
    rule += ",sender=" + matchValue(service.c_str());
  }
  const SVCIPC_tError rc = subscribeWith(conn, subscription, rule, subHnd);
  // A service whose signals are awaited is asked for sooner or later: its
  // owner is followed from now on, so that no request waits to learn it.
  if (rc == SVCIPC_ERROR_NONE && !service.empty()) subscription->connection->followOwner(service.c_str());
  return rc;
}

SVCIPC_tError SVCIPC_subscribeOwnerChanged(SVCIPC_tConnection conn, const char* busName,
                                           SVCIPC_tNameOwnerChangedCallback handler, void* context,
                                           SVCIPC_tSigSubHnd* subHnd) {
  if (busName == nullptr || handler == nullptr || subHnd == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  *subHnd = nullptr;
  auto subscription = std::make_shared<SvcIpcSubscription>();
  subscription->onOwnerChanged = handler;
  subscription->context = context;
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0=" +
      matchValue(busName);
  return subscribeWith(conn, subscription, rule, subHnd);
}

SVCIPC_tError SVCIPC_unsubscribe(SVCIPC_tSigSubHnd subHnd) {
  if (subHnd == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  std::shared_ptr<SvcIpcSubscription> subscription;
  {
    Library& lib = library();
    std::lock_guard<std::mutex> lock(lib.mutex);
    if (!lib.initialized) return libraryError(SVCIPC_ERR_NOT_INITIALIZED);
    subscription = lib.subscriptions.take(subHnd);
  }
  if (!subscription) return libraryError(SVCIPC_ERR_BAD_ARGS);
  return subscription->connection->removeMatch(*subscription);
}

SVCIPC_tError SVCIPC_nameHasOwner(SVCIPC_tConnection conn, const char* busName, int* hasOwner) {
  if (busName == nullptr || hasOwner == nullptr) return libraryError(SVCIPC_ERR_BAD_ARGS);
  *hasOwner = 0;
  std::shared_ptr<SvcIpcConnection> connection;
  const SVCIPC_tError rc = lookup(&Library::connections, conn, &connection);
  if (rc != SVCIPC_ERROR_NONE) return rc;
  return connection->nameHasOwner(busName, hasOwner);
}

SVCIPC_tError SVCIPC_freeResponse(SVCIPC_tResponse* response) {
  free(response);  // one block with its text (see newResponse)
  return SVCIPC_ERROR_NONE;
}

namespace platform {

void setDefaultBus(const char* bus) {
  Library& lib = library();
  std::lock_guard<std::mutex> lock(lib.mutex);
  lib.defaultBus = (bus != nullptr && *bus != '\0') ? bus : "session";
}

}  // namespace platform
