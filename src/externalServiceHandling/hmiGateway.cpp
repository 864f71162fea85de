// The requests to the HMI gateway.
#include "externalServiceHandling/hmiGateway.h"

#include <json/json.h>

#include <string>

#include "common/jsonText.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"

namespace hmiGateway {

namespace {

// Message of the user interface: "please wait".
constexpr int pleaseWaitPopupMsgId = 2672;
constexpr int pleaseWaitPopupTimeoutMs = 5000;

}  // namespace

SVCIPC_tError displayPleaseWaitPopup() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  Json::Value params(Json::objectValue);
  params["msgId"] = pleaseWaitPopupMsgId;
  params["showonDisplayoff"] = true;
  params["timeout"] = pleaseWaitPopupTimeoutMs;
  const std::string text = jsonWrite(params);
  scope.sendFormattedMessage("HMIGateWay displayGlobalPopup, params %s\n", text.c_str());
  return extServ::invokeSync(extServ::hmiGatewayService, "displayGlobalPopupByMsgId", text);
}

}  // namespace hmiGateway
