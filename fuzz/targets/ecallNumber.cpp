// The embedded phone's answer to "getEmergencyNumbers": the number an
// emergency call dials.
#include <cstddef>
#include <cstdint>
#include <string>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzSupport::beginInput();
  // The number is missing, so that a stored number clears the failure.
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::NO_ECALL_NUMBER, true);
  const std::string reply = fuzzSupport::asText(data, size);
  const std::string before = ecallHandler.getLocalEcallNumber();

  const int result = ecallHandler.parseEcallNumber(reply.c_str());

  fuzzSupport::expect(result >= -1 && result <= 1, "a parse result out of range");
  const std::string after = ecallHandler.getLocalEcallNumber();
  const bool failureRaised =
      (processProbe::systemError() & ecallSystemFailure::bitMask[ecallSystemFailure::NO_ECALL_NUMBER]) != 0;
  if (result == 1) {
    fuzzSupport::expect(!after.empty(), "an empty number stored");
    fuzzSupport::expect(!failureRaised, "a stored number leaves the missing-number failure");
  } else {
    fuzzSupport::expect(after == before, "a reply without a number changed the number");
    fuzzSupport::expect(failureRaised, "a reply without a number cleared the missing-number failure");
  }
  fuzzSupport::endInput();
  return 0;
}
