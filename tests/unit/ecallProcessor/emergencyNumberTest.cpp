// The emergency number: every reply form of the phone, the fetch with its
// retries, and the callback number test.
#include <chrono>

#include "smFixture.h"

using namespace smTest;

namespace {

using EmergencyNumberTest = PhoneFixture;

TEST_F(EmergencyNumberTest, EveryReplyFormOfThePhone) {
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::NO_ECALL_NUMBER, true);
  const struct {
    const char* reply;
    int result;
    const char* numberAfter;
  } cases[] = {
      {R"({"code":0,"count":2,"numberList":["","911"]})", 1, "911"},
      {R"({"count":2,"numberList":["112","911"]})", 1, "112"},
      {R"({"count":3,"numberList":[null,7,"999"]})", 1, "999"},
      // The count is looked at before the list; an error keeps the number.
      {R"({"count":0,"numberList":["911"]})", -1, "999"},
      {R"({"code":5,"count":1,"numberList":["911"]})", -1, "999"},
      {"not json", -1, "999"},
      {R"({"count":1,"numberList":[]})", 0, "999"},
      {R"({"count":1,"numberList":[""]})", 0, "999"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.result, ecallHandler.parseEcallNumber(c.reply)) << c.reply;
    EXPECT_EQ(c.numberAfter, ecallHandler.getLocalEcallNumber()) << c.reply;
  }
  EXPECT_EQ(0u, ecallHandler.systemError.load());
  EXPECT_EQ(1u, log.countTrace("ecall number does not exist!  Please set it."));
}

TEST_F(EmergencyNumberTest, FetchGivesUpAfterTheThirdFailureWithPauses) {
  platform::setTimeScale(0.01);  // 5 ms pauses
  // The phone's replies in turn (rc < 0: a failed request).
  fakeBus::setReplies(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers",
                      {{kRefused, ""}, {SVCIPC_ERROR_NONE, R"({"code":3})"}, {kRefused, ""}, {SVCIPC_ERROR_NONE, "{}"}});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(ecallHandler.readECallNumber());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
  auto requests = fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers");
  ASSERT_EQ(3u, requests.size());
  EXPECT_EQ("{\"maxCount\":10}\n", requests[0].params);
  EXPECT_TRUE(log.hasSlog("Failed to get ecall number -"));
}

TEST_F(EmergencyNumberTest, ReplyWithoutNumberIsAskedAgainWithoutCountingIt) {
  fakeBus::setReplies(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers",
                      {{kRefused, ""},
                       {SVCIPC_ERROR_NONE, R"({"count":1,"numberList":[]})"},
                       {SVCIPC_ERROR_NONE, R"({"count":1,"numberList":[""]})"},
                       {kRefused, ""},
                       {SVCIPC_ERROR_NONE, R"({"count":1})"},
                       {SVCIPC_ERROR_NONE, R"({"count":1,"numberList":["911"]})"}});
  EXPECT_TRUE(ecallHandler.readECallNumber());
  EXPECT_EQ(6u, requestCount("getEmergencyNumbers"));
  EXPECT_EQ("911", ecallHandler.getLocalEcallNumber());
}

TEST(PhoneNumberValidity, OnlyEmptyAndTheServiceNumberAreRefused) {
  EXPECT_FALSE(ecallProcessor::isPhoneNumberValid(nullptr));
  for (const char* number : {"", "#777"}) EXPECT_FALSE(ecallProcessor::isPhoneNumberValid(number)) << number;
  for (const char* number : {"#7771", "#77", "abc"}) EXPECT_TRUE(ecallProcessor::isPhoneNumberValid(number)) << number;
}

}  // namespace
