// The requests to the application manager.
#include "externalServiceHandling/appManager.h"

#include <json/json.h>

#include "common/jsonText.h"
#include "externalServiceHandling/serviceRequests.h"

namespace appManager {

SVCIPC_tError stopApp(const std::string& appId) {
  Json::Value params(Json::objectValue);
  params["appId"] = appId;
  return extServ::invokeAsync(extServ::appManagerService, "stopApp", jsonWrite(params), "stopApp");
}

SVCIPC_tError subscribe(const char* sigName, SVCIPC_tSignalCallback onSignal, void* context) {
  return extServ::subscribe(extServ::appManagerService, sigName, onSignal, context);
}

}  // namespace appManager
