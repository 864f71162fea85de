// A signal of the embedded phone, the speech service or the audio control
// as any sender on the bus can emit it. The first byte picks the signal
// (6 and up: a name taken from the input, ended by a NUL); the second byte
// sets the call in hand, so that the handlers' branches for an emergency,
// a callback and the prompt sequence are reached; the rest is the data.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

namespace {

const char* const kSignals[] = {"callState", "embeddedPhoneStatus", "wendReason", "antennaStatus", "ttsPlayState", "DTMF"};
constexpr size_t kSignalCount = sizeof kSignals / sizeof kSignals[0];

const ecallMain::eEmergencyType kTypes[] = {ecallMain::NONE, ecallMain::E_CALL_BtnStat, ecallMain::CAN_IMPACT_B,
                                            ecallMain::Emergency_Callback};
const ecallMain::eCallModeType kModes[] = {ecallMain::CALL_NONE, ecallMain::CALL_ECALL_DELAY, ecallMain::CALL_ACN,
                                           ecallMain::CALL_EMERGENCY_CALLBACK};
const int kPrompts[] = {TTS_PROMPT_NONE, TTS_PROMPT_INCOMING, TTS_PROMPT_ECALL_PSAP1, TTS_PROMPT_ACN_PSAP2};

// bits 0-1: phone unknown, OFF, ON, ON with the service gone; bit 2:
// emergency mode; bits 3-4: type and mode in hand; bits 5-6: the prompt
// playing; bit 7: the centre's prompt waits for the dialling prompt.
void setCallInHand(uint8_t state) {
  const int phone = state & 3;
  processProbe::emdPhOn() = phone == 0 ? -1 : phone == 1 ? 0 : 1;
  processProbe::embeddedPhAvail() = phone == 3 ? 0 : 1;
  processProbe::ecallModeActive() = (state & 4) != 0;
  processProbe::curECallType() = kTypes[(state >> 3) & 3];
  processProbe::curCallModeType() = kModes[(state >> 3) & 3];
  processProbe::activeTts() = kPrompts[(state >> 5) & 3];
  processProbe::firstPsapTtsCount() = processProbe::activeTts() >= TTS_PROMPT_ECALL_PSAP1 ? 2 : 0;
  processProbe::firstPsapTtsWaitForComplete() = (state & 0x80) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  fuzzSupport::beginInput();
  setCallInHand(data[1]);
  const fuzzSupport::SignalInput signal = fuzzSupport::signalInput(data, size, kSignals, kSignalCount);
  ecallProcessor::onSubcribedSignal(signal.name.c_str(), signal.payload.c_str(), &ecallHandler);

  const int phone = processProbe::emdPhOn();
  fuzzSupport::expect(phone >= -1 && phone <= 1, "a phone status out of range");
  const int type = ecallHandler.getCurECallType();
  fuzzSupport::expect(type >= ecallMain::NONE && type < ecallMain::EMERGENCY_TYPE_COUNT, "an emergency type out of range");
  const int prompt = processProbe::activeTts();
  fuzzSupport::expect(prompt >= TTS_PROMPT_NONE && prompt < TTS_PROMPT_COUNT, "a prompt out of range");
  fuzzSupport::endInput();
  return 0;
}
