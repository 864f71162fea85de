// A signal of the application manager about an application's life. The
// first byte picks the signal (4 and up: a name taken from the input, ended
// by a NUL); the second sets the scene: bit 0 emergency mode, bits 1-2 the
// LED last set, bit 3 Assist already active, bit 4 a call up on the phone,
// bit 5 the input side running, bit 6 no data at all; the rest is the data.
// The seeds name the Assist application's default identifier.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

namespace {

const char* const kSignals[] = {"operStatus", "appStarted", "appPaused", "appStopped"};
constexpr size_t kSignalCount = sizeof kSignals / sizeof kSignals[0];

void setScene(uint8_t scene) {
  // The LED first: setting it writes to the channel and the log, as it would.
  canIpcEmergencyHandler.setLedStatus(static_cast<eLedStatus>((scene >> 1) & 3));
  processProbe::ecallModeActive() = (scene & 1) != 0;
  processProbe::bAssistAppActive() = (scene & 8) != 0;
  processProbe::curCallState().set((scene & 0x10) ? "CALL_STATE_ACTIVE" : "CALL_STATE_IDLE");
  processProbe::orcMonitoringStarted() = (scene & 0x20) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  fuzzSupport::beginInput();
  setScene(data[1]);
  const fuzzSupport::SignalInput signal = fuzzSupport::signalInput(data, size, kSignals, kSignalCount);
  ecallProcessor::onSubcribedAppMngrSignal(signal.name.c_str(), (data[1] & 0x40) ? nullptr : signal.payload.c_str(),
                                           &ecallHandler);
  const int led = canIpcEmergencyHandler.getLastLedSetStatus();
  fuzzSupport::expect(led >= LED_OFF && led <= LED_RED, "an LED status out of range");
  fuzzSupport::endInput();
  return 0;
}
