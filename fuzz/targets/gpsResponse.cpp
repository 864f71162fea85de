// The navigation service's answer to "JSON_GetProperties": the position
// read to the emergency operator. The first byte picks where it is used
// (the position sentence alone, the announcements with the position, the
// position prompt); the rest is the answer.
#include <cstddef>
#include <cstdint>
#include <string>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

namespace {

const std::string kUnavailable = "Vehicle location currently not available.";

bool startsWith(const std::string& text, const std::string& start) { return text.compare(0, start.size(), start) == 0; }

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzzSupport::beginInput();
  const std::string reply = fuzzSupport::asText(data + 1, size - 1);
  fuzzSupport::answer(NDR_SERVICE, "JSON_GetProperties", reply.c_str());

  switch (data[0] % 4) {
    case 0: {
      const std::string position = extServHandle.getGPSResponseString();
      fuzzSupport::expect(position == kUnavailable ||
                              (startsWith(position, "Latitude... ") && endsWith(position, ". ") &&
                               position.find(". Longitude... ") != std::string::npos),
                          "a position sentence of another form");
      break;
    }
    case 1:
      extServHandle.composeTtsText(TTS_PROMPT_ECALL_PSAP2);
      break;
    case 2:
      processProbe::mVehicleBrandIndex() = 1 + data[0] % 12;
      extServHandle.composeTtsText(TTS_PROMPT_ACN_PSAP2);
      break;
    default:
      extServHandle.playTtsMsg(TTS_PROMPT_GPS_COORDINATES);
      break;
  }
  fuzzSupport::endInput();
  return 0;
}
