// What the external services make of their peers' answers.
#include <climits>

#include "unit/unitFixture.h"

namespace {

using ExternalServices = UnitFixture;

void setPosition(const std::string& latitude, const std::string& longitude) {
  fakeBus::setReply(NDR_SERVICE, "JSON_GetProperties",
                    answer("{\"outprop\":{\"POS_Position\":{\"DR_latitude\":" + latitude + ",\"DR_longitude\":" +
                           longitude + "}}}"));
}

const std::string kUnavailable = "Vehicle location currently not available.";
const std::string kKeys = "At any time press '1' for location information. Press '0' to speak with the vehicle occupants.";

// The occupants hear their language; the operator hears English with the brand (the
// empty row leaves two blanks) and, in the second announcement, the position as
// degrees with five decimals, the sixth cut; no fix (0) or anything but two integers is
// no position. A language or brand out of range is taken as none.
TEST_F(ExternalServices, PromptTextPerLanguageAndBrandAndPositionSentence) {
  setPosition("12345678", "0");
  const std::tuple<int, int, eECallTtsPrompt, std::string> cases[] = {  // language, brand, prompt, text
      {0, VEHICLE_BRAND_NONE, TTS_PROMPT_ECALL_PSAP1, "Emergency call from a  vehicle: " + kKeys},
      {1, 7, TTS_PROMPT_ACN_PSAP1, "A crash has occurred in a Roadmast vehicle: " + kKeys},
      {2, 2, TTS_PROMPT_ECALL_PSAP2,
       "Emergency call from a Bastek vehicle: Latitude... 12.34567. Longitude... 0.00000. " + kKeys},
      {2, 1, TTS_PROMPT_INCOMING, "Llamada entrante"},
      {1, 1, TTS_PROMPT_DIALING, "Appel du 9-1-1."},
      {5, 99, TTS_PROMPT_DIALING, "Calling 9-1-1"},
      {-1, -1, TTS_PROMPT_ACN_PSAP1, "A crash has occurred in a  vehicle: " + kKeys},
      {0, 1, TTS_PROMPT_COUNT, ""},
  };
  for (const auto& [language, brand, prompt, text] : cases) {
    processProbe::mTtsLanguage() = language;
    processProbe::mVehicleBrandIndex() = brand;
    EXPECT_EQ(text, extServHandle.composeTtsText(prompt)) << language << " " << brand << " " << prompt;
  }

  const std::tuple<std::string, std::string, std::string> positions[] = {  // latitude, longitude, sentence
      {"0", "-98765432", kUnavailable},              {"12.5", "-98765432", kUnavailable},
      {"\"12345678\"", "-98765432", kUnavailable}, {"12345678", "null", kUnavailable},
      {"12345678", "0", "Latitude... 12.34567. Longitude... 0.00000. "},
      {"5", "-1000000", "Latitude... 0.00000. Longitude... -1.00000. "},
      {"-98765432", "98765439", "Latitude... -98.76543. Longitude... 98.76543. "},
      {std::to_string(INT_MIN), std::to_string(INT_MAX), "Latitude... -2147.48364. Longitude... 2147.48364. "},
  };
  for (const auto& [latitude, longitude, expected] : positions) {
    setPosition(latitude, longitude);
    EXPECT_EQ(expected, extServHandle.getGPSResponseString()) << latitude << " " << longitude;
  }
  for (const char* reply : {"not json", "[1]", "{\"outprop\":{\"POS_Position\":\"x\"}}"}) {
    fakeBus::setReply(NDR_SERVICE, "JSON_GetProperties", answer(reply));
    EXPECT_EQ(kUnavailable, extServHandle.getGPSResponseString()) << reply;
  }
  EXPECT_EQ("{\"inprop\":[\"POS_Position\"]}\n", fakeBus::requests(NDR_SERVICE, "JSON_GetProperties").at(0).params);
}

// Only an exact "NO" disables; a reply without the member or refused is asked five times,
// and then the phone is taken as fitted.
TEST_F(ExternalServices, VariantOnlyAnExactNoDisables) {
  const std::tuple<fakeBus::Reply, bool, size_t> cases[] = {  // reply, enabled, queries
      {answer(R"({"VARIANT_ECELL":"no"})"), true, 1}, {answer(R"({"VARIANT_ECELL":"YES"})"), true, 1},
      {answer(R"({"VARIANT_ECELL":""})"), true, 1},   {answer(R"({"VARIANT_ECELL":"NO"})"), false, 1},
      {answer(R"({"OTHER":"NO"})"), true, 5},         {refused(), true, 5}};
  for (const auto& [reply, enabled, queries] : cases) {
    processProbe::mVariantInfoKnown() = false;
    fakeBus::reset();
    fakeBus::setReply(PLATFORM_SERVICE, "get_variantinfo", reply);
    EXPECT_EQ(enabled, extServHandle.getEmebeddedPhoneEnabledInVariant()) << reply.result;
    EXPECT_EQ(queries, requestCount(PLATFORM_SERVICE, "get_variantinfo")) << reply.result;
  }
  EXPECT_EQ(1u, log.countTrace("ERROR Obtaining VARIANT_ECELL!!!!  5 attempts"));
  fakeBus::setReply(PLATFORM_SERVICE, "get_variantinfo", answer(R"({"VARIANT_ECELL":"NO"})"));
  EXPECT_TRUE(extServHandle.getEmebeddedPhoneEnabledInVariant()) << "the answer is kept";
}

// A brand is 1 to 12, as a number or text; a language is told by a part of its code.
// Anything else keeps the last good one.
TEST_F(ExternalServices, BrandAndLanguageKeepTheLastGoodAnswer) {
  const std::pair<const char*, int> brands[] = {
      {R"({"vehicleBrand":"7"})", 7}, {R"({"vehicleBrand":12})", 12}, {R"({"vehicleBrand":7})", 7},
      {R"({"vehicleBrand":0})", 7},   {R"({"vehicleBrand":"Vetta"})", 7}, {R"({"other":1})", 7}};
  for (const auto& [reply, brand] : brands) {
    fakeBus::setReply(VEHICLE_CONFIG_SERVICE, "getProperties", answer(reply));
    extServHandle.getVehicleBrand();
    EXPECT_EQ(brand, processProbe::mVehicleBrandIndex().load()) << reply;
  }
  EXPECT_EQ(2u, logCount("Vehicle brand received invalid, using current brand Roadmast"));

  const std::pair<const char*, int> languages[] = {
      {R"({"language":"es_MX"})", 2}, {R"({"language":"xfr_CA"})", 1}, {R"({"language":"de_DE"})", 1},
      {"{}", 1}, {R"({"language":"en_GB"})", 0}};
  for (const auto& [reply, language] : languages) {
    fakeBus::setReply(VEHICLE_STATUS_SERVICE, "getProperties", answer(reply));
    extServHandle.getCurrentLanguage();
    EXPECT_EQ(language, processProbe::mTtsLanguage().load()) << reply;
  }
}

// No scenario or one of the embedded phone's own is left running, any other is stopped; the
// mute requests carry the mixer's id, a microphone that cannot be muted leaves the second alone.
TEST_F(ExternalServices, OnlyAForeignHandsFreeScenarioIsStoppedAndMuteUsesTheRegisteredId) {
  for (const char* own : {"Embedded_255_1", "XEmbeddedY", ""}) {
    fakeBus::setReply(PSSE_SERVICE, "getSHF_Scenario", answer(std::string("{\"scenario\":\"") + own + "\"}"));
    extServHandle.stopAnyNonEmbeddedPsseSource();
  }
  EXPECT_EQ(0u, requestCount(PSSE_SERVICE, "setSHF_Scenario"));
  fakeBus::setReply(PSSE_SERVICE, "getSHF_Scenario", answer("{\"scenario\":\"BT_HFP\"}"));
  extServHandle.stopAnyNonEmbeddedPsseSource();
  const auto stops = fakeBus::requests(PSSE_SERVICE, "setSHF_Scenario");
  ASSERT_EQ(1u, stops.size());
  EXPECT_EQ("{\"mode\":\"STOP\",\"scenario\":\"BT_HFP\"}\n", stops[0].params);

  fakeBus::setReply(AUDIO_MIXER_SERVICE, "registerMuteClient", answer("{\"id\":42}"));
  extServHandle.registerMuteClient();
  fakeBus::setReply(AUDIO_CTRL_SERVICE, "setMux", refused());
  extServHandle.setMicInputMuteState(true);
  EXPECT_EQ("{\"id\":42,\"input\":\"PHONE\",\"mute\":true}\n", fakeBus::requests(AUDIO_MIXER_SERVICE, "setMixerMute").at(0).params);
  const auto mux = fakeBus::requests(AUDIO_CTRL_SERVICE, "setMux");
  ASSERT_EQ(1u, mux.size());
  EXPECT_EQ("{\"gain\":0,\"input\":\"OFF\",\"name\":\"mic1_mux1\"}\n", mux[0].params);
  EXPECT_TRUE(log.hasSlog("Unable to mute mic1 input, rc 0x"));
}

}  // namespace
