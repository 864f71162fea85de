// Vehicle configuration: the variant answer and its retries and cache, the
// brand and language for the prompts, the software version for the record.
#include <atomic>
#include <thread>

#include "extServFixture.h"

using namespace extServTest;

namespace {

class VehicleConfigTest : public ExtServTest {
 protected:
  static void forgetVariant() {
    extServHandle.mVariantInfoKnown = false;
    extServHandle.mEmbeddedPhoneEnabled = true;
    fakeBus::clearCalls();
  }
  static size_t variantQueries() { return fakeBus::requests(kPlatform, "get_variantinfo").size(); }
};

TEST_F(VehicleConfigTest, OnlyAnExactNoDisablesThePhone) {
  struct Case {
    const char* reply;
    bool enabled;
  };
  for (const Case& c : {Case{"{\"VARIANT_ECELL\":\"NO\"}", false}, Case{"{\"VARIANT_ECELL\":\"no\"}", true},
                        Case{"{\"VARIANT_ECELL\":\"YES\"}", true}, Case{"{\"VARIANT_ECELL\":\"\"}", true}}) {
    forgetVariant();
    fakeBus::setReply(kPlatform, "get_variantinfo", answer(c.reply));
    EXPECT_EQ(c.enabled, extServHandle.getEmebeddedPhoneEnabledInVariant()) << c.reply;
    EXPECT_EQ(1u, variantQueries()) << c.reply;
  }
  const auto query = fakeBus::requests(kPlatform, "get_variantinfo").at(0);
  EXPECT_EQ("/com/nordak/service/platform", query.objPath);
  EXPECT_EQ("", query.params);

  // Known once, never asked again, whatever the platform says later.
  forgetVariant();
  fakeBus::setReply(kPlatform, "get_variantinfo", answer("{\"VARIANT_ECELL\":\"NO\"}"));
  EXPECT_FALSE(extServHandle.getEmebeddedPhoneEnabledInVariant());
  fakeBus::setReply(kPlatform, "get_variantinfo", answer("{\"VARIANT_ECELL\":\"YES\"}"));
  EXPECT_FALSE(extServHandle.getEmebeddedPhoneEnabledInVariant());
  EXPECT_EQ(1u, variantQueries());
}

TEST_F(VehicleConfigTest, AMissingMemberIsAskedForFiveTimesThenEnables) {
  fakeBus::setReply(kPlatform, "get_variantinfo", answer("{\"OTHER\":\"x\"}"));
  EXPECT_TRUE(extServHandle.getEmebeddedPhoneEnabledInVariant());
  EXPECT_EQ(5u, variantQueries());
  EXPECT_TRUE(extServHandle.mVariantInfoKnown.load());
  EXPECT_EQ(4u, ownTraces("ECELL not in the varinat info response"));
  EXPECT_FALSE(log.hasTrace("ERROR Obtaining VARIANT_ECELL"));

  // An answer that comes on a later attempt decides.
  forgetVariant();
  int answers = 0;
  fakeBus::setResponder(kPlatform, "get_variantinfo", [&](const std::string&) {
    return ++answers < 3 ? answer("{}") : answer("{\"VARIANT_ECELL\":\"NO\"}");
  });
  EXPECT_FALSE(extServHandle.getEmebeddedPhoneEnabledInVariant());
  EXPECT_EQ(3u, variantQueries());
}

TEST_F(VehicleConfigTest, FiveFailedQueriesDefaultToEnabled) {
  fakeBus::setReply(kPlatform, "get_variantinfo", failure());
  EXPECT_TRUE(extServHandle.getEmebeddedPhoneEnabledInVariant());
  EXPECT_EQ(5u, variantQueries());
  EXPECT_TRUE(log.hasTrace("ERROR Obtaining VARIANT_ECELL!!!!  5 attempts were made"));
  EXPECT_TRUE(log.hasTrace("Unable to get the CMC variant info, rc " + std::to_string(kFailed) +
                           ", attempts left 0"));
  EXPECT_TRUE(log.hasSlog("Unable to get the vehicle Brand, rc 0x"));
  EXPECT_TRUE(log.hasSlog(", attempt left 4"));

  fakeBus::clearCalls();
  EXPECT_TRUE(extServHandle.getEmebeddedPhoneEnabledInVariant());
  EXPECT_EQ(0u, variantQueries());
}

TEST_F(VehicleConfigTest, ConcurrentCallersAgree) {
  std::atomic<int> answers{0};
  fakeBus::setResponder(kPlatform, "get_variantinfo", [&](const std::string&) {
    return ++answers <= 4 ? answer("{}") : answer("{\"VARIANT_ECELL\":\"NO\"}");
  });
  std::atomic<int> enabledCount{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i)
    callers.emplace_back([&] {
      if (extServHandle.getEmebeddedPhoneEnabledInVariant()) ++enabledCount;
    });
  for (auto& t : callers) t.join();
  EXPECT_EQ(0, enabledCount.load());
}

TEST_F(VehicleConfigTest, BrandAsNumberOrTextWithinOneToTwelve) {
  auto brandReply = [](const std::string& reply) {
    fakeBus::setReply(kVehicleConfig, "getProperties", answer(reply));
    extServHandle.getVehicleBrand();
  };
  brandReply("{\"vehicleBrand\":\"7\"}");
  EXPECT_EQ(7, extServHandle.mVehicleBrandIndex.load());
  const auto query = fakeBus::requests(kVehicleConfig, "getProperties").at(0);
  EXPECT_EQ("/com/nordak/service/VehicleConfig", query.objPath);
  EXPECT_EQ("{\"props\":[\"vehicleBrand\"]}\n", query.params);

  brandReply("{\"vehicleBrand\":12}");
  EXPECT_EQ(12, extServHandle.mVehicleBrandIndex.load());
  brandReply("{\"vehicleBrand\":7}");
  EXPECT_EQ(7, extServHandle.mVehicleBrandIndex.load());
  EXPECT_EQ(2u, ownTraces("Venicle brand received, Roadmast"));

  for (const char* invalid : {"{\"vehicleBrand\":13}", "{\"vehicleBrand\":0}", "{\"vehicleBrand\":-1}",
                              "{\"vehicleBrand\":\"Corvane\"}", "{\"vehicleBrand\":true}", "{\"vehicleBrand\":[1]}"}) {
    brandReply(invalid);
    EXPECT_EQ(7, extServHandle.mVehicleBrandIndex.load()) << invalid;
  }
  EXPECT_EQ(6u, ownTraces("Vehicle brand received invalid, using current brand Roadmast"));

  // No member, or no answer: the brand stays and only a failure is told.
  log.clear();
  brandReply("{\"other\":1}");
  brandReply("not json");
  EXPECT_FALSE(log.hasTrace("brand"));
  fakeBus::setReply(kVehicleConfig, "getProperties", failure());
  extServHandle.getVehicleBrand();
  EXPECT_EQ(7, extServHandle.mVehicleBrandIndex.load());
  EXPECT_TRUE(log.hasSlog("Unable to get the vehicle Brand, rc 0x"));

  EXPECT_EQ(2u, logEntries("Vehicle brand Roadmast"));
  EXPECT_EQ(1u, logEntries("Vehicle brand Kestrun"));
  EXPECT_EQ(6u, logEntries("Vehicle brand received invalid, using current brand Roadmast"));
}

TEST_F(VehicleConfigTest, LanguageBySubstringOtherwiseKept) {
  auto languageReply = [](const std::string& reply) {
    fakeBus::setReply(kVehicleStatus, "getProperties", answer(reply));
    extServHandle.getCurrentLanguage();
  };
  languageReply("{\"language\":\"fr_CA\"}");
  EXPECT_EQ(1, extServHandle.mTtsLanguage.load());
  const auto query = fakeBus::requests(kVehicleStatus, "getProperties").at(0);
  EXPECT_EQ("/com/nordak/service/VehicleStatus", query.objPath);
  EXPECT_EQ("{\"props\":[\"language\"]}\n", query.params);

  languageReply("{\"language\":\"de_DE\"}");
  EXPECT_EQ(1, extServHandle.mTtsLanguage.load());
  EXPECT_EQ(2u, ownTraces("Speaker TTS language French"));

  languageReply("{\"language\":\"es_MX\"}");
  EXPECT_EQ(2, extServHandle.mTtsLanguage.load());
  languageReply("{\"language\":\"en_CA\"}");
  EXPECT_EQ(0, extServHandle.mTtsLanguage.load());

  languageReply("{\"other\":\"fr_CA\"}");
  fakeBus::setReply(kVehicleStatus, "getProperties", failure());
  extServHandle.getCurrentLanguage();
  EXPECT_EQ(0, extServHandle.mTtsLanguage.load());
  EXPECT_TRUE(log.hasSlog("Unable to get the language, rc 0x"));

  EXPECT_EQ(2u, logEntries("Speaker TTS language French"));
  EXPECT_EQ(1u, logEntries("Speaker TTS language Spanish"));
}

TEST_F(VehicleConfigTest, SoftwareVersionGoesToTheRecord) {
  fakeBus::setReply(kPlatform, "get_all_versions", answer("{\"app_version\":\"22.4.1\",\"other\":\"x\"}"));
  extServHandle.logSystemSWInfo();
  fakeBus::setReply(kPlatform, "get_all_versions", answer("{}"));
  extServHandle.logSystemSWInfo();
  fakeBus::setReply(kPlatform, "get_all_versions", failure());
  extServHandle.logSystemSWInfo();

  EXPECT_EQ("", fakeBus::requests(kPlatform, "get_all_versions").at(0).params);
  const std::string record = emergencyLog();
  EXPECT_NE(std::string::npos, record.find("System Software Version: 22.4.1\n"));
  EXPECT_NE(std::string::npos, record.find("System Software Version: NOT PRESENT\n"));
  EXPECT_TRUE(log.hasSlog("Unable to get system software version, rc 0x"));
}

}  // namespace
