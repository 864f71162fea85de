#include "support/fuzzSupport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <utility>

#include "ecallMain/ecallMain.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "support/memoryFiles.h"
#include "fake/processProbe.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/files.h"
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

// The threads the service started during an input, run after it.
std::mutex gDeferredMutex;
std::vector<std::pair<platform::threadBody, void*>> gDeferred;

int deferThread(pthread_t* thread, platform::threadBody body, void* arg) {
  *thread = pthread_t{};
  std::lock_guard<std::mutex> lock(gDeferredMutex);
  gDeferred.emplace_back(body, arg);
  return 0;
}

// In start order, those they start included; each ends before the next runs.
void runDeferredThreads() {
  for (size_t i = 0;; ++i) {
    std::pair<platform::threadBody, void*> next;
    {
      std::lock_guard<std::mutex> lock(gDeferredMutex);
      if (i == gDeferred.size()) {
        gDeferred.clear();
        return;
      }
      next = gDeferred[i];
    }
    next.first(next.second);
    fakeBus::drain();
  }
}

void makeFolders(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    platform::makeFolder(path.substr(0, slash).c_str(), 0755);
    if (slash == std::string::npos) return;
  }
}

void removeRoot() {
  std::error_code ec;
  if (!gRoot.empty()) std::filesystem::remove_all(gRoot, ec);
}

// The root on disk, for the objects that delta readers watch (the other
// files are in memory): in memory too where there is such a folder.
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

// The peers of the healthy car.
void answerAsHealthyPeers() {
  fakeBus::Reply silent;
  silent.noAnswer = true;
  fakeBus::setReply(TTS_SERVICE, "ttsReadout", silent);
  answer(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers", kEcallNumberReply);
}

// The healthy car every input starts in.
void resetState() {
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

  processProbe::mLastLedSetStatus() = LED_OFF;
  canIpcEmergencyHandler.resetV850ResetPhCounter();
}

void setUpProcess() {
  gRoot = makeRoot();
  atexit(removeRoot);
  platform::setRoot(gRoot);
  platform::setTimeScale(kTimeScale);
  // One thread, no system call and no pause for an input.
  memoryFiles::install();
  fakeBus::deliverInWaitingThread();
  platform::skipWaits(true);
  platform::setThreadStarter(deferThread);
  writeServiceFile(vehicleStatusPPSPath, kVehicleStatus);
  makeFolders(platform::rootPath("/tmp"));
  makeFolders(platform::rootPath(kUsbFolder));

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
  resetState();
}

// Exports to the stick are named by the second; they are removed so that a
// long run does not fill the memory.
void emptyUsbFolder() { memoryFiles::removeFilesIn(platform::rootPath(kUsbFolder)); }

}  // namespace

void beginInput() {
  static const bool ready = (setUpProcess(), true);
  (void)ready;
  answerAsHealthyPeers();
}

// What an input made is released in the input: a run that allocates more
// than it frees is taken for a leak, and checked at a hundred times the cost.
void endInput() {
  fakeBus::drain();
  runDeferredThreads();
  emptyUsbFolder();
  fakeBus::reset();
  resetState();
}

void writeServiceFile(const std::string& absolutePath, const std::string& content) {
  memoryFiles::put(platform::rootPath(absolutePath), content);
}

void writeWatchedObject(const std::string& absolutePath, const std::string& content) {
  writeServiceFile(absolutePath, content);
  const std::string path = platform::rootPath(absolutePath);
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC;
  int fd = open(path.c_str(), flags, 0644);
  if (fd < 0) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    fd = open(path.c_str(), flags, 0644);
  }
  expect(fd >= 0, "a watched object cannot be written");
  close(fd);
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
