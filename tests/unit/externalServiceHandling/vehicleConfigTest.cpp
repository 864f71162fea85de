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

// A brand is 1 to 12, as a number or as text; a language is told by a part
// of its code. Anything else keeps the last good one (a brand out of range
// and French and German are heard end to end).
TEST_F(ExtServTest, BrandAndLanguageKeepTheLastGoodAnswer) {
  auto brand = [](const std::string& reply) {
    fakeBus::setReply(kVehicleConfig, "getProperties", answer(reply));
    extServHandle.getVehicleBrand();
    return extServHandle.mVehicleBrandIndex.load();
  };
  EXPECT_EQ(7, brand("{\"vehicleBrand\":\"7\"}"));
  EXPECT_EQ(12, brand("{\"vehicleBrand\":12}"));
  EXPECT_EQ(7, brand("{\"vehicleBrand\":7}"));
  for (const char* invalid : {"{\"vehicleBrand\":0}", "{\"vehicleBrand\":\"Vetta\"}"})
    EXPECT_EQ(7, brand(invalid)) << invalid;
  EXPECT_EQ(2u, logCount("Vehicle brand received invalid, using current brand Roadmast"));
  log.clear();
  EXPECT_EQ(7, brand("{\"other\":1}"));
  EXPECT_FALSE(log.hasTrace("brand"));

  auto language = [](const std::string& reply) {
    fakeBus::setReply(kVehicleStatus, "getProperties", answer(reply));
    extServHandle.getCurrentLanguage();
    return extServHandle.mTtsLanguage.load();
  };
  EXPECT_EQ(2, language("{\"language\":\"es_MX\"}"));
  EXPECT_EQ(2, language("{}"));
}
