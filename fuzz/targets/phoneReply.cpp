// The embedded phone's answers to the status query ("getProperties") and the
// antenna query ("getAntennaStatus"). The first byte sets the phone status
// known before (unknown, OFF, ON) and whether the status answer is a failure;
// the rest holds the status answer and the antenna answer, NUL-separated.
// The status query runs the whole reaction to the answer: the number and
// antenna queries for ON, the module's ports for OFF.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzzSupport::beginInput();
  const int before = (data[0] & 3) == 0 ? -1 : (data[0] & 3) == 1 ? 0 : 1;
  processProbe::emdPhOn() = before;
  // Bit 2: an emergency was raised while the phone was not ON.
  if (data[0] & 4) processProbe::curECallType() = ecallMain::E_CALL_BtnStat;

  const std::vector<std::string> fields = fuzzSupport::splitFields(data + 1, size - 1, 2);
  const std::string status = fields[0];
  const std::string antenna = fields.size() > 1 ? fuzzSupport::asText(reinterpret_cast<const uint8_t*>(fields[1].data()), fields[1].size()) : "";
  fuzzSupport::answer(EMBEDDED_PHONE_SERVICE, "getProperties", (data[0] & 8) ? nullptr : status.c_str());
  fuzzSupport::answer(EMBEDDED_PHONE_SERVICE, "getAntennaStatus", antenna.c_str());
  fuzzSupport::answer(EMBEDDED_PHONE_SERVICE, "getUsbPorts", antenna.c_str());

  if (data[0] & 0x10) {
    ecallHandler.checkAntennaStatus();
  } else {
    ecallHandler.getEmdPhStatus();
  }
  const int after = processProbe::emdPhOn();
  fuzzSupport::expect(after >= -1 && after <= 1, "a phone status out of range");
  fuzzSupport::expect((data[0] & 8) == 0 || after == before, "a failed status query changed the phone status");
  fuzzSupport::endInput();
  return 0;
}
