// Spoken prompts: the prompt texts, the operator announcements with the
// vehicle's brand and position, and the readout requests to the
// text-to-speech service.
#include <cstdio>
#include <cstdlib>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/processorInputs.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"
#include "platform/slog.h"

// Language-major: the text of code c in language l is entry l * 17 + c. The
// operator announcements (8 to 12, and the test call's 15 and 16) stay
// English in every row: the emergency centre always hears English, whatever
// the occupants' language.
// clang-format off
const char* const strECallTtsPrompts[TTS_LANGUAGE_COUNT * TTS_PROMPT_COUNT] = {
    // English
    "",
    "Starting 9-1-1 call. To cancel press the 9-1-1 button on the mirror.",
    "Incoming call.",
    "9-1-1 call ended. To reconnect, press the 9-1-1 button on the mirror.",
    "Vehicle phone requires service. Please contact your dealer.",
    "9-1-1 call not successful. Vehicle phone has no signal. System will continue to retry.",
    "9-1-1 call not successful. Vehicle phone has no signal. System will continue to retry. To cancel press the 9-1-1 button on the mirror.",
    "Calling 9-1-1",
    "Emergency call from a ",
    "Emergency call from a ",
    "A crash has occurred in a ",
    "A crash has occurred in a ",
    "",
    "Starting a test call. This is not a 9-1-1 call.",
    "Test call ended.",
    "This is a test call, not an emergency. Test call from a ",
    "This is a test call, not an emergency. Test call from a ",
    // French
    "",
    "Appel du 9-1-1. Pour annuler, appuyez sur le bouton 9-1-1 sur le retroviseur.",
    "Appel entrant",
    "Fin de l'appel au 9-1-1. Pour rappeler, appuyez sur le bouton 9-1-1 sur le retroviseur.",
    "Le telephone du vehicule doit etre repare. Veuillez contacter votre revendeur.",
    "Echec de l'appel au 9-1-1. Le telephone du vehicule n'a pas de signal. Le systeme va reessayer.",
    "Echec de l'appel au 9-1-1. Le telephone du vehicule n'a pas de signal. Le systeme va reessayer. Pour annuler, appuyez sur le bouton 9-1-1 sur le retroviseur.",
    "Appel du 9-1-1.",
    "Emergency call from a ",
    "Emergency call from a ",
    "A crash has occurred in a ",
    "A crash has occurred in a ",
    "",
    "Debut d'un appel de test. Ce n'est pas un appel au 9-1-1.",
    "Fin de l'appel de test.",
    "This is a test call, not an emergency. Test call from a ",
    "This is a test call, not an emergency. Test call from a ",
    // Spanish
    "",
    "Comenzando llamada 9-1-1. Para cancelar, presione el boton 9-1-1 en el espejo.",
    "Llamada entrante",
    "La llamada al 9-1-1 finalizo. Para volver a conectar, presione el boton 9-1-1 en el espejo.",
    "El telefono del vehiculo necesita servicio. Comuniquese con su comerciante.",
    "La llamada al 9-1-1 fallo. El vehiculo no tiene senal. El sistema seguira intentando.",
    "La llamada al 9-1-1 fallo. El vehiculo no tiene senal. El sistema seguira intentando. Para cancelar, presione el boton 9-1-1 en el espejo.",
    "Llamando al 9-1-1.",
    "Emergency call from a ",
    "Emergency call from a ",
    "A crash has occurred in a ",
    "A crash has occurred in a ",
    "",
    "Iniciando una llamada de prueba. No es una llamada al 9-1-1.",
    "La llamada de prueba finalizo.",
    "This is a test call, not an emergency. Test call from a ",
    "This is a test call, not an emergency. Test call from a ",
};
// clang-format on

const char* const strTtsLanguage[TTS_LANGUAGE_COUNT] = {"English", "French", "Spanish"};

// Row 0 and row 13 (no brand received yet) are empty.
const char* const strVehicleBrands[VEHICLE_BRAND_COUNT] = {
    "",      "Corvane", "Bastek",      "Trelk", "Aldemar-Vosse", "Tsurogane", "Feldwerk",
    "Roadmast", "Alta Serena", "Vetta", "Orsina", "Calvetti",      "Kestrun",   "",
};

namespace {

const char* const kLocationUnavailable = "Vehicle location currently not available.";
// Longer position texts are spoken but kept out of the emergency log.
constexpr size_t kGpsOnlyLogLimit = 180;

bool isPromptSpoken(int prompt) { return prompt >= TTS_PROMPT_INITIATE && prompt < TTS_PROMPT_COUNT; }
bool isOccupantPrompt(int prompt) {
  return (prompt >= TTS_PROMPT_INITIATE && prompt <= TTS_PROMPT_DIALING) || prompt == TTS_PROMPT_TEST_CALLING ||
         prompt == TTS_PROMPT_TEST_ENDED;
}

// A coordinate in millionths of a degree as degrees with five decimals, the
// sixth cut rather than rounded. The sign is written apart from the digits;
// the magnitude is taken in 64 bits so that the most negative value can be
// negated (its degrees and fraction then fit an int again).
std::string formatCoordinate(int32_t millionths) {
  const int64_t magnitude = millionths < 0 ? -static_cast<int64_t>(millionths) : millionths;
  char digits[24];
  std::snprintf(digits, sizeof(digits), "%d.%05d", static_cast<int>(magnitude / 1000000),
                static_cast<int>((magnitude % 1000000) / 10));
  return std::string(millionths < 0 ? "-" : "") + digits;
}

}  // namespace

std::string externalServiceHandling::composeTtsText(eECallTtsPrompt prompt) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  if (prompt < TTS_PROMPT_NONE || prompt >= TTS_PROMPT_COUNT) return std::string();
  int language = mTtsLanguage;
  if (language < 0 || language >= TTS_LANGUAGE_COUNT) language = 0;
  int brandIndex = mVehicleBrandIndex;
  if (brandIndex < 0 || brandIndex >= VEHICLE_BRAND_COUNT) brandIndex = VEHICLE_BRAND_NONE;
  const char* brand = strVehicleBrands[brandIndex];

  std::string text = strECallTtsPrompts[language * TTS_PROMPT_COUNT + prompt];
  switch (prompt) {
    case TTS_PROMPT_ECALL_PSAP1:
    case TTS_PROMPT_ACN_PSAP1:
    case TTS_PROMPT_TEST_PSAP1:
      text += brand;
      text += " vehicle: At any time press '1' for location information. ";
      text += "Press '0' to speak with the vehicle occupants.";
      break;
    case TTS_PROMPT_ECALL_PSAP2:
    case TTS_PROMPT_ACN_PSAP2:
    case TTS_PROMPT_TEST_PSAP2:
      text += brand;
      text += " vehicle: " + getGPSResponseString();
      text += "At any time press '1' for location information. ";
      text += "Press '0' to speak with the vehicle occupants.";
      break;
    case TTS_PROMPT_GPS_COORDINATES:
      text += getGPSResponseString();
      break;
    default:
      break;
  }
  return text;
}

void externalServiceHandling::playTtsMsg(eECallTtsPrompt prompt) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  if (!isPromptSpoken(prompt)) return;

  mProcessor.addFormattedEntryToEmergencyLog("TTS rqst %d\n", prompt);
  const std::string text = composeTtsText(prompt);
  if (prompt == TTS_PROMPT_GPS_COORDINATES && text.size() < kGpsOnlyLogLimit) {
    mProcessor.addFormattedEntryToEmergencyLog("GPS only TTS: %s\n", text.c_str());
  }

  // One readout of this service at a time: the previous one gives way.
  abortCurrentTtsMsg();
  mCurrentTtsPrompt = prompt;
  const char* readoutType = isOccupantPrompt(prompt) ? "PMSG" : "ECALL";
  mReadoutType.set(readoutType);

  Json::Value request(Json::objectValue);
  request["readoutType"] = readoutType;
  request["dataIsFile"] = false;
  request["respondWithHandle"] = true;
  request["data"] = text;
  SVCIPC_tError rc = extServ::invokeAsync(extServ::ttsService, "ttsReadout", jsonWrite(request), "ttsReadout");
  if (rc < 0) {
    scope.sendFormattedError("Failed to request TTS message %d, error rc %d\n", prompt, rc);
    sendtoSlog(_SLOG_WARNING, "Failed to request TTS message %d, error rc %d\n", prompt, rc);
  }
}

void externalServiceHandling::abortCurrentTtsMsg() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  const std::string readoutType = mReadoutType.get();
  if (readoutType == "none") return;

  // The readout stays marked as playing until the speech service reports its
  // end (playTtsMsgHasCompleted) or the next prompt replaces it.
  Json::Value request(Json::objectValue);
  request["readoutType"] = readoutType;
  SVCIPC_tError rc = extServ::invokeSync(extServ::ttsService, "ttsAbort", jsonWrite(request));
  if (rc < 0) {
    const int prompt = mCurrentTtsPrompt;
    scope.sendFormattedError("Unable to abort TTS message %d, error rc %d\n", prompt, rc);
    sendtoSlog(_SLOG_WARNING, "Unable to abort TTS message %d, error rc 0x%0X\n", prompt, rc);
  }
}

void externalServiceHandling::playTtsMsgHasCompleted() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  mReadoutType.set("none");
}

std::string externalServiceHandling::getGPSResponseString() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  std::string result = kLocationUnavailable;

  Json::Value query(Json::objectValue);
  query["inprop"].append("POS_Position");
  std::string reply;
  SVCIPC_tError rc = extServ::invokeSync(extServ::navigationService, "JSON_GetProperties", jsonWrite(query), &reply);
  if (rc < 0) {
    scope.sendFormattedError("Unable to get gps information, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Unable to gps information, rc 0x%0X\n", rc);
    // A hung navigation service: the last position it gave is better than
    // none (the car moves little in a second of an emergency).
    const std::string last = mLastPosition.get();
    if (extServ::reportTimedOut(rc, "position", last.empty() ? result : last) && !last.empty()) return last;
    return result;
  }

  Json::Value root;
  jsonParse(reply.c_str(), root);
  const Json::Value position = extServ::member(extServ::member(root, "outprop"), "POS_Position");
  const Json::Value latitude = extServ::member(position, "DR_latitude");
  const Json::Value longitude = extServ::member(position, "DR_longitude");
  // A latitude of exactly 0 means no fix; a longitude of 0 is a real place.
  if (latitude.isInt() && latitude.asInt() != 0 && longitude.isInt()) {
    const int32_t lat = latitude.asInt();
    const int32_t lon = longitude.asInt();
    scope.sendFormattedMessage("GPS info from NDR service - lat: %d - lon: %d\n", lat, lon);
    result = "Latitude... " + formatCoordinate(lat) + ". " + "Longitude... " + formatCoordinate(lon) + ". ";
    mLastPosition.set(result);
  }
  scope.sendFormattedMessage("GPS response %s\n", result.c_str());
  return result;
}
