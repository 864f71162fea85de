// A requested emergency that waits (for the phone or a number) is never swallowed or weakened.
#include "unit/unitFixture.h"

using EmergencyRequests = UnitFixture;

// A crash while the phone's return is taken (the number being read) is placed as a crash.
TEST_F(EmergencyRequests, AWaitingCrashStaysACrashAndTheCentresCallIsTaken) {
  PulseProbe probe;
  processProbe::emdPhOn() = 0;
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, "getProperties", answer(R"({"embeddedPhoneStatus":{"status":true}})"));
  fakeBus::setResponder(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers", [](const std::string&) {
    ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_B);
    return answer(R"({"count":1,"numberList":["911"]})");
  });
  ecallHandler.getEmdPhStatus();
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::CAN_IMPACT_B);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_EQ(probe.next(), ECALL_PULSE_START_CALL);

  // A crash that waits for the phone or its number stays a crash when the button is
  // pressed; the emergency centre's call is still taken while a number is awaited.
  for (const bool phoneAway : {true, false}) {
    processProbe::emdPhOn() = phoneAway ? 0 : 1;
    processProbe::curECallType() = ecallMain::CAN_IMPACT_B;
    processProbe::curCallModeType() = ecallMain::CALL_ACN;
    processProbe::waitingForPhone() = phoneAway;
    processProbe::waitingForNumber() = !phoneAway;
    ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
    EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN) << phoneAway;
  }
  ecallHandler.processEmdPhCallState(R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"911","callType":2}]})");
  EXPECT_EQ(probe.next(), ECALL_PULSE_EMERGENCY_INCOMING_CALL);
}
