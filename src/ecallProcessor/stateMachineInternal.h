// What the state machine's files share beyond the state machine class.
#pragma once

#include <string>

#include "common/ecallTypes.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"

// Sends an asynchronous request to the embedded phone (reply expected, the
// default time limit); its result reaches onAsyncResult under context.
SVCIPC_tError asyncInvokeEmbeddedPhone(const char* method, const std::string& params, const char* context);
