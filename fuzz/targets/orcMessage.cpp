// One read of the restraint controller channel: whatever the vehicle micro
// sends (a read returns at most 254 bytes) goes to the message handler.
#include <cstddef>
#include <cstdint>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzSupport::beginInput();
  const int n = static_cast<int>(size < ORC_READ_SIZE ? size : ORC_READ_SIZE);
  canIpcEmergencyHandler.processOrcMessage(data, n);

  // At most one emergency per message, and only of a kind that calls.
  const int type = ecallHandler.getCurECallType();
  fuzzSupport::expect(type == ecallMain::NONE || (n >= ORC_IMPACT_MSG_MIN_SIZE && data[0] == ORC_MSG_IMPACT),
                      "an emergency from a message that is not an impact message");
  fuzzSupport::expect(type == ecallMain::NONE || (type >= ecallMain::CAN_IMPACT_FIRST &&
                                                  type < ecallMain::SERIAL_IMPACT_FIRST + ecallMain::IMPACT_KIND_COUNT),
                      "an emergency of a type the channel does not start");
  // Only the three link sources are touched by the channel.
  const uint32_t linkBits = ecallSystemFailure::bitMask[ecallSystemFailure::ORC_CAN_LOC] |
                            ecallSystemFailure::bitMask[ecallSystemFailure::ORC_SERIAL_LOC] |
                            ecallSystemFailure::bitMask[ecallSystemFailure::MIRROR_LOC];
  fuzzSupport::expect((processProbe::systemError().load() & ~linkBits) == 0,
                      "a failure source the channel does not own");
  fuzzSupport::endInput();
  return 0;
}
