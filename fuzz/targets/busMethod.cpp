// A call of one of the service's bus methods, as any client on the bus can
// make it, through the fake bus. The first byte picks the method (low
// bits; 11 and up: a name taken from the input), whether the
// caller expects no reply (0x10) and whether the parameters are missing
// (0x20); the rest is the parameter text (after the name and a NUL for a
// name from the input).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fake/fakeBus.h"
#include "support/fuzzSupport.h"

namespace {

const char* const kMethods[] = {
    "exitEcall",
    "startEcall",
    "IsECallInProgess",
    "IsECallModeActive",
    "setEcallRetryHmiState",
    "logStringToEcallLog",
    "saveEmergencyLogToUSBAndRemoveLocalLog",
    "getEmergencyCallLanguage",
    "hardResetGPS",
    "startTestEcall",
    "getLastCallTimings",
};
constexpr size_t kMethodCount = sizeof kMethods / sizeof kMethods[0];
const char* const kAlwaysAnswered[] = {"IsECallInProgess", "IsECallModeActive", "getEmergencyCallLanguage",
                                       "getLastCallTimings"};
const char* const kAnsweredOnRequest[] = {"exitEcall", "startEcall", "setEcallRetryHmiState",
                                          "saveEmergencyLogToUSBAndRemoveLocalLog", "hardResetGPS", "startTestEcall"};

bool isOneOf(const std::string& name, const char* const* names, size_t count) {
  for (size_t i = 0; i < count; ++i)
    if (name == names[i]) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzzSupport::beginInput();
  const uint8_t selector = data[0];
  const size_t index = (selector & 0x0F) % (kMethodCount + 1);
  const int noReplyExpected = (selector & 0x10) ? 1 : 0;
  const bool paramsMissing = (selector & 0x20) != 0;

  std::string method;
  std::string params;
  if (index < kMethodCount) {
    method = kMethods[index];
    params = fuzzSupport::asText(data + 1, size - 1);
  } else {
    const std::vector<std::string> fields = fuzzSupport::splitFields(data + 1, size - 1, 2);
    method = fields[0];
    if (fields.size() > 1) params = fuzzSupport::asText(reinterpret_cast<const uint8_t*>(fields[1].data()), fields[1].size());
  }

  const fakeBus::MethodResult result =
      fakeBus::callMethod(method, paramsMissing ? nullptr : params.c_str(), noReplyExpected);
  fuzzSupport::expect(result.handled, "the method handler did not run");
  fuzzSupport::expect(result.contextFreed, "a request context left unreleased");
  const bool mustAnswer = isOneOf(method, kAlwaysAnswered, 4) ||
                          (!noReplyExpected && isOneOf(method, kAnsweredOnRequest, 6));
  fuzzSupport::expect(result.replied == mustAnswer, "a reply where none is due, or none where one is");
  fuzzSupport::endInput();
  return 0;
}
