// The mirror buttons: the emergency button starts an emergency, the Assist
// button is handed to the processor and lights the mirror LED.
#include <cstdlib>
#include <cstring>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/processorInputs.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pps.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace {

constexpr size_t BUTTON_PPS_READ_SIZE = 1000;

// The emergency button starts one emergency per press: a held button or a
// repeated "1" is ignored until a "0" re-arms it.
void onEmergencyButton(processorInputs& processor, const char* value, bool& armed) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  scope.sendFormattedMessage("ecallBtn pps value %s", value);
  processor.addFormattedEntryToEmergencyLog("ecallBtn = %s\n", value);
  switch (atoi(value)) {
    case 1:
      if (armed) {
        processor.emergencyHappened(ecallMain::E_CALL_BtnStat);
        armed = false;
      }
      break;
    case 0:
      armed = true;
      break;
    default:
      break;
  }
}

void onAssistButton(CANImpactECallHandler& handler, const char* value) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  scope.sendFormattedMessage("UcallBtn pps value %s\n", value);
  if (atoi(value) != 1) return;  // the release is not acted on

  processorInputs& processor = handler.processor();
  processor.assistButtonPressed();
  if (processor.getEcallModeActive()) {
    processor.addEntryToEmergencyLog("Assist button pressed. ECall in progress. Blink LED green\n");
    handler.setLedStatus(LED_BLINKING_GREEN);
    handler.startBlinkTimer();
  } else if (handler.getLastLedSetStatus() == LED_OFF) {
    if (processor.isBtCallActive()) {
      // Blinks for as long as the Bluetooth call lasts: no timer.
      processor.addEntryToEmergencyLog("Assist button pressed. BTCall in progress. Blink LED green\n");
      handler.setLedStatus(LED_BLINKING_GREEN);
    } else {
      processor.addEntryToEmergencyLog("Assist button pressed. No other calls ongoing. LED solid green\n");
      handler.setLedStatus(LED_SOLID_GREEN);
    }
  }
}

}  // namespace

void CANImpactECallHandler::processButtonPpsText(char* text, bool& armed) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  pps_attrib_t info;
  memset(&info, 0, sizeof info);
  char* cursor = text;
  for (;;) {
    char* lineStart = cursor;
    pps_status_t status = ppsparse(&cursor, nullptr, nullptr, &info, 0);
    if (status == PPS_END) break;
    // A line the parser cannot pass over would otherwise be parsed for ever.
    if (status == PPS_ERROR && cursor == lineStart) break;
    if (status != PPS_ATTRIBUTE || info.attr_name == nullptr) continue;
    // A vehicle without an embedded phone ignores both buttons.
    if (!mServices.getEmebeddedPhoneEnabledInVariant()) continue;

    const char* value = info.value ? info.value : "";
    if (strstr(info.attr_name, "E_CALL_BtnStat") != nullptr) {
      onEmergencyButton(mProcessor, value, armed);
    } else if (strstr(info.attr_name, "U_CALL_BtnStat") != nullptr) {
      onAssistButton(*this, value);
    }
  }
}

// arg is the handler whose PPS descriptor is read.
void* ecallReadThrdFunc(void* arg) {
  CQVTraceScope scope(orcImpactTraceScope, __func__);
  auto* handler = static_cast<CANImpactECallHandler*>(arg);
  // A press already present in the first read starts an emergency.
  bool armed = true;
  char text[BUTTON_PPS_READ_SIZE + 1];
  platform::threadProgress& progress = handler->buttonReaderProgress();
  for (;;) {
    ssize_t n;
    {
      platform::blockingCall wait(progress);
      n = platform::ppsRead(handler->getPpsFd(), text, BUTTON_PPS_READ_SIZE);
    }
    // A blocking delta read never returns empty; if it does, it is retried
    // like an error so that the thread never spins.
    if (n <= 0) {
      scope.sendFormattedError("Error reading pps file %s.  Attempt to read again after 1000ms.",
                               ecallBtnPPSPath.c_str());
      sendtoSlog(_SLOG_WARNING, "Error reading pps file %s.  Attempt to read again after 1000ms.",
                 ecallBtnPPSPath.c_str());
      platform::blockingCall wait(progress);
      platform::sleepMs(1000);
      continue;
    }
    text[n] = '\0';
    handler->processButtonPpsText(text, armed);
  }
  return nullptr;
}
