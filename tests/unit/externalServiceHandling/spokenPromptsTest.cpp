// Spoken prompts: what is spoken, in which language, with which position,
// and how readouts replace and abort each other.
#include <climits>

#include "common/jsonText.h"
#include "extServFixture.h"

using namespace extServTest;

namespace {

void setPosition(const std::string& latitude, const std::string& longitude) {
  fakeBus::setReply(kNdr, "JSON_GetProperties",
                    answer("{\"outprop\":{\"POS_Position\":{\"DR_latitude\":" + latitude + ",\"DR_longitude\":" +
                           longitude + "}}}"));
}

// Plays prompt and returns the text sent for readout.
std::string spoken(eECallTtsPrompt prompt) {
  extServHandle.playTtsMsg(prompt);
  const auto readouts = fakeBus::requests(kTts, "ttsReadout");
  Json::Value body;
  if (readouts.empty() || !jsonParse(readouts.back().params.c_str(), body)) return "<nothing spoken>";
  return body["data"].asString();
}

const std::string kUnavailable = "Vehicle location currently not available.";
const std::string kKeys = "At any time press '1' for location information. Press '0' to speak with the vehicle occupants.";

}  // namespace

TEST_F(ExtServTest, ReadoutRequestsAndReadoutState) {
  extServHandle.mReadoutType.set("PMSG");  // codes outside 1-12 do not even abort it
  extServHandle.playTtsMsg(TTS_PROMPT_NONE);
  extServHandle.playTtsMsg(TTS_PROMPT_COUNT);
  EXPECT_TRUE(requested().empty());
  EXPECT_EQ(0u, logCount("TTS rqst 0") + logCount("TTS rqst 13"));
  extServHandle.playTtsMsgHasCompleted();

  extServHandle.playTtsMsg(TTS_PROMPT_INCOMING);
  extServHandle.playTtsMsg(TTS_PROMPT_ACN_PSAP1);  // aborts the one still marked as playing
  extServHandle.abortCurrentTtsMsg();
  extServHandle.abortCurrentTtsMsg();  // an abort leaves the state, so it is sent again
  const auto calls = requested();
  ASSERT_EQ(5u, calls.size());
  EXPECT_EQ("ttsReadout {\"data\":\"Incoming call.\",\"dataIsFile\":false,\"readoutType\":\"PMSG\",\"respondWithHandle\":true}\n",
            calls[0]);
  EXPECT_EQ("ttsAbort {\"readoutType\":\"PMSG\"}\n", calls[1]);
  EXPECT_EQ(0u, calls[2].rfind("ttsReadout ", 0));
  EXPECT_EQ("ttsAbort {\"readoutType\":\"ECALL\"}\n", calls[3]);
  EXPECT_EQ(calls[3], calls[4]);
  EXPECT_EQ("ttsReadout", fakeBus::requests(kTts, "ttsReadout").at(0).context);
  EXPECT_EQ(1u, logCount("TTS rqst 2"));

  extServHandle.playTtsMsgHasCompleted();
  fakeBus::clearCalls();
  extServHandle.abortCurrentTtsMsg();
  EXPECT_TRUE(requested().empty());
}

// No brand received yet: the empty row leaves two blanks.
TEST_F(ExtServTest, AnnouncementWithoutBrand) {
  EXPECT_EQ("Emergency call from a  vehicle: " + kKeys, spoken(TTS_PROMPT_ECALL_PSAP1));
}

TEST_F(ExtServTest, PositionSentence) {
  struct Case {
    std::string latitude, longitude, expected;
  };
  const std::vector<Case> cases = {
      {"0", "-98765432", kUnavailable},  // no fix
      {"12.5", "-98765432", kUnavailable},
      {"\"12345678\"", "-98765432", kUnavailable},
      {"12345678", "null", kUnavailable},
      {"12345678", "0", "Latitude... 12.34567. Longitude... 0.00000. "},
      {"5", "-1000000", "Latitude... 0.00000. Longitude... -1.00000. "},
      {"-98765432", "98765439", "Latitude... -98.76543. Longitude... 98.76543. "},
      {std::to_string(INT_MIN), std::to_string(INT_MAX), "Latitude... -2147.48364. Longitude... 2147.48364. "},
  };
  for (const auto& c : cases) {
    setPosition(c.latitude, c.longitude);
    EXPECT_EQ(c.expected, extServHandle.getGPSResponseString()) << c.latitude << " " << c.longitude;
  }
  for (const char* reply : {"not json", "[1]", "{\"outprop\":{\"POS_Position\":\"x\"}}"}) {
    fakeBus::setReply(kNdr, "JSON_GetProperties", answer(reply));
    EXPECT_EQ(kUnavailable, extServHandle.getGPSResponseString()) << reply;
  }
  EXPECT_EQ("{\"inprop\":[\"POS_Position\"]}\n", fakeBus::requests(kNdr, "JSON_GetProperties").at(0).params);
}
