// What the state machine's files share beyond the state machine class.
#pragma once

#include <string>

#include "common/ecallTypes.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"

// Sends an asynchronous request to the embedded phone (reply expected, the
// default time limit); its result reaches done with context.
SVCIPC_tError asyncInvokeEmbeddedPhone(const char* method, const std::string& params, SVCIPC_tResultCallback done,
                                       void* context);
// The same for a request whose reply nothing waits for; context is its name.
SVCIPC_tError asyncInvokeEmbeddedPhone(const char* method, const std::string& params, const char* context);
