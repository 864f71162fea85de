// The Assist application: its identifier, its life as the application
// manager reports it, the mirror LED and marker file that follow it, and its
// stop when an emergency takes over.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/appManager.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/files.h"
#include "platform/runtime.h"
#include "platform/slog.h"

using namespace ecallMain;

namespace {

constexpr int APP_MNGR_CFG_OPEN_ATTEMPTS = 11;
constexpr int APP_MNGR_CFG_LINE_SIZE = 128;

const char* xletStateText(eXletState state) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return state >= 0 && state < XLET_STATE_COUNT ? eXletStateString[state].c_str() : "unknown";
}

// A member the signal must carry, as text; false when it is absent.
bool requiredMember(const Json::Value& data, const char* name, std::string& text) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (!data.isObject() || !data.isMember(name)) return false;
  text = jsonGetString(data, name, "");
  return true;
}

}  // namespace

void ecallProcessor::onAppLifeSignal(const std::string& name, const Json::Value& data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::string appId;
  if (!requiredMember(data, "appId", appId) || appId.find(assistAppUUID.get()) == std::string::npos) return;

  scope.sendFormattedMessage("Received Assist App %s", name.c_str());
  int errorCode = jsonGetInt(data, "errorCode", 0);
  if (errorCode != 0) {
    scope.sendFormattedMessage("Assist App %s with error %d. Do nothing", name.c_str(), errorCode);
    return;
  }
  // A paused Assist is handled as a running one.
  if (name == "appStarted" || name == "appPaused") {
    processAssistAppOperStatus(XLET_RUNNING);
  } else if (name == "appStopped") {
    processAssistAppOperStatus(XLET_STOPPED);
  } else {
    scope.sendFormattedWarning("should not be here at all");
  }
}

void ecallProcessor::onOperStatus(const char* text, const Json::Value& data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("Received App Manager xlet operation status data: %s\n", text);
  std::string appId, state;
  if (!requiredMember(data, "appId", appId) || !requiredMember(data, "state", state)) return;
  if (appId.find(assistAppUUID.get()) == std::string::npos) return;

  scope.sendFormattedMessage("Assist App state received, state %s\n", state.c_str());
  if (state.find("initializing") != std::string::npos) {
    // Assist must reach "running" before the timer ends, or its LED goes off.
    if (!timers().isRunningAssistTimeoutTimer()) timers().startAssistTimeoutTimer();
    processAssistAppOperStatus(XLET_INITIALIZING);
  } else if (state.find("stopped") != std::string::npos) {
    processAssistAppOperStatus(XLET_STOPPED);
  }
}

void ecallProcessor::getAssistAppUUID() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  assistAppUUID.set(defaultAssistAppUUID);

  const std::string path = platform::rootPath(appMngrConfigPath);
  FILE* cfg = nullptr;
  for (int attempt = 0; attempt < APP_MNGR_CFG_OPEN_ATTEMPTS; ++attempt) {
    cfg = platform::fileOpenStream(path.c_str(), "r");
    if (cfg != nullptr || errno != EINTR) break;
  }

  if (cfg == nullptr) {
    scope.sendFormattedError("getAssistAppUUID() - Unable to open App Manager config file: %s\n",
                             appMngrConfigPath.c_str());
  } else {
    char line[APP_MNGR_CFG_LINE_SIZE];
    while (fgets(line, sizeof line, cfg) != nullptr) {
      const char* key = strstr(line, cfgFileAssistAppId.c_str());
      if (key == nullptr) continue;
      // The file holds "uuidAssistApp":"<id>", so the scanned word still
      // carries the closing quote and comma; the identifier ends at the quote.
      char word[APP_MNGR_CFG_LINE_SIZE] = "";
      if (sscanf(key + cfgFileAssistAppId.size(), "\":\"%127s\",", word) != 1) word[0] = '\0';
      if (strlen(word) < 2) {
        scope.sendFormattedError("Assist UUID invalid in config file, default UUID will be used.\n");
      } else {
        char* quote = strchr(word, '"');
        if (quote != nullptr) *quote = '\0';
        assistAppUUID.set(word);
        scope.sendFormattedMessage("App Assist UUID found, %s, in the app mngr config file: %s\n", word,
                                   appMngrConfigPath.c_str());
      }
      break;
    }
    fclose(cfg);
  }
  scope.sendFormattedMessage("App Assist UUID that will be used by the ecallService: %s\n",
                             assistAppUUID.get().c_str());
}

void ecallProcessor::onSubcribedAppMngrSignal(const char* sigName, const char* data, void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  auto& self = *static_cast<ecallProcessor*>(context);
  const std::string name = sigName ? sigName : "";
  const char* text = data ? data : "{}";
  Json::Value value;
  if (!jsonParse(text, value)) {
    scope.sendFormattedError("failed to parse App Manager signal %s data %s\n", name.c_str(), text);
    sendtoSlog(_SLOG_WARNING, "failed to parse App Manager signal %s data %s\n", name.c_str(), text);
    return;
  }
  if (name == "operStatus") {
    self.onOperStatus(text, value);
  } else if (name == "appStarted" || name == "appPaused" || name == "appStopped") {
    self.onAppLifeSignal(name, value);
  }
}

void ecallProcessor::processAssistAppOperStatus(eXletState state) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const bool ecallActive = getEcallModeActive();
  const char* stateText = xletStateText(state);
  scope.sendFormattedMessage("ecall %d, lastLedSetStatus %d, assist state %s, bAssistAppActive %d", ecallActive,
                             static_cast<int>(canIpcEmergencyHandler.getLastLedSetStatus()), stateText,
                             bAssistAppActive.load());

  if (ecallActive) {
    // The emergency owns the screen and the LED: Assist is closed as soon as
    // it shows itself, and the LED tells the user by blinking once.
    switch (state) {
      case XLET_PAUSED:
      case XLET_RUNNING:
        timers().stopAssistTimeoutTimer();
        asyncStopAssistApp();
        [[fallthrough]];
      case XLET_INITIALIZING:
        if (canIpcEmergencyHandler.getLastLedSetStatus() == LED_SOLID_GREEN && !bAssistAppActive) {
          addFormattedEntryToEmergencyLog("ecall active. Assist app %s. blink LED green and close Assist\n", stateText);
          scope.sendFormattedMessage("set LED to blinking green and close Assist.");
          canIpcEmergencyHandler.setLedStatus(LED_BLINKING_GREEN);
          canIpcEmergencyHandler.startBlinkTimer();
        }
        bAssistAppActive = true;
        createFlagInTmp(true, embeddedCallActiveFlag);
        sendAssistStatus();
        break;
      case XLET_STOPPED:
        // The LED stays with the emergency.
        bAssistAppActive = false;
        createFlagInTmp(false, embeddedCallActiveFlag);
        sendAssistStatus();
        timers().stopAssistTimeoutTimer();
        break;
      default:
        scope.sendFormattedMessage("ecall active, unhandled assist state %s.", stateText);
        break;
    }
    return;
  }

  switch (state) {
    case XLET_RUNNING:
      timers().stopAssistTimeoutTimer();
      [[fallthrough]];
    case XLET_INITIALIZING:
      bAssistAppActive = true;
      createFlagInTmp(true, embeddedCallActiveFlag);
      sendAssistStatus();
      scope.sendFormattedMessage("Assist app run detected. set LED to solid green");
      canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
      break;
    case XLET_STOPPED:
      scope.sendFormattedMessage("Assist App end detected send mirror LED off\n");
      bAssistAppActive = false;
      createFlagInTmp(false, embeddedCallActiveFlag);
      sendAssistStatus();
      timers().stopAssistTimeoutTimer();
      canIpcEmergencyHandler.setLedStatus(LED_OFF);
      extServHandle.enableBluetooth();
      // Any call still up on the embedded phone ends with Assist.
      if (!curCallState.contains("CALL_STATE_IDLE")) hangUpCall();
      break;
    default:
      scope.sendFormattedMessage("assist app %s, ecall not active. do not care.", stateText);
      break;
  }
}

void ecallProcessor::asyncStopAssistApp() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc = appManager::stopApp(assistAppUUID.get());
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedError("Failed to stop Assist App, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to stop Assist App, rc 0x%0X\n", static_cast<unsigned>(rc));
  }
}

void ecallProcessor::sendAssistStatus() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  // Without a running input side the controller's channel is not ours to use.
  if (orcMonitoringStarted) canIpcEmergencyHandler.sendAssistAppStatus(bAssistAppActive);
}

void ecallProcessor::onAssistNeverActiveTimeout() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (!getEcallModeActive() && !bAssistAppActive) {
    scope.sendFormattedError("Turning off mirror LED since the assist xlet never went active\n");
    canIpcEmergencyHandler.setLedStatus(LED_OFF);
  }
}
