// Vehicle configuration: the variant answer, its retries and cache, the
// brand and language for the prompts.
#include "extServFixture.h"

using namespace extServTest;

namespace {

const std::string kVehicleConfig = "com.nordak.service.VehicleConfig";
const std::string kVehicleStatus = "com.nordak.service.VehicleStatus";

// Asks for the variant afresh with the platform answering reply.
bool variantWith(const fakeBus::Reply& reply) {
  extServHandle.mVariantInfoKnown = false;
  extServHandle.mEmbeddedPhoneEnabled = true;
  fakeBus::clearCalls();
  fakeBus::setReply(kPlatform, "get_variantinfo", reply);
  return extServHandle.getEmebeddedPhoneEnabledInVariant();
}

size_t variantQueries() { return fakeBus::requests(kPlatform, "get_variantinfo").size(); }

}  // namespace

TEST_F(ExtServTest, VariantDecidedOnceAndOnlyAnExactNoDisables) {
  for (const char* enabling : {"no", "YES", ""}) {
    EXPECT_TRUE(variantWith(answer(std::string("{\"VARIANT_ECELL\":\"") + enabling + "\"}"))) << enabling;
    EXPECT_EQ(1u, variantQueries());
  }
  EXPECT_FALSE(variantWith(answer("{\"VARIANT_ECELL\":\"NO\"}")));
  fakeBus::setReply(kPlatform, "get_variantinfo", answer("{\"VARIANT_ECELL\":\"YES\"}"));
  EXPECT_FALSE(extServHandle.getEmebeddedPhoneEnabledInVariant());  // cached
  EXPECT_EQ(1u, variantQueries());

  // No member: asked five times, and the fifth answer enables.
  EXPECT_TRUE(variantWith(answer("{\"OTHER\":\"NO\"}")));
  EXPECT_EQ(5u, variantQueries());
  EXPECT_EQ(0u, log.countTrace("ERROR Obtaining VARIANT_ECELL"));

  EXPECT_TRUE(variantWith(failure()));
  EXPECT_EQ(5u, variantQueries());
  EXPECT_EQ(1u, log.countTrace("ERROR Obtaining VARIANT_ECELL!!!!  5 attempts"));
}

TEST_F(ExtServTest, BrandOneToTwelveAsNumberOrText) {
  auto brandReply = [](const std::string& reply) {
    fakeBus::setReply(kVehicleConfig, "getProperties", answer(reply));
    extServHandle.getVehicleBrand();
  };
  brandReply("{\"vehicleBrand\":\"7\"}");
  EXPECT_EQ(7, extServHandle.mVehicleBrandIndex.load());
  EXPECT_EQ("{\"props\":[\"vehicleBrand\"]}\n", fakeBus::requests(kVehicleConfig, "getProperties").at(0).params);
  brandReply("{\"vehicleBrand\":12}");
  brandReply("{\"vehicleBrand\":7}");
  EXPECT_EQ(7, extServHandle.mVehicleBrandIndex.load());
  EXPECT_EQ(2u, logEntries("Vehicle brand Roadmast"));

  for (const char* invalid : {"{\"vehicleBrand\":13}", "{\"vehicleBrand\":0}", "{\"vehicleBrand\":\"Vetta\"}"})
    brandReply(invalid);
  EXPECT_EQ(7, extServHandle.mVehicleBrandIndex.load());
  EXPECT_EQ(3u, logEntries("Vehicle brand received invalid, using current brand Roadmast"));

  log.clear();
  brandReply("{\"other\":1}");
  EXPECT_FALSE(log.hasTrace("brand"));
}

TEST_F(ExtServTest, LanguageBySubstringOtherwiseKept) {
  auto languageReply = [](const std::string& reply) {
    fakeBus::setReply(kVehicleStatus, "getProperties", answer(reply));
    extServHandle.getCurrentLanguage();
  };
  languageReply("{\"language\":\"fr_CA\"}");
  EXPECT_EQ(1, extServHandle.mTtsLanguage.load());
  EXPECT_EQ("{\"props\":[\"language\"]}\n", fakeBus::requests(kVehicleStatus, "getProperties").at(0).params);
  languageReply("{\"language\":\"de_DE\"}");
  EXPECT_EQ(1, extServHandle.mTtsLanguage.load());
  EXPECT_EQ(2u, logEntries("Speaker TTS language French"));
  languageReply("{\"language\":\"es_MX\"}");
  EXPECT_EQ(2, extServHandle.mTtsLanguage.load());
  languageReply("{}");
  EXPECT_EQ(2, extServHandle.mTtsLanguage.load());
}
