#include "externalServiceHandling/externalServiceHandling.h"

const char* const strECallTtsPrompts[TTS_LANGUAGE_COUNT * TTS_PROMPT_COUNT] = {};
const char* const strTtsLanguage[TTS_LANGUAGE_COUNT] = {"English", "French", "Spanish"};
const char* const strVehicleBrands[VEHICLE_BRAND_COUNT] = {};

void externalServiceHandling::playTtsMsg(eECallTtsPrompt) {}
void externalServiceHandling::abortCurrentTtsMsg() {}
void externalServiceHandling::playTtsMsgHasCompleted() {}
std::string externalServiceHandling::getGPSResponseString() { return ""; }
std::string externalServiceHandling::composeTtsText(eECallTtsPrompt) { return ""; }
