// The answers of the vehicle configuration services: the variant
// ("get_variantinfo"), the brand and the language ("getProperties"), the
// software version ("get_all_versions") and the phone volume of the audio
// mixer ("getProperties"). The first byte picks the query (low bits) and
// whether the query fails (0x08); the rest is the answer.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "fake/processProbe.h"
#include "support/fuzzSupport.h"

namespace {

// The variant is asked again after a pause while the answer lacks the
// member; only the first answer is the input, the next one settles it, so
// that an input costs at most one (scaled) pause.
void askVariant(const std::string& reply, bool fails) {
  auto calls = std::make_shared<int>(0);
  fakeBus::setResponder(PLATFORM_SERVICE, "get_variantinfo", [calls, reply, fails](const std::string&) {
    fakeBus::Reply answer;
    if ((*calls)++ > 0) {
      answer.result = "{\"VARIANT_ECELL\":\"YES\"}";
    } else if (fails) {
      answer.rc = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR);
    } else {
      answer.result = reply;
    }
    return answer;
  });
  processProbe::mVariantInfoKnown() = false;
  extServHandle.getEmebeddedPhoneEnabledInVariant();
  fuzzSupport::expect(processProbe::mVariantInfoKnown(), "the variant still unknown after the query");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzzSupport::beginInput();
  const std::string reply = fuzzSupport::asText(data + 1, size - 1);
  const bool fails = (data[0] & 0x08) != 0;
  const char* answer = fails ? nullptr : reply.c_str();

  switch ((data[0] & 0x07) % 5) {
    case 0:
      askVariant(reply, fails);
      break;
    case 1:
      fuzzSupport::answer(VEHICLE_CONFIG_SERVICE, "getProperties", answer);
      extServHandle.getVehicleBrand();
      break;
    case 2:
      fuzzSupport::answer(VEHICLE_STATUS_SERVICE, "getProperties", answer);
      extServHandle.getCurrentLanguage();
      break;
    case 3:
      fuzzSupport::answer(PLATFORM_SERVICE, "get_all_versions", answer);
      extServHandle.logSystemSWInfo();
      break;
    default:
      fuzzSupport::answer(AUDIO_MIXER_SERVICE, "getProperties", answer);
      ecallHandler.getDefaultVolumes();
      break;
  }
  const int brand = processProbe::mVehicleBrandIndex();
  fuzzSupport::expect(brand >= 1 && brand <= VEHICLE_BRAND_NONE, "a brand row out of the table");
  const int language = processProbe::mTtsLanguage();
  fuzzSupport::expect(language >= 0 && language < TTS_LANGUAGE_COUNT, "a language row out of the table");
  fuzzSupport::endInput();
  return 0;
}
