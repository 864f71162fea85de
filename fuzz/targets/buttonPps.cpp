// The mirror buttons as the button reader brings them: the input is the
// text of successive reads of the reader, one per NUL-separated field (the
// arm flag of the emergency button carries over from one read to the next,
// as in the reader thread).
//
// A read of the real object holds "@vehstat" and at most the two button
// lines, under 64 bytes. Inputs are bounded at 1 KiB: room for sixteen
// such reads, or for one read as long as the reader's buffer.
// libFuzzer options: -max_len=1024
#include <cstddef>
#include <cstdint>
#include <string>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "support/fuzzSupport.h"

namespace {

// What the reader thread reads at most at once.
constexpr size_t kButtonReadSize = 1000;
constexpr size_t kMaxReads = 16;

void handleRead(std::string& read, bool& armed) {
  if (read.size() > kButtonReadSize) read.resize(kButtonReadSize);
  canIpcEmergencyHandler.processButtonPpsText(read.data(), armed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzSupport::beginInput();
  bool armed = true;
  for (std::string& read : fuzzSupport::splitFields(data, size, kMaxReads)) handleRead(read, armed);
  const int led = canIpcEmergencyHandler.getLastLedSetStatus();
  fuzzSupport::expect(led >= LED_OFF && led <= LED_RED, "an LED status out of range");
  fuzzSupport::endInput();
  return 0;
}
