// The mirror buttons as the button reader brings them: the input is the
// text of successive reads of the reader, one per NUL-separated field (the
// arm flag of the emergency button carries over from one read to the next,
// as in the reader thread).
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "support/fuzzSupport.h"

namespace {

// What the reader thread reads at most at once.
constexpr size_t kButtonReadSize = 1000;
constexpr size_t kMaxReads = 16;

void handleRead(const std::string& read, bool& armed) {
  std::vector<char> text(read.begin(), read.begin() + (read.size() < kButtonReadSize ? read.size() : kButtonReadSize));
  text.push_back('\0');
  canIpcEmergencyHandler.processButtonPpsText(text.data(), armed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzSupport::beginInput();
  bool armed = true;
  for (const std::string& read : fuzzSupport::splitFields(data, size, kMaxReads)) handleRead(read, armed);
  const int led = canIpcEmergencyHandler.getLastLedSetStatus();
  fuzzSupport::expect(led >= LED_OFF && led <= LED_RED, "an LED status out of range");
  fuzzSupport::endInput();
  return 0;
}
