#include "support/fuzzSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "ecallMain/ecallMain.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "fake/processProbe.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/runtime.h"

namespace fuzzSupport {

namespace {

// Every wait of the service a thousand times shorter: a pause of the
// service (retries of the variant or the number) costs a millisecond.
constexpr double kTimeScale = 0.001;

const char* const kVehicleStatus = "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::1234567\n";
const char* const kEcallNumberReply = "{\"code\":0,\"count\":1,\"numberList\":[\"911\"]}";
const char* const kUsbFolder = "/fs/usb0";

std::string gRoot;

void removeRoot() {
  std::error_code ec;
  if (!gRoot.empty()) std::filesystem::remove_all(gRoot, ec);
}

// A folder in memory when there is one: the emergency log is written with
// synchronous writes, which would make every input wait for a disk.
std::string makeRoot() {
  std::string base = "/dev/shm";
  if (access(base.c_str(), W_OK) != 0) {
    const char* tmp = getenv("TMPDIR");
    base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  }
  std::string pattern = base + "/ecall-fuzz-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    perror("ecall fuzz: cannot make a root folder");
    abort();
  }
  return pattern;
}

void setUpProcess() {
  gRoot = makeRoot();
  atexit(removeRoot);
  platform::setRoot(gRoot);
  platform::setTimeScale(kTimeScale);
  writeServiceFile(vehicleStatusPPSPath, kVehicleStatus);
  std::filesystem::create_directories(gRoot + "/tmp");
  std::filesystem::create_directories(gRoot + kUsbFolder);

  createProcessObjects();
  SVCIPC_tConnection connection = nullptr;
  SVCIPC_tSvcRegHnd registration = nullptr;
  if (SVCIPC_getConnection(SVCIPC_CONNECTION_DEFAULT, 0, &connection) < 0 ||
      SVCIPC_registerService(connection, ECALL_SERVICE_NAME, ECALL_SERVICE_PATH, 0, onECallRequest, &ecallFrame(),
                             &registration) < 0) {
    fprintf(stderr, "ecall fuzz: the fake bus refused the service\n");
    abort();
  }
  ecallFrame().setBus(connection, registration);
}

// The healthy car every input starts in.
void resetState() {
  fakeBus::reset();
  fakeBus::Reply silent;
  silent.noAnswer = true;
  fakeBus::setReply(TTS_SERVICE, "ttsReadout", silent);
  answer(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers", kEcallNumberReply);

  processProbe::mEmbeddedPhoneEnabled() = true;
  processProbe::mVariantInfoKnown() = true;
  processProbe::mTtsLanguage() = 0;
  processProbe::mVehicleBrandIndex() = VEHICLE_BRAND_NONE;
  processProbe::mCurrentTtsPrompt() = TTS_PROMPT_NONE;
  processProbe::mReadoutType().set("none");

  processProbe::curECallType() = ecallMain::NONE;
  processProbe::curCallModeType() = ecallMain::CALL_NONE;
  processProbe::curCallState().set("CALL_STATE_IDLE");
  processProbe::callConnected() = false;
  processProbe::emdPhOn() = 1;
  processProbe::localEcallNumber().set("911");
  processProbe::btCallActive() = false;
  processProbe::ecallModeActive() = false;
  processProbe::bAssistAppActive() = false;
  processProbe::ecallSignalActive() = false;
  processProbe::orcMonitoringStarted() = false;
  processProbe::systemError() = 0;
  processProbe::mWillDisconnBT() = false;

  processProbe::embeddedPhAvail() = 1;
  processProbe::systemErrorSent() = false;
  processProbe::activeTts() = TTS_PROMPT_NONE;
  processProbe::firstPsapTtsWaitForComplete() = false;
  processProbe::firstPsapTtsCount() = 0;
  processProbe::errorSentForNoEcallNumberLoaded() = false;
  processProbe::assistAppUUID().set(ecallMain::defaultAssistAppUUID);
  processProbe::defaultPhoneVol() = 15;
  processProbe::defaultPromptVol() = 15;

  if (canIpcEmergencyHandler.getLastLedSetStatus() != LED_OFF) canIpcEmergencyHandler.setLedStatus(LED_OFF);
  canIpcEmergencyHandler.resetV850ResetPhCounter();
}

// Exports to the stick are named by the second; they are removed so that a
// long run does not fill the memory folder.
void emptyUsbFolder() {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(gRoot + kUsbFolder, ec))
    std::filesystem::remove(entry.path(), ec);
}

}  // namespace

void beginInput() {
  static const bool ready = (setUpProcess(), true);
  (void)ready;
  resetState();
}

void endInput() {
  fakeBus::drain();
  emptyUsbFolder();
}

const std::string& rootDir() { return gRoot; }

void writeServiceFile(const std::string& absolutePath, const std::string& content) {
  const std::string path = platform::rootPath(absolutePath);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::vector<std::string> splitFields(const uint8_t* data, size_t size, size_t count) {
  std::vector<std::string> fields;
  const char* text = reinterpret_cast<const char*>(data);
  size_t start = 0;
  while (fields.size() + 1 < count) {
    size_t end = start;
    while (end < size && text[end] != '\0') ++end;
    if (end >= size) break;
    fields.emplace_back(text + start, end - start);
    start = end + 1;
  }
  fields.emplace_back(text + start, size - start);
  return fields;
}

std::string asText(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  size_t end = 0;
  while (end < size && text[end] != '\0') ++end;
  return std::string(text, end);
}

SignalInput signalInput(const uint8_t* data, size_t size, const char* const* knownNames, size_t knownCount) {
  SignalInput input;
  if (data[0] < knownCount) {
    input.name = knownNames[data[0]];
    input.payload = asText(data + 2, size - 2);
    return input;
  }
  const std::vector<std::string> fields = splitFields(data + 2, size - 2, 2);
  input.name = fields[0];
  if (fields.size() > 1)
    input.payload = asText(reinterpret_cast<const uint8_t*>(fields[1].data()), fields[1].size());
  return input;
}

void answer(const char* busName, const char* method, const char* text) {
  fakeBus::Reply reply;
  if (text == nullptr) {
    reply.rc = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR);
  } else {
    reply.result = text;
  }
  fakeBus::setReply(busName, method, reply);
}

void expect(bool condition, const char* what) {
  if (condition) return;
  fprintf(stderr, "ecall fuzz: expectation broken: %s\n", what);
  abort();
}

}  // namespace fuzzSupport
