// The vehicle status object as another process wrote it, read through the
// button reader's delta descriptor with a read size taken from the first
// byte, and the text read handed to the button handler.
//
// Like the reader thread, the target keeps one delta descriptor for the
// whole run and reads the changes of each write: every input writes its
// object over the healthy one and reads, and after it the healthy object is
// written back and every change read, so that the next input starts from it
// again. A descriptor per input would cost the run more than the reads: the
// kernel makes every close of one wait about 6 ms for the end of its watch.
//
// The object holds the two buttons and the odometer (58 bytes in the healthy
// car) and the reader reads at most 1000 bytes at once: inputs are bounded
// at 1 KiB.
// libFuzzer options: -max_len=1024
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

// Reads until no change is left: the reader has then seen the object as it is.
void readEveryChange(int fd) {
  char text[kButtonReadSize];
  while (platform::ppsRead(fd, text, sizeof text) > 0) {
  }
}

// The reader's descriptor on the healthy object, its first read done. The
// reader thread blocks in a read until the next change; here a read that
// finds no change returns at once (EAGAIN), since none will come.
int buttonObject() {
  static const int fd = [] {
    fuzzSupport::writeWatchedObject(vehicleStatusPPSPath, kVehicleStatus);
    const int opened = platform::ppsOpen(ecallBtnPPSPath.c_str(), O_RDONLY);
    fuzzSupport::expect(opened >= 0, "the button object cannot be opened");
    fcntl(opened, F_SETFL, fcntl(opened, F_GETFL) | O_NONBLOCK);
    readEveryChange(opened);
    return opened;
  }();
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzzSupport::beginInput();
  const int fd = buttonObject();
  fuzzSupport::writeWatchedObject(vehicleStatusPPSPath, std::string(reinterpret_cast<const char*>(data + 1), size - 1));
  const size_t count = 1 + (data[0] >> 1) * 8u;
  char text[kButtonReadSize + 1];
  const ssize_t n = platform::ppsRead(fd, text, count < kButtonReadSize ? count : kButtonReadSize);
  fuzzSupport::expect(n <= static_cast<ssize_t>(count), "a read longer than asked for");
  if (n > 0) {
    bool armed = true;
    text[n] = '\0';
    canIpcEmergencyHandler.processButtonPpsText(text, armed);
  }
  fuzzSupport::writeWatchedObject(vehicleStatusPPSPath, kVehicleStatus);
  readEveryChange(fd);
  const int led = canIpcEmergencyHandler.getLastLedSetStatus();
  fuzzSupport::expect(led >= LED_OFF && led <= LED_RED, "an LED status out of range");
  fuzzSupport::endInput();
  return 0;
}
