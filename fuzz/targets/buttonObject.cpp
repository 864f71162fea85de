// The vehicle status object as another process wrote it, read once through
// the button reader's delta descriptor with a read size taken from the
// first byte, and the text read handed to the button handler.
//
// Each input opens and closes a delta descriptor, and the kernel makes every
// close of one wait for the end of its watch (about 6 ms): this target runs
// a hundred inputs a second where the others run tens of thousands, and
// sleeps, not computes, through that wait.
#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pps.h"
#include "support/fuzzSupport.h"

namespace {

// What the reader thread reads at most at once.
constexpr size_t kButtonReadSize = 1000;
const char* const kVehicleStatus = "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::1234567\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzzSupport::beginInput();
  fuzzSupport::writeWatchedObject(vehicleStatusPPSPath, std::string(reinterpret_cast<const char*>(data + 1), size - 1));
  const int fd = platform::ppsOpen(ecallBtnPPSPath.c_str(), O_RDONLY);
  fuzzSupport::expect(fd >= 0, "the button object cannot be opened");
  const size_t count = 1 + (data[0] >> 1) * 8u;
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
  const int led = canIpcEmergencyHandler.getLastLedSetStatus();
  fuzzSupport::expect(led >= LED_OFF && led <= LED_RED, "an LED status out of range");
  fuzzSupport::endInput();
  return 0;
}
