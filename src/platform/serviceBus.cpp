// The service bus over sd-bus (work in progress: stub bodies so the tree links).
#include "platform/serviceBus.h"

#define STUB_RC SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_NOT_INITIALIZED)

SVCIPC_tError SVCIPC_initialize(void) { return SVCIPC_ERROR_NONE; }
SVCIPC_tError SVCIPC_shutdown(void) { return SVCIPC_ERROR_NONE; }
SVCIPC_tError SVCIPC_getConnection(int, int, SVCIPC_tConnection*) { return STUB_RC; }
SVCIPC_tError SVCIPC_getConnectionByAddress(const char*, SVCIPC_tConnection*) { return STUB_RC; }
SVCIPC_tError SVCIPC_closeConnection(SVCIPC_tConnection) { return STUB_RC; }
SVCIPC_tError SVCIPC_registerService(SVCIPC_tConnection, const char*, const char*, int, SVCIPC_tRequestCallback, void*,
                                     SVCIPC_tSvcRegHnd*) {
  return STUB_RC;
}
SVCIPC_tError SVCIPC_unregisterService(SVCIPC_tSvcRegHnd) { return STUB_RC; }
SVCIPC_tError SVCIPC_asyncReturnResult(SVCIPC_tReqContext, const char*, int, SVCIPC_tUserToken) { return STUB_RC; }
SVCIPC_tError SVCIPC_freeReqContext(SVCIPC_tReqContext) { return STUB_RC; }
SVCIPC_tError SVCIPC_asyncEmit(SVCIPC_tSvcRegHnd, const char*, const char*, SVCIPC_tResultCallback, void*) {
  return STUB_RC;
}
SVCIPC_tError SVCIPC_invoke(SVCIPC_tConnection, const char*, const char*, const char*, const char*, int,
                            SVCIPC_tResponse** response) {
  if (response) *response = nullptr;
  return STUB_RC;
}
SVCIPC_tError SVCIPC_asyncInvoke(SVCIPC_tConnection, const char*, const char*, const char*, const char*, int, int,
                                 SVCIPC_tResultCallback, void*) {
  return STUB_RC;
}
SVCIPC_tError SVCIPC_subscribe(SVCIPC_tConnection, const char*, const char*, SVCIPC_tSignalCallback, void*,
                               SVCIPC_tSigSubHnd*) {
  return STUB_RC;
}
SVCIPC_tError SVCIPC_subscribeOwnerChanged(SVCIPC_tConnection, const char*, SVCIPC_tNameOwnerChangedCallback, void*,
                                           SVCIPC_tSigSubHnd*) {
  return STUB_RC;
}
SVCIPC_tError SVCIPC_unsubscribe(SVCIPC_tSigSubHnd) { return STUB_RC; }
SVCIPC_tError SVCIPC_nameHasOwner(SVCIPC_tConnection, const char*, int* hasOwner) {
  if (hasOwner) *hasOwner = 0;
  return STUB_RC;
}
SVCIPC_tError SVCIPC_freeResponse(SVCIPC_tResponse*) { return SVCIPC_ERROR_NONE; }

namespace platform {
void setDefaultBus(const char*) {}
}  // namespace platform
