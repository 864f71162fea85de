// The emergency (PSAP) number. It is programmed into the embedded phone, not
// into this service: it is asked of the phone before every emergency call and
// whenever the phone says its numbers may have changed. The first usable
// number of the phone's list is kept; a reply without one never erases it.
// In the European market 112 is kept when the list has it, wherever it
// stands: it is the number every European network takes an eCall on, and a
// phone's list may well begin with another country's number. A list
// without 112 gives its first number, the phone's own choice, rather than
// no call.
#include <chrono>
#include <string>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace {

// Pause after a failed request or an error reply.
constexpr int64_t ECALL_NUMBER_RETRY_PAUSE_NS = 500000000;
constexpr int ECALL_NUMBER_MAX_FAILURES = 3;
// A reply that is well formed but holds no number is asked again at once
// and does not count as a failure; a phone that keeps answering so, or does
// not answer at all, must still not hold the state machine: the whole read
// is bounded by one peer reply bound. The emergency is not given up on a
// failed read: the state machine asks again at its retry period.

constexpr int PARSE_ERROR = -1;
constexpr int PARSE_NO_NUMBER = 0;
constexpr int PARSE_NUMBER_STORED = 1;

}  // namespace

int ecallProcessor::parseEcallNumber(const char* reply) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("parse ecallnumber result %s", reply != nullptr ? reply : "NULL");
  const embeddedPhone::emergencyNumbers parsed =
      embeddedPhone::parseEmergencyNumbers(reply, extServHandle.marketIsEU() ? "112" : "");
  if (parsed.result == embeddedPhone::emergencyNumbers::ERROR_REPLY) {
    scope.sendFormattedWarning("Get ecall number response error.");
    sendtoSlog(_SLOG_ERROR, "Get ecall number response error.\n");
    return PARSE_ERROR;
  }
  if (parsed.result == embeddedPhone::emergencyNumbers::NO_LIST) return PARSE_NO_NUMBER;

  if (parsed.result == embeddedPhone::emergencyNumbers::NO_USABLE) {
    scope.sendFormattedWarning("ecall number does not exist!  Please set it.\n");
    sendtoSlog(_SLOG_ERROR, "ecall number does not exist!  Please set it.\n");
    return PARSE_NO_NUMBER;
  }
  localEcallNumber.set(parsed.number);
  scope.sendFormattedMessage("ecall phone number value %s\n", parsed.number.c_str());
  // The number is back: the next loss is reported afresh, and the delay
  // requests that were dropped while it was missing are taken again.
  errorSentForNoEcallNumberLoaded = false;
  setEcallSystemFailureState(ecallSystemFailure::NO_ECALL_NUMBER, false);
  // An emergency waiting for a number is placed now, not at its retry.
  ++numbersStored;
  if (waitingForNumber) timers().startEcallStateMachineTimer(1);
  return PARSE_NUMBER_STORED;
}

bool ecallProcessor::readECallNumber() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  // The pauses after errors are not part of the bound (they are counted).
  auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(platform::scaledMs(peerReplyLimitMs()));
  int failures = 0;
  bool result = false;
  while (failures < ECALL_NUMBER_MAX_FAILURES) {
    std::string reply;
    const SVCIPC_tError rc = embeddedPhone::readEmergencyNumbers(reply);
    bool pause = false;
    if (SVCIPC_IS_ERROR(rc)) {
      scope.sendFormattedWarning("Failed to get ecall number, rc %d\n", rc);
      sendtoSlog(_SLOG_ERROR, "Failed to get ecall number %d, resp is %s\n", rc, answerState(reply));
      pause = true;
      if (isPeerTimeout(rc)) {
        // A phone that hung once would only hang again: the read fails now.
        scope.sendFormattedError("Get ecall number timed out after %d ms, keeping number \"%s\"\n",
                                 peerReplyLimitMs(), getLocalEcallNumber().c_str());
        sendtoSlog(_SLOG_WARNING, "Get ecall number timed out after %d ms, keeping number \"%s\"\n",
                   peerReplyLimitMs(), getLocalEcallNumber().c_str());
        failures = ECALL_NUMBER_MAX_FAILURES;
        pause = false;
      }
    } else {
      scope.sendFormattedMessage("Get PSAP (emergency) number result %s\n", reply.c_str());
      const int parsed = parseEcallNumber(reply.c_str());
      if (parsed == PARSE_ERROR) {
        pause = true;
      } else if (parsed == PARSE_NUMBER_STORED) {
        result = true;
      } else if (std::chrono::steady_clock::now() >= deadline) {
        failures = ECALL_NUMBER_MAX_FAILURES;
      }
    }
    if (result) break;
    if (pause) {
      platform::sleepNs(ECALL_NUMBER_RETRY_PAUSE_NS);
      deadline += std::chrono::nanoseconds(platform::scaledNs(ECALL_NUMBER_RETRY_PAUSE_NS));
      ++failures;
    }
  }
  return result;
}

void ecallProcessor::asyncReadECallNumber() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const SVCIPC_tError rc = embeddedPhone::requestEmergencyNumbers(onAsyncEcallNumberResult, this);
  if (SVCIPC_IS_ERROR(rc)) {
    scope.sendFormattedError("failed to send async request to get ecall number, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "failed to send async request to get ecall number, rc 0x%0X\n",
               static_cast<unsigned>(rc));
  }
}

void ecallProcessor::onAsyncEcallNumberResult(const SVCIPC_tCallbackStatus* status, const char* result,
                                              void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedMessage("receive async ecall number result %s", result != nullptr ? result : "NULL");
  static_cast<ecallProcessor*>(context)->parseEcallNumber(result);
}

// The phone's own service number is never the emergency centre.
bool ecallProcessor::isPhoneNumberValid(const char* number) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (number == nullptr || number[0] == '\0') return false;
  return !embeddedPhone::isServiceNumber(number);
}
