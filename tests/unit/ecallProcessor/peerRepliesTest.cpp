// What the processor reads from every form of its peers' replies and signals.
#include "unit/unitFixture.h"

using PeerReplies = UnitFixture;

TEST_F(PeerReplies, EmergencyNumberEveryReplyFormAndTheFetchsRetries) {
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::NO_ECALL_NUMBER, true);
  // The count is looked at before the list; an error keeps the number.
  const std::tuple<const char*, int, const char*> cases[] = {
      {R"({"code":0,"count":2,"numberList":["","911"]})", 1, "911"}, {R"({"count":2,"numberList":["112","911"]})", 1, "112"},
      {R"({"count":3,"numberList":[null,7,"999"]})", 1, "999"},      {R"({"count":0,"numberList":["911"]})", -1, "999"},
      {R"({"code":5,"count":1,"numberList":["911"]})", -1, "999"},   {"not json", -1, "999"},
      {R"({"count":1,"numberList":[]})", 0, "999"},                  {R"({"count":1,"numberList":[""]})", 0, "999"}};
  for (const auto& [reply, result, numberAfter] : cases) {
    EXPECT_EQ(result, ecallHandler.parseEcallNumber(reply)) << reply;
    EXPECT_EQ(numberAfter, ecallHandler.getLocalEcallNumber()) << reply;
  }
  EXPECT_EQ(0u, processProbe::systemError().load());
  EXPECT_EQ(1u, log.countTrace("ecall number does not exist!  Please set it."));

  // Three failures, with pauses, give up; a reply without a number is asked again uncounted.
  platform::setTimeScale(0.01);  // 5 ms pauses
  fakeBus::setReplies(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers", {refused(), answer(R"({"code":3})"), refused(), answer("{}")});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(ecallHandler.readECallNumber());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
  EXPECT_EQ(3u, requestCount(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers"));
  EXPECT_EQ("{\"maxCount\":10}\n", fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers")[0].params);
  fakeBus::setReplies(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers",
                      {refused(), answer(R"({"count":1,"numberList":[]})"), answer(R"({"count":1,"numberList":[""]})"),
                       refused(), answer(R"({"count":1})"), answer(R"({"count":1,"numberList":["911"]})")});
  EXPECT_TRUE(ecallHandler.readECallNumber());
  EXPECT_EQ(3u + 6u, requestCount(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers"));
  EXPECT_EQ("911", ecallHandler.getLocalEcallNumber());
}

TEST(PeerReplyTexts, UsbPortsAndPhoneNumbers) {
  const std::pair<const char*, const char*> ports[] = {
      {R"({"code":0,"ports":["usb0","usb1"]})", "usb0, usb1"}, {R"({"ports":["a",null,"b"]})", "a, , b"},
      {R"({"code":2,"ports":["usb0"]})", "Read Failure"},       {R"({"ports":[]})", ""},
      {"{}", ""}, {R"({"ports":"usb0"})", ""}, {R"(["usb0"])", ""}};
  for (const auto& [reply, text] : ports) EXPECT_EQ(text, ecallProcessor::parseSWIUSBPortsStr(reply)) << reply;

  EXPECT_FALSE(ecallProcessor::isPhoneNumberValid(nullptr));
  for (const char* number : {"", "#777"}) EXPECT_FALSE(ecallProcessor::isPhoneNumberValid(number)) << number;
  for (const char* number : {"#7771", "#77", "abc"}) EXPECT_TRUE(ecallProcessor::isPhoneNumberValid(number)) << number;
}

// Which entry of a report is the emergency call, when a ringing call is the centre
// calling back; every end reason of the list ends the call, given as a number only.
TEST_F(PeerReplies, CallStatesEndReasonsAndAntenna) {
  PulseProbe probe;
  auto report = [](const std::string& entries) { ecallHandler.processEmdPhCallState(("{\"callStateInfo\":" + entries + "}").c_str()); };
  for (const char* ignored : {R"([{"callState":"CALL_STATE_RINGING","number":"#777","callType":1}])",
                              R"([{"callState":"CALL_STATE_RINGING","number":"5551234","callType":3}])",
                              R"([{"callState":"CALL_STATE_RINGING","number":"5","callType":"1"}])", R"([1,"x",null])", "{}"})
    report(ignored);
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");
  report(R"([{"callState":"CALL_STATE_RINGING","number":"","callType":1}])");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_RINGING");
  report(R"([{"callState":"CALL_STATE_RINGING","callType":2}])");
  EXPECT_TRUE(log.hasTrace("ecallState CALL_STATE_RINGING, phonenumber isNULL"));
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE) << "an empty or absent number is no callback";

  processProbe::callConnected() = true;
  report(R"([{"callState":"CALL_STATE_TERMINATED","number":"555","callType":1}])");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");
  EXPECT_FALSE(ecallHandler.getCallConnected());
  EXPECT_TRUE(probe.nothingQueued()) << "an end without an emergency woke the state machine";

  report(R"([{"callState":"CALL_STATE_ACTIVE","number":"911","callType":1},)"  // the last emergency entry wins
         R"({"callState":"CALL_STATE_RINGING","number":"5551234","callType":2},)"
         R"({"callState":"CALL_STATE_DIALING","number":"#777","callType":1}])");
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_EMERGENCY_CALLBACK);
  EXPECT_EQ(probe.next(), ECALL_PULSE_EMERGENCY_INCOMING_CALL);

  for (const char* other : {R"({"serviceNumber":16})", R"({"serviceNumber":"17"})", "17"}) {
    ecallHandler.processWendReason(other);
    EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_RINGING") << other;
  }
  for (int reason : {3, 17, 68, 32768}) {
    processProbe::curCallState().set("CALL_STATE_ACTIVE");
    processProbe::callConnected() = processProbe::btCallActive() = true;
    ecallHandler.processWendReason(("{\"serviceNumber\":" + std::to_string(reason) + "}").c_str());
    EXPECT_EQ(probe.next(), ECALL_PULSE_PSAP_CALL_ENDED) << reason;
    EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE") << reason;
    EXPECT_FALSE(ecallHandler.getCallConnected() || processProbe::btCallActive()) << reason;
  }

  // A normal antenna status without a successful reading clears nothing.
  ecallHandler.processAntennaStatusSignal(R"({"description":"success","status":"PHONE_DIAG_ANTENNA_OPEN"})");
  ecallHandler.processAntennaStatusSignal(R"({"description":"failure","status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  ecallHandler.processAntennaStatusSignal(R"({"status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  EXPECT_EQ(probe.next(), ECALL_PULSE_ANTENNA_FAULT);
}

// The Assist identifier comes from the first configuration line holding the key.
TEST_F(PeerReplies, AssistIdentifierBluetoothCallStateAndDefaultVolumes) {
  const std::string defaultId = ecallMain::defaultAssistAppUUID;
  const std::pair<const char*, std::string> cases[] = {
      {"{\n\"name\":\"x\",\n\"uuidAssistApp\":\"ABC\",\"other\":\"y\"\n}\n", "ABC"},
      {"\"uuidAssistApp\":\"\",\n", ""},  // the quote and comma pass the length test
      {"\"uuidAssistApp\":\"A\n", defaultId},
      {"\"uuidAssistApp\" : \"XYZ\",\n\"uuidAssistApp\":\"LATER\",\n", defaultId},
      {"\"uuidAssistApp\":\"FIRST\",\n\"uuidAssistApp\":\"SECOND\",\n", "FIRST"},
      {nullptr, defaultId},  // no file
  };
  for (const auto& [content, expected] : cases) {
    if (content) testSupport::writeFile(root.path(appMngrConfigPath), content);
    else unlink(root.path(appMngrConfigPath).c_str());
    processProbe::assistAppUUID().set("stale");
    ecallHandler.getAssistAppUUID();
    EXPECT_EQ(expected, processProbe::assistAppUUID().get()) << (content ? content : "no file");
  }

  // Any Bluetooth call not exactly "idle" is active; another or unreadable signal leaves the flag.
  const std::tuple<const char*, const char*, bool, bool> bt[] = {  // signal, data, flag before, after
      {"callState", R"({"callStateInfo":[{"callState":"idle"},{"callState":"active"}]})", false, true},
      {"callState", R"({"callStateInfo":[{"callState":"Idle"}]})", false, true},
      {"callState", R"({"callStateInfo":[{"other":1},{"callState":""}]})", false, true},
      {"callState", R"({"callStateInfo":[{"callState":"idle"},{"x":"active"}]})", true, false},
      {"callState", R"({"callStateInfo":[]})", true, false},
      {"callStateChanged", R"({"callStateInfo":[]})", true, true},
      {"callState", "{not json", true, true},
      {"callState", nullptr, false, false},
  };
  for (const auto& [sigName, data, before, after] : bt) {
    processProbe::btCallActive() = before;
    ecallProcessor::onSubcribedBTSignal(sigName, data, &ecallHandler);
    EXPECT_EQ(after, processProbe::btCallActive().load()) << sigName << " " << (data ? data : "null");
  }

  // The phone volume from the mixer's answer, 15 when there is none; never the prompt volume.
  const std::pair<fakeBus::Reply, int> volumes[] = {
      {refused(), 15}, {answer("not json"), 15},
      {answer(R"({"volumeLevel":{"FRONT_L_SPKR":{"PHONE":22,"PROMPT":30}}})"), 22}, {answer(R"({"other":1})"), 0}};
  for (const auto& [reply, phone] : volumes) {
    fakeBus::setReply(AUDIO_MIXER_SERVICE, "getProperties", reply);
    ecallHandler.getDefaultVolumes();
    EXPECT_EQ(phone, processProbe::defaultPhoneVol().load()) << reply.result;
    EXPECT_EQ(phone == 15 ? 15 : 12, processProbe::defaultPromptVol().load()) << reply.result;
  }
  EXPECT_EQ("{\"props\":[\"volumeLevel\"]}\n", fakeBus::requests(AUDIO_MIXER_SERVICE, "getProperties").at(0).params);
}
