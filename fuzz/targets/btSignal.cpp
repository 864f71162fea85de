// A call state signal of the Bluetooth service. The first byte: bit 0 set
// takes the signal name from the input (ended by a NUL), else "callState";
// bit 1 says Bluetooth is being switched off; the rest is the data.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzzSupport::beginInput();
  const bool willDisconnect = (data[0] & 2) != 0;
  processProbe::mWillDisconnBT() = willDisconnect;
  std::string name = "callState";
  std::string payload;
  if (data[0] & 1) {
    const std::vector<std::string> fields = fuzzSupport::splitFields(data + 1, size - 1, 2);
    name = fields[0];
    if (fields.size() > 1) payload = fuzzSupport::asText(reinterpret_cast<const uint8_t*>(fields[1].data()), fields[1].size());
  } else {
    payload = fuzzSupport::asText(data + 1, size - 1);
  }
  // The flag starts set, so that a signal that must change nothing shows.
  processProbe::btCallActive() = true;
  ecallProcessor::onSubcribedBTSignal(name.c_str(), payload.c_str(), &ecallHandler);
  if (willDisconnect || name != "callState") {
    fuzzSupport::expect(processProbe::btCallActive(), "a Bluetooth call state taken while it must be ignored");
  }
  fuzzSupport::endInput();
  return 0;
}
