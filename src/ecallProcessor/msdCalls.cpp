// The minimum set of data (MSD) of a call in the European market: the
// first one goes with the dial, each one the emergency centre asks for
// during the call is built afresh and handed to the phone. The MSD module
// applies the rules; what goes in comes from the trigger, the vehicle
// configuration, the position service and the vehicle status.
//
// Each dial (a redial too) starts the MSDs again at message 1: the centre
// takes every call as a new eCall. The time of the trigger is the
// emergency's start as the journal keeps it, so that a call made again
// after a restart still tells when the emergency began; a test call, never
// journaled, tells when it started.
#include <cstdio>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "platform/clocks.h"
#include "platform/slog.h"

namespace {

constexpr double kMasPerDegree = 3600000.0;

std::string positionText(const msd::Content& content) {
  if (!content.latitude || !content.longitude) return "unknown";
  char text[64];
  snprintf(text, sizeof text, "%.6f, %.6f", *content.latitude / kMasPerDegree, *content.longitude / kMasPerDegree);
  return text;
}

}  // namespace

std::optional<embeddedPhone::msdCall> ecallStateMachine::startMsds() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  msdSession.reset();
  if (!extServHandle.marketIsEU()) return std::nullopt;
  const int64_t startMs = testCallInHand ? testCallStartMs : processor.mJournal.emergencyStartWallMs();
  msd::Trigger trigger;
  trigger.automatic = !testCallInHand && mode == ecallMain::CALL_ACN;
  trigger.testCall = testCallInHand;
  trigger.time = (startMs > 0 ? startMs : platform::wallClockMs()) / 1000;
  msdSession.emplace(trigger, extServHandle.msdVehicle());
  const msd::Built built = msdSession->next(extServHandle.getMsdPosition(), extServHandle.getFastenedSeatBelts());
  const char* kind = trigger.testCall ? "test" : trigger.automatic ? "automatic" : "manual";
  return embeddedPhone::msdCall{kind, sendableMsd(built, "with the dial")};
}

void ecallStateMachine::sendFreshMsd() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (!msdSession) {
    scope.sendFormattedWarning("MSD request without a call that carries one, ignored\n");
    return;
  }
  const msd::Built built = msdSession->next(extServHandle.getMsdPosition(), extServHandle.getFastenedSeatBelts());
  const std::string hex = sendableMsd(built, "on the centre's request");
  const SVCIPC_tError rc = hex.empty() ? SVCIPC_ERROR_NONE : embeddedPhone::sendMsd(hex);
  if (rc < 0) {
    scope.sendFormattedError("Failed to send the MSD, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to send the MSD, rc 0x%0X\n", static_cast<unsigned>(rc));
  }
}

void ecallStateMachine::talkWithTheCentre() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  processor.addEntryToEmergencyLog("Call Active.  The centre reads the MSD, no PSAP TTS\n");
  extServHandle.setMicInputMuteState(false);
  state = ECALL_SM_CALL_ACTIVE;
}

std::string ecallStateMachine::sendableMsd(const msd::Built& built, const char* how) {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  for (const std::string& warning : built.warnings)
    processor.addFormattedEntryToEmergencyLog("MSD: %s\n", warning.c_str());
  const unsigned identifier = built.content.messageIdentifier;
  const msd::Encoded encoded = msd::encode(built.content);
  if (!encoded.error.empty()) {
    // Never expected of a built MSD; the call goes on without it.
    processor.addFormattedEntryToEmergencyLog("MSD %u not sent: %s\n", identifier, encoded.error.c_str());
    return "";
  }
  const std::string hex = msd::toHex(encoded.octets);
  processor.addFormattedEntryToEmergencyLog("MSD %u sent %s: %zu octets, position %s\n", identifier, how,
                                            encoded.octets.size(), positionText(built.content).c_str());
  processor.mLastMsd.set(hex);
  return hex;
}
