// Spoken prompts: what is spoken, in which language, with which position,
// and how readouts replace and abort each other.
#include <climits>

#include "ecallMain/jsonText.h"
#include "extServFixture.h"

using namespace extServTest;

namespace {

class SpokenPromptsTest : public ExtServTest {
 protected:
  // The navigation service's answer for a position.
  static void setPosition(const std::string& latitude, const std::string& longitude) {
    fakeBus::setReply(kNdr, "JSON_GetProperties",
                      answer("{\"outprop\":{\"POS_Position\":{\"DR_latitude\":" + latitude +
                             ",\"DR_longitude\":" + longitude + "}}}"));
  }
  // The text of the last readout request.
  static std::string lastSpokenText() {
    const auto readouts = fakeBus::requests(kTts, "ttsReadout");
    if (readouts.empty()) return "<nothing spoken>";
    Json::Value body;
    jsonParse(readouts.back().params.c_str(), body);
    return body["data"].asString();
  }
  static std::string spoken(eECallTtsPrompt prompt) {
    extServHandle.playTtsMsg(prompt);
    return lastSpokenText();
  }
};

const char* const kUnavailable = "Vehicle location currently not available.";

TEST_F(SpokenPromptsTest, CodesOutsideOneToTwelveDoNothingAtAll) {
  extServHandle.mReadoutType.set("PMSG");  // a readout still playing is not aborted either
  extServHandle.playTtsMsg(TTS_PROMPT_NONE);
  extServHandle.playTtsMsg(TTS_PROMPT_COUNT);
  extServHandle.playTtsMsg(static_cast<eECallTtsPrompt>(-1));

  EXPECT_TRUE(requestedMethods().empty());
  EXPECT_EQ("PMSG", extServHandle.mReadoutType.get());
  EXPECT_EQ(std::string::npos, emergencyLog().find("TTS rqst"));
}

TEST_F(SpokenPromptsTest, ReadoutRequestAndReadoutState) {
  extServHandle.playTtsMsg(TTS_PROMPT_INCOMING);
  auto readouts = fakeBus::requests(kTts, "ttsReadout");
  ASSERT_EQ(1u, readouts.size());
  EXPECT_EQ(fakeBus::Call::AsyncInvoke, readouts[0].kind);
  EXPECT_EQ("/com/nordak/service/TextToSpeechService", readouts[0].objPath);
  EXPECT_EQ("ttsReadout", readouts[0].context);
  EXPECT_EQ(0, readouts[0].noReplyExpected);
  EXPECT_EQ("{\"data\":\"Incoming call.\",\"dataIsFile\":false,\"readoutType\":\"PMSG\",\"respondWithHandle\":true}\n",
            readouts[0].params);
  EXPECT_TRUE(fakeBus::requests(kTts, "ttsAbort").empty());  // nothing was playing
  EXPECT_EQ("PMSG", extServHandle.mReadoutType.get());
  EXPECT_EQ(TTS_PROMPT_INCOMING, extServHandle.mCurrentTtsPrompt.load());
  EXPECT_NE(std::string::npos, emergencyLog().find("TTS rqst 2\n"));

  // The next prompt first aborts the one still marked as playing.
  fakeBus::clearCalls();
  extServHandle.playTtsMsg(TTS_PROMPT_ACN_PSAP1);
  EXPECT_EQ((std::vector<std::string>{"ttsAbort", "ttsReadout"}), requestedMethods());
  EXPECT_EQ("{\"readoutType\":\"PMSG\"}\n", fakeBus::requests(kTts, "ttsAbort").at(0).params);
  EXPECT_EQ("ECALL", extServHandle.mReadoutType.get());

  // An abort leaves the state as it is, so a second abort is sent again.
  fakeBus::clearCalls();
  extServHandle.abortCurrentTtsMsg();
  extServHandle.abortCurrentTtsMsg();
  const auto aborts = fakeBus::requests(kTts, "ttsAbort");
  ASSERT_EQ(2u, aborts.size());
  EXPECT_EQ(fakeBus::Call::Invoke, aborts[1].kind);
  EXPECT_EQ("{\"readoutType\":\"ECALL\"}\n", aborts[1].params);
  EXPECT_EQ("ECALL", extServHandle.mReadoutType.get());

  // Once the speech service reports the end, there is nothing to abort.
  extServHandle.playTtsMsgHasCompleted();
  fakeBus::clearCalls();
  extServHandle.abortCurrentTtsMsg();
  EXPECT_TRUE(requestedMethods().empty());
  EXPECT_EQ(TTS_PROMPT_ACN_PSAP1, extServHandle.mCurrentTtsPrompt.load());
}

TEST_F(SpokenPromptsTest, FailuresAreReportedAndTheStateFollowsTheRequest) {
  fakeBus::setReply(kTts, "ttsReadout", failure());
  fakeBus::setReply(kTts, "ttsAbort", failure());
  extServHandle.playTtsMsg(TTS_PROMPT_ENDED);
  EXPECT_EQ("PMSG", extServHandle.mReadoutType.get());
  EXPECT_TRUE(log.hasSlog("Failed to request TTS message 3, error rc"));

  extServHandle.abortCurrentTtsMsg();
  EXPECT_TRUE(log.hasTrace("Unable to abort TTS message 3, error rc " + std::to_string(kFailed)));
  char hex[16];
  std::snprintf(hex, sizeof(hex), "0x%0X", static_cast<unsigned>(kFailed));
  EXPECT_TRUE(log.hasSlog(std::string("Unable to abort TTS message 3, error rc ") + hex));
}

TEST_F(SpokenPromptsTest, OperatorAnnouncementsNameBrandAndPosition) {
  // No brand received yet: the empty row leaves two blanks.
  EXPECT_EQ("Emergency call from a  vehicle: At any time press '1' for location information. Press '0' to speak "
            "with the vehicle occupants.",
            spoken(TTS_PROMPT_ECALL_PSAP1));

  extServHandle.mVehicleBrandIndex = 1;
  setPosition("12345678", "-98765432");
  EXPECT_EQ("A crash has occurred in a Corvane vehicle: Latitude... 12.34567. Longitude... -98.76543. At any time "
            "press '1' for location information. Press '0' to speak with the vehicle occupants.",
            spoken(TTS_PROMPT_ACN_PSAP2));
  EXPECT_EQ("Latitude... 12.34567. Longitude... -98.76543. ", spoken(TTS_PROMPT_GPS_COORDINATES));
  EXPECT_NE(std::string::npos,
            emergencyLog().find("GPS only TTS: Latitude... 12.34567. Longitude... -98.76543. \n"));

  // Without a position the sentence runs straight on, as the operator hears it.
  fakeBus::setReply(kNdr, "JSON_GetProperties", failure());
  EXPECT_EQ("Emergency call from a Corvane vehicle: Vehicle location currently not available.At any time press '1' "
            "for location information. Press '0' to speak with the vehicle occupants.",
            spoken(TTS_PROMPT_ECALL_PSAP2));
  EXPECT_TRUE(log.hasSlog("Unable to gps information, rc 0x"));
  EXPECT_TRUE(log.hasTrace("Unable to get gps information, rc "));
}

TEST_F(SpokenPromptsTest, OccupantsHearTheirLanguageTheOperatorEnglish) {
  extServHandle.mTtsLanguage = 1;
  EXPECT_EQ("Appel entrant", spoken(TTS_PROMPT_INCOMING));
  extServHandle.mVehicleBrandIndex = 7;
  setPosition("45500000", "-73566667");
  EXPECT_EQ("Emergency call from a Roadmast vehicle: Latitude... 45.50000. Longitude... -73.56666. At any time "
            "press '1' for location information. Press '0' to speak with the vehicle occupants.",
            spoken(TTS_PROMPT_ECALL_PSAP2));

  extServHandle.mTtsLanguage = 2;
  EXPECT_EQ("Llamando al 9-1-1.", spoken(TTS_PROMPT_DIALING));
  EXPECT_EQ("La llamada al 9-1-1 fallo. El vehiculo no tiene senal. El sistema seguira intentando. Para cancelar, "
            "presione el boton 9-1-1 en el espejo.",
            spoken(TTS_PROMPT_RETRY_WITH_CANCEL));
}

TEST_F(SpokenPromptsTest, PositionSentence) {
  struct Case {
    std::string latitude, longitude, expected;
  };
  const std::string intMin = std::to_string(INT_MIN);
  const std::vector<Case> cases = {
      {"0", "-98765432", kUnavailable},          // no fix
      {"12.5", "-98765432", kUnavailable},       // not an integer
      {"\"12345678\"", "-98765432", kUnavailable},
      {"null", "-98765432", kUnavailable},
      {"12345678", "null", kUnavailable},
      {"12345678", "\"-98765432\"", kUnavailable},
      {"12345678", "0", "Latitude... 12.34567. Longitude... 0.00000. "},
      {"5", "-5", "Latitude... 0.00000. Longitude... -0.00000. "},
      {"-1000000", "1000009", "Latitude... -1.00000. Longitude... 1.00000. "},
      {"-98765432", "98765439", "Latitude... -98.76543. Longitude... 98.76543. "},
      {intMin, "2147483647", "Latitude... -2147.48364. Longitude... 2147.48364. "},
  };
  for (const auto& c : cases) {
    setPosition(c.latitude, c.longitude);
    EXPECT_EQ(c.expected, extServHandle.getGPSResponseString()) << c.latitude << " " << c.longitude;
  }

  // Answers of the wrong shape read like no position, without harm.
  for (const char* reply : {"not json", "[1,2]", "{\"outprop\":[1]}", "{\"outprop\":{\"POS_Position\":\"x\"}}", ""}) {
    fakeBus::setReply(kNdr, "JSON_GetProperties", answer(reply));
    EXPECT_EQ(kUnavailable, extServHandle.getGPSResponseString()) << reply;
  }
  const auto queries = fakeBus::requests(kNdr, "JSON_GetProperties");
  ASSERT_FALSE(queries.empty());
  EXPECT_EQ("/com/nordak/service/NDR", queries[0].objPath);
  EXPECT_EQ("{\"inprop\":[\"POS_Position\"]}\n", queries[0].params);
}

}  // namespace
