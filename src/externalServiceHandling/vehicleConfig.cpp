// What vehicle the service runs in: the variant (embedded phone fitted or
// not), the brand and the occupants' language for the prompts, and the head
// unit's software version for the emergency record.
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/processorInputs.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace {

constexpr int kVariantAttempts = 5;
constexpr int64_t kVariantRetryPauseMs = 1000;
const char* const kNotPresent = "NOT PRESENT";

// The number of a brand sent as an integer or as its decimal text; anything
// else reads as 0, which is no brand.
int brandNumberOf(const Json::Value& brand) {
  if (brand.isInt()) return brand.asInt();
  if (!brand.isString()) return 0;
  errno = 0;
  long number = std::strtol(brand.asCString(), nullptr, 10);
  if (errno != 0 || number < INT_MIN || number > INT_MAX) return 0;
  return static_cast<int>(number);
}

}  // namespace

bool externalServiceHandling::getEmebeddedPhoneEnabledInVariant() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  if (mVariantInfoKnown) return mEmbeddedPhoneEnabled;

  // Several threads may ask at start-up; whoever learns the answer first ends
  // the others' attempts.
  for (int attemptsLeft = kVariantAttempts - 1; attemptsLeft >= 0 && !mVariantInfoKnown; --attemptsLeft) {
    std::string reply;
    SVCIPC_tError rc = extServ::invokeSync(extServ::platformService, "get_variantinfo", "", &reply);
    if (rc < 0) {
      scope.sendFormattedError("Unable to get the CMC variant info, rc %d, attempts left %d\n", rc, attemptsLeft);
      sendtoSlog(_SLOG_WARNING, "Unable to get the vehicle Brand, rc 0x%0X, attempt left %d\n", rc, attemptsLeft);
      // A hung platform service already took the pause of this attempt.
      if (extServ::reportTimedOut(rc, "variant", "the embedded phone enabled")) continue;
    } else {
      scope.sendFormattedMessage("Received variant info: %s\n", reply.c_str());
      Json::Value root;
      jsonParse(reply.c_str(), root);
      const std::string ecell = jsonGetString(root, "VARIANT_ECELL", kNotPresent);
      if (ecell == kNotPresent && attemptsLeft > 0) {
        scope.sendFormattedMessage("ECELL not in the varinat info response, trying %d more times to get it\n",
                                   attemptsLeft);
      } else {
        // The flag first, so that a thread seeing the answer known reads it.
        mEmbeddedPhoneEnabled = ecell != "NO";
        mVariantInfoKnown = true;
        scope.sendFormattedMessage(
            "ECELL state in variant determined to be, %s, setting EmbeddedPhoneEnabled flag to %d\n", ecell.c_str(),
            mEmbeddedPhoneEnabled ? 1 : 0);
      }
    }
    if (!mVariantInfoKnown) platform::sleepMs(kVariantRetryPauseMs);
  }

  // No answer at all: the phone stays enabled, its initial state. Marking the
  // answer known in one step keeps a real answer that another caller found
  // meanwhile.
  if (!mVariantInfoKnown.exchange(true)) {
    // clang-format off
    scope.sendFormattedError("ERROR Obtaining VARIANT_ECELL!!!!  %d attempts were made against a compile time option that will not change.  Defaulting embedded phone enabled to TRUE\n", kVariantAttempts);
    // clang-format on
  }
  return mEmbeddedPhoneEnabled;
}

int externalServiceHandling::currentBrand() const {
  const int current = mVehicleBrandIndex;
  return current < 0 || current >= VEHICLE_BRAND_COUNT ? VEHICLE_BRAND_NONE : current;
}

int externalServiceHandling::currentLanguage() const {
  const int current = mTtsLanguage;
  return current < 0 || current >= TTS_LANGUAGE_COUNT ? 0 : current;
}

void externalServiceHandling::getVehicleBrand() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  std::string reply;
  SVCIPC_tError rc =
      extServ::invokeSync(extServ::vehicleConfigService, "getProperties", extServ::propertyQuery("vehicleBrand"), &reply);
  if (rc < 0) {
    scope.sendFormattedError("Unable to get the vehicle Brand, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Unable to get the vehicle Brand, rc 0x%0X\n", rc);
    extServ::reportTimedOut(rc, "vehicle brand", std::string("brand ") + strVehicleBrands[currentBrand()]);
    return;
  }
  Json::Value root;
  jsonParse(reply.c_str(), root);
  const Json::Value brand = extServ::member(root, "vehicleBrand");
  if (brand.isNull()) return;

  const int number = brandNumberOf(brand);
  if (number >= 1 && number <= 12) {
    mVehicleBrandIndex = number;
    scope.sendFormattedMessage("Venicle brand received, %s\n", strVehicleBrands[number]);
    mProcessor.addFormattedEntryToEmergencyLog("Vehicle brand %s\n", strVehicleBrands[number]);
    return;
  }
  const int current = currentBrand();
  scope.sendFormattedMessage("Vehicle brand received invalid, using current brand %s\n", strVehicleBrands[current]);
  mProcessor.addFormattedEntryToEmergencyLog("Vehicle brand received invalid, using current brand %s\n",
                                               strVehicleBrands[current]);
}

void externalServiceHandling::getCurrentLanguage() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  std::string reply;
  SVCIPC_tError rc =
      extServ::invokeSync(extServ::vehicleStatusService, "getProperties", extServ::propertyQuery("language"), &reply);
  if (rc < 0) {
    scope.sendFormattedError("Unable to get the language, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Unable to get the language, rc 0x%0X\n", rc);
    extServ::reportTimedOut(rc, "language", std::string("language ") + strTtsLanguage[currentLanguage()]);
    return;
  }
  Json::Value root;
  jsonParse(reply.c_str(), root);
  const Json::Value languageValue = extServ::member(root, "language");
  if (languageValue.isNull()) return;

  const std::string language = jsonGetString(root, "language", "");
  scope.sendFormattedMessage("Language received, %s\n", language.c_str());
  // "en_US", "fr_CA", "es_MX" and the like: the country part does not matter.
  // Any other language keeps the one the prompts use now.
  const char* entry = nullptr;
  if (language.find("en_") != std::string::npos) {
    mTtsLanguage = 0;
    entry = "Speaker TTS language English\n";
  } else if (language.find("fr_") != std::string::npos) {
    mTtsLanguage = 1;
    entry = "Speaker TTS language French\n";
  } else if (language.find("es_") != std::string::npos) {
    mTtsLanguage = 2;
    entry = "Speaker TTS language Spanish\n";
  }
  if (entry != nullptr) {
    mProcessor.addEntryToEmergencyLog(entry);
    scope.sendFormattedMessage("%s", entry);
    return;
  }
  const int current = currentLanguage();
  mProcessor.addFormattedEntryToEmergencyLog("Speaker TTS language %s\n", strTtsLanguage[current]);
  scope.sendFormattedMessage("Speaker TTS language %s\n", strTtsLanguage[current]);
}

void externalServiceHandling::logSystemSWInfo() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  std::string reply;
  SVCIPC_tError rc = extServ::invokeSync(extServ::platformService, "get_all_versions", "", &reply);
  if (rc < 0) {
    scope.sendFormattedError("Unable to get system software version, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Unable to get system software version, rc 0x%0X\n", rc);
    extServ::reportTimedOut(rc, "software version", "the version logged before");
    return;
  }
  scope.sendFormattedMessage("Received system software versions: %s\n", reply.c_str());
  Json::Value root;
  jsonParse(reply.c_str(), root);
  const std::string version = jsonGetString(root, "app_version", kNotPresent);
  mProcessor.addFormattedEntryToEmergencyLog("System Software Version: %s\n", version.c_str());
}

// The number a test call dials is the vehicle's, configured per market and
// car line; the service has no default, so that a car without one never
// dials anything for a test.
std::string externalServiceHandling::getTestNumber(std::string& number) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  std::string reply;
  SVCIPC_tError rc =
      extServ::invokeSync(extServ::vehicleConfigService, "getProperties", extServ::propertyQuery("testNumber"), &reply);
  if (rc < 0) {
    scope.sendFormattedError("Unable to get the test number, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Unable to get the test number, rc 0x%0X\n", rc);
    return "the vehicle configuration did not give the test number";
  }
  Json::Value root;
  jsonParse(reply.c_str(), root);
  const Json::Value value = extServ::member(root, "testNumber");
  if (value.isNull()) return "no test number is configured in the vehicle configuration";
  if (!value.isString()) return "the test number of the vehicle configuration is not a text";
  number = value.asString();
  if (number.empty()) return "the test number of the vehicle configuration is empty";
  scope.sendFormattedMessage("Test number received, %s\n", number.c_str());
  return "";
}
