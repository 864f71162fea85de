// The embedded phone's answer to "getUsbPorts", parsed directly and through
// the asynchronous reply that writes the ports to the emergency log.
//
// The real answer names the few USB ports of the cellular module
// ({"ports":["SWIUSB0","SWIUSB2"]}, 31 bytes). Inputs are bounded at 512
// bytes: room for the answer with an error code, a dozen ports, spacing,
// escapes and nesting to parse.
// libFuzzer options: -max_len=512
#include <cstddef>
#include <cstdint>
#include <string>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "support/fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzSupport::beginInput();
  const std::string reply = fuzzSupport::asText(data, size);
  const std::string ports = ecallProcessor::parseSWIUSBPortsStr(reply.c_str());
  // Nothing but the names (and their separators) of the reply is reported.
  fuzzSupport::expect(ports == "Read Failure" || ports.size() <= 2 * reply.size(), "ports text longer than the reply");
  SVCIPC_tCallbackStatus ok{SVCIPC_ERROR_NONE, nullptr, nullptr};
  ecallProcessor::onAsyncSWIUSBPortsResult(&ok, reply.c_str(), &ecallHandler);
  fuzzSupport::endInput();
  return 0;
}
