// The application manager's configuration file, read for the Assist
// application's identifier.
#include <cstddef>
#include <cstdint>
#include <string>

#include "common/ecallTypes.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "support/fuzzSupport.h"

#include "fake/processProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzSupport::beginInput();
  fuzzSupport::writeServiceFile(appMngrConfigPath, std::string(reinterpret_cast<const char*>(data), size));
  ecallHandler.getAssistAppUUID();
  // The identifier comes from one line of at most 128 bytes.
  const std::string id = processProbe::assistAppUUID().get();
  fuzzSupport::expect(id.size() < 128, "an identifier longer than a line of the file");
  fuzzSupport::expect(id.find('"') == std::string::npos, "an identifier that keeps its closing quote");
  fuzzSupport::endInput();
  return 0;
}
