// The mirror buttons as the PPS object brings them. The first byte picks
// the way in:
//  - even: the rest is the text of successive reads of the button reader,
//    one per NUL-separated field (the arm flag of the emergency button
//    carries over from one read to the next, as in the reader thread);
//  - odd: the rest is the PPS object file as another process wrote it; it
//    is read once through a delta descriptor with a read size taken from
//    the first byte, and the text read goes to the button handler.
#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pps.h"
#include "support/fuzzSupport.h"

namespace {

// What the reader thread reads at most at once.
constexpr size_t kButtonReadSize = 1000;
constexpr size_t kMaxReads = 16;
const char* const kVehicleStatus = "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::1234567\n";

void handleRead(const std::string& read, bool& armed) {
  std::vector<char> text(read.begin(), read.begin() + (read.size() < kButtonReadSize ? read.size() : kButtonReadSize));
  text.push_back('\0');
  canIpcEmergencyHandler.processButtonPpsText(text.data(), armed);
}

void readThroughObject(uint8_t selector, const uint8_t* data, size_t size) {
  fuzzSupport::writeServiceFile(vehicleStatusPPSPath, std::string(reinterpret_cast<const char*>(data), size));
  const int fd = platform::ppsOpen(ecallBtnPPSPath.c_str(), O_RDONLY);
  fuzzSupport::expect(fd >= 0, "the button object cannot be opened");
  const size_t count = 1 + (selector >> 1) * 8u;
  char text[kButtonReadSize + 1];
  const ssize_t n = platform::ppsRead(fd, text, count < kButtonReadSize ? count : kButtonReadSize);
  platform::ppsClose(fd);
  fuzzSupport::expect(n <= static_cast<ssize_t>(count), "a read longer than asked for");
  if (n > 0) {
    bool armed = true;
    text[n] = '\0';
    canIpcEmergencyHandler.processButtonPpsText(text, armed);
  }
  fuzzSupport::writeServiceFile(vehicleStatusPPSPath, kVehicleStatus);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzSupport::beginInput();
  if (size > 0) {
    if (data[0] & 1) {
      readThroughObject(data[0], data + 1, size - 1);
    } else {
      bool armed = true;
      for (const std::string& read : fuzzSupport::splitFields(data + 1, size - 1, kMaxReads)) handleRead(read, armed);
    }
  }
  const int led = canIpcEmergencyHandler.getLastLedSetStatus();
  fuzzSupport::expect(led >= LED_OFF && led <= LED_RED, "an LED status out of range");
  fuzzSupport::endInput();
  return 0;
}
