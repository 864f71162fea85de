// The JSON text form of the bus payloads, and what a peer may send.
#include <gtest/gtest.h>

#include <string>

#include "ecallMain/jsonText.h"

namespace {

TEST(jsonTextTest, WrittenFormIsOneLineWithMembersInByteOrder) {
  Json::Value value(Json::objectValue);
  value["b"].append(true);
  value["b"].append(Json::Value());
  value["a"] = "x y";
  value["B"] = 1;
  EXPECT_EQ(jsonWrite(value), "{\"B\":1,\"a\":\"x y\",\"b\":[true,null]}\n");
}

TEST(jsonTextTest, ParsingSurvivesWhateverAPeerSends) {
  Json::Value value(7);
  EXPECT_FALSE(jsonParse(nullptr, value));
  EXPECT_TRUE(value.isNull());
  value = 7;
  EXPECT_FALSE(jsonParse("{\"state\":", value));
  EXPECT_TRUE(value.isNull());
  EXPECT_FALSE(jsonParse(std::string(100000, '[').c_str(), value));  // no stack exhaustion
  EXPECT_TRUE(jsonParse("{\"state\":1}", value));
  EXPECT_EQ(value["state"].asInt(), 1);
}

TEST(jsonTextTest, MembersFallBackToTheirDefaultsInsteadOfThrowing) {
  Json::Value object;
  ASSERT_TRUE(jsonParse("{\"n\":1.0,\"big\":1e20,\"text\":\"abc\",\"list\":[1],\"num\":5}", object));
  EXPECT_EQ(jsonGetInt(object, "n", -1), 1);
  EXPECT_EQ(jsonGetInt(object, "big", -1), -1);
  EXPECT_EQ(jsonGetInt(object, "text", -1), -1);
  EXPECT_EQ(jsonGetInt(object, "missing", -1), -1);
  EXPECT_EQ(jsonGetString(object, "list", "d"), "d");
  EXPECT_EQ(jsonGetString(object, "num", "d"), "5");
  EXPECT_EQ(jsonGetInt(Json::Value("not an object"), "n", -1), -1);
  Json::Value array(Json::arrayValue);
  array.append(1);
  EXPECT_EQ(jsonGetString(array, "n", ""), "");
}

}  // namespace
