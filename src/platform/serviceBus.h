// The head unit's service bus, as the four modules see it.
//
// Every bus method of every service is one D-Bus method, Invoke(s method,
// s params) -> (s result), on the interface com.nordak.ServiceIpc of the
// object /com/nordak/service/<Name>, owned under com.nordak.service.<Name>.
// Every bus signal is Emit(s name, s data) sent from the service's path.
// Payloads are JSON texts.
//
// Callbacks (method requests, signals, owner changes, asynchronous results)
// are delivered on the bus library's own thread, never on a caller's thread.
// A synchronous invoke made from inside such a callback works.
//
// The production implementation sits on sd-bus (serviceBus.cpp); the unit
// tests link a fake with the same functions instead.
#pragma once

#include <cstdint>

// Status words: bit 31 set means failure (negative as int32), bits 28-29
// name the origin, bits 0-27 carry the code.
typedef int32_t SVCIPC_tError;

#define SVCIPC_ERROR_BIT 0x80000000u
#define SVCIPC_DOMAIN_SHIFT 28
#define SVCIPC_DOMAIN_MASK 0x30000000u
#define SVCIPC_CODE_MASK 0x0FFFFFFFu

// Where a failure came from (bits 28-29).
#define SVCIPC_DOMAIN_IPC_LIB 0u  // the bus library itself
#define SVCIPC_DOMAIN_DBUS 1u     // the D-Bus daemon or the peer
#define SVCIPC_DOMAIN_C_LIB 2u    // the C library (code = errno)

// Codes of the bus library itself (domain 0).
#define SVCIPC_ERR_NONE 0u
#define SVCIPC_ERR_BAD_ARGS 1u         // null or invalid argument
#define SVCIPC_ERR_NOT_INITIALIZED 2u  // SVCIPC_initialize not called, or shut down
#define SVCIPC_ERR_NO_MEMORY 3u
#define SVCIPC_ERR_CONNECTION 4u       // could not connect to the bus
#define SVCIPC_ERR_NAME_TAKEN 5u       // the bus name could not be owned
#define SVCIPC_ERR_TIMEOUT 6u          // no reply within the time limit
#define SVCIPC_ERR_INTERNAL 7u
#define SVCIPC_ERR_CANCELLED 8u        // request cancelled by the bus library
#define SVCIPC_ERR_BAD_REPLY 9u        // reply not of the form (s)

// Codes of domain 1 (D-Bus): a few well-known error names get their own code.
#define SVCIPC_DBUS_ERR_FAILED 1u          // any other D-Bus error name
#define SVCIPC_DBUS_ERR_SERVICE_UNKNOWN 2u // org.freedesktop.DBus.Error.ServiceUnknown / NameHasNoOwner
#define SVCIPC_DBUS_ERR_NO_REPLY 3u        // org.freedesktop.DBus.Error.NoReply / Timeout
#define SVCIPC_DBUS_ERR_ACCESS_DENIED 4u   // org.freedesktop.DBus.Error.AccessDenied
#define SVCIPC_DBUS_ERR_UNKNOWN_METHOD 5u  // UnknownMethod / UnknownObject / UnknownInterface
#define SVCIPC_DBUS_ERR_SERVICE_ERROR 6u   // com.nordak.service.Error returned by a peer

#define SVCIPC_MAKE_ERROR(domain, code) \
  ((SVCIPC_tError)(SVCIPC_ERROR_BIT | ((uint32_t)(domain) << SVCIPC_DOMAIN_SHIFT) | ((uint32_t)(code)&SVCIPC_CODE_MASK)))
#define SVCIPC_IS_ERROR(e) (((uint32_t)(e)&SVCIPC_ERROR_BIT) != 0)
#define SVCIPC_ERROR_DOMAIN(e) ((((uint32_t)(e)) & SVCIPC_DOMAIN_MASK) >> SVCIPC_DOMAIN_SHIFT)
#define SVCIPC_ERROR_CODE(e) (((uint32_t)(e)) & SVCIPC_CODE_MASK)

#define SVCIPC_ERROR_NONE 0

// Connection types of SVCIPC_getConnection.
#define SVCIPC_CONNECTION_DEFAULT 0  // the bus chosen by --bus (session bus unless told otherwise)
#define SVCIPC_CONNECTION_SESSION 1
#define SVCIPC_CONNECTION_SYSTEM 2

// "Time limit -1": the D-Bus default reply time-out, 25 s (scaled by --time-scale).
#define SVCIPC_TIMEOUT_DEFAULT (-1)

#define SVCIPC_INTERFACE_NAME "com.nordak.ServiceIpc"
#define SVCIPC_SERVICE_ERROR_NAME "com.nordak.service.Error"

typedef struct SvcIpcConnection* SVCIPC_tConnection;
typedef struct SvcIpcRegistration* SVCIPC_tSvcRegHnd;
typedef struct SvcIpcRequest* SVCIPC_tReqContext;
typedef struct SvcIpcSubscription* SVCIPC_tSigSubHnd;
typedef void* SVCIPC_tUserToken;

// What a synchronous invoke returns: the JSON result text.
typedef struct SVCIPC_tResponse {
  const char* result;  // never null on success
} SVCIPC_tResponse;

// Status handed to an asynchronous result callback.
typedef struct SVCIPC_tCallbackStatus {
  SVCIPC_tError errCode;  // SVCIPC_ERROR_NONE on success
  const char* errName;    // D-Bus error name on failure, else null
  const char* errMsg;     // D-Bus error message on failure, else null
} SVCIPC_tCallbackStatus;

// A method request for a registered service. The request context must be
// released with SVCIPC_freeReqContext whether or not a reply was sent.
// Ownership: the context holds the request until SVCIPC_freeReqContext, which
// ends it; reply (at most once, from any thread) before freeing it, never
// after. A request freed without a reply gets no reply at all. method and
// params stay valid while the callback runs; token is the userData given to
// SVCIPC_registerService.
typedef void (*SVCIPC_tRequestCallback)(SVCIPC_tReqContext context, const char* method, const char* params,
                                        int noReplyExpected, SVCIPC_tUserToken token);
// The result of an asynchronous invoke (result is null on failure), or the
// completion of an asynchronous emit.
typedef void (*SVCIPC_tResultCallback)(const SVCIPC_tCallbackStatus* status, const char* result, void* context);
typedef void (*SVCIPC_tSignalCallback)(const char* sigName, const char* data, void* context);
// newOwner is the empty text when the name lost its owner.
typedef void (*SVCIPC_tNameOwnerChangedCallback)(const char* busName, const char* oldOwner, const char* newOwner,
                                                 void* context);

SVCIPC_tError SVCIPC_initialize(void);
// Closes every connection (as SVCIPC_closeConnection). Callable from any
// thread, also from die() and from inside a callback (the bus thread then
// stops once that callback returns).
SVCIPC_tError SVCIPC_shutdown(void);

// connType: SVCIPC_CONNECTION_*. flags: 0.
SVCIPC_tError SVCIPC_getConnection(int connType, int flags, SVCIPC_tConnection* conn);
// Connect to a bus given by its D-Bus address.
SVCIPC_tError SVCIPC_getConnectionByAddress(const char* address, SVCIPC_tConnection* conn);
// Gives up the connection's names, subscriptions and handles (later use of
// them is refused with SVCIPC_ERR_BAD_ARGS). Pending asynchronous invokes and
// emit completions get their callback with code SVCIPC_ERR_CANCELLED of
// domain 0 on the bus thread before this returns (unless called from a
// callback, or a callback is stuck for more than 5 s).
SVCIPC_tError SVCIPC_closeConnection(SVCIPC_tConnection conn);

// Owns busName and serves objPath; every request goes to handler.
SVCIPC_tError SVCIPC_registerService(SVCIPC_tConnection conn, const char* busName, const char* objPath, int flags,
                                     SVCIPC_tRequestCallback handler, void* userData, SVCIPC_tSvcRegHnd* regHnd);
SVCIPC_tError SVCIPC_unregisterService(SVCIPC_tSvcRegHnd regHnd);

// Answers a request; isError non-zero sends a com.nordak.service.Error reply
// whose message is the result text.
SVCIPC_tError SVCIPC_asyncReturnResult(SVCIPC_tReqContext context, const char* result, int isError,
                                       SVCIPC_tUserToken token);
SVCIPC_tError SVCIPC_freeReqContext(SVCIPC_tReqContext context);

// Emits signal sigName with the JSON text data from the service's path.
// onStatus may be null; it is called on the bus thread once the signal is sent.
SVCIPC_tError SVCIPC_asyncEmit(SVCIPC_tSvcRegHnd regHnd, const char* sigName, const char* data,
                               SVCIPC_tResultCallback onStatus, void* context);

// Synchronous invoke. timeoutMsec -1 (or any value <= 0) is the default
// 25 s; every limit is scaled by platform::timeScale(). On success
// *response holds the result and must be released with SVCIPC_freeResponse;
// on failure *response is null (a peer's error reply carries no response).
SVCIPC_tError SVCIPC_invoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                            const char* params, int timeoutMsec, SVCIPC_tResponse** response);

// Asynchronous invoke. The result (or the failure) reaches onResult on the bus
// thread with context. A negative return means the request was not sent and
// onResult will not be called; a busName without an owner is refused so
// (domain 1, SVCIPC_DBUS_ERR_SERVICE_UNKNOWN), from the owner changes the
// connection follows for every name it calls or whose service's signals it
// subscribed to, asking the bus only about a name not followed yet. With
// noReplyExpected set no result comes.
SVCIPC_tError SVCIPC_asyncInvoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                                 const char* params, int noReplyExpected, int timeoutMsec,
                                 SVCIPC_tResultCallback onResult, void* context);

// Subscribes to signal sigName sent from objPath. The signal of a service's
// path (/com/nordak/service/<Name>) is delivered only when it comes from the
// owner of com.nordak.service.<Name>; other paths take any sender.
SVCIPC_tError SVCIPC_subscribe(SVCIPC_tConnection conn, const char* objPath, const char* sigName,
                               SVCIPC_tSignalCallback handler, void* context, SVCIPC_tSigSubHnd* subHnd);
SVCIPC_tError SVCIPC_subscribeOwnerChanged(SVCIPC_tConnection conn, const char* busName,
                                           SVCIPC_tNameOwnerChangedCallback handler, void* context,
                                           SVCIPC_tSigSubHnd* subHnd);
SVCIPC_tError SVCIPC_unsubscribe(SVCIPC_tSigSubHnd subHnd);

// *hasOwner becomes 1 when busName has an owner on the bus, else 0.
SVCIPC_tError SVCIPC_nameHasOwner(SVCIPC_tConnection conn, const char* busName, int* hasOwner);

SVCIPC_tError SVCIPC_freeResponse(SVCIPC_tResponse* response);

namespace platform {
// Which bus SVCIPC_CONNECTION_DEFAULT connects to: "session" (the default),
// "system", or a D-Bus address. Set from --bus before the first connection.
void setDefaultBus(const char* bus);
}  // namespace platform
