// Bluetooth off for the length of an emergency call, so that the embedded
// phone has the hands-free audio to itself, and on again afterwards.
#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/processorInputs.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"
#include "platform/slog.h"

void externalServiceHandling::disableBluetooth() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  // From now on the Bluetooth phone's call state is ignored; the flag follows
  // the request, not its outcome.
  mProcessor.setWillDisconnectBluetooth(true);
  SVCIPC_tError rc =
      extServ::invokeAsync(extServ::bluetoothService, "switchBluetoothOff", "", "switchBluetoothOff");
  if (rc < 0) {
    scope.sendFormattedError("Failed to request to disable Bluetooth, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to request to disable Bluetooth, rc 0x%0X\n", rc);
  }
  // The Bluetooth phone's hands-free scenario goes with it.
  stopAnyNonEmbeddedPsseSource();
}

void externalServiceHandling::enableBluetooth() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  mProcessor.setWillDisconnectBluetooth(false);
  Json::Value body(Json::objectValue);
  body["enable"] = true;
  SVCIPC_tError rc =
      extServ::invokeAsync(extServ::bluetoothService, "setBluetoothStatus", jsonWrite(body), "setBluetoothStatus");
  if (rc < 0) {
    scope.sendFormattedError("Failed to enable Bluetooth, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to enable Bluetooth, rc 0x%0X\n", rc);
  }
}
