// The application manager as the processor sees it: the Assist application
// it closes when an emergency takes over, and the signals that tell of the
// applications' lives. The request texts are built here
// and nowhere else.
#pragma once

#include <string>

#include "platform/serviceBus.h"

namespace appManager {

// Stops the application appId; the answer reaches the processor's completion
// handler under "stopApp".
SVCIPC_tError stopApp(const std::string& appId);

// Its signal sigName ("operStatus", "appStarted", "appStopped",
// "appPaused"), for the life of the process.
SVCIPC_tError subscribe(const char* sigName, SVCIPC_tSignalCallback onSignal, void* context);

}  // namespace appManager
