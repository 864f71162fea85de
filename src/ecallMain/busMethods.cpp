#include "ecallMain/ecallMain.h"

// Work in progress.
void onECallRequest(SVCIPC_tReqContext context, const char* method, const char* params, int noReplyExpected,
                    SVCIPC_tUserToken token) {
  SVCIPC_freeReqContext(context);
}
void sendGeneralResponse(SVCIPC_tReqContext context, SVCIPC_tUserToken token, const char* method) {}
