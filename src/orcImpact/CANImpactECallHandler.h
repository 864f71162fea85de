// The emergency inputs and the mirror LED: the restraint controller channel
// reader, the mirror button reader, the LED and Assist messages to the vehicle
// micro, the blink timer and the reset of the cellular module.
#pragma once

#include <fcntl.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "common/ecallTypes.h"
#include "platform/ipcChannel.h"
#include "platform/threadProgress.h"
#include "platform/trace.h"

inline const CQVTraceScopeDef orcImpactTraceScope("ecallService_orcImpact", "all");

class processorInputs;
class externalServiceHandling;

// Mirror LED states.
enum eLedStatus : int32_t {
  LED_OFF = 0,
  LED_SOLID_GREEN = 1,
  LED_BLINKING_GREEN = 2,
  LED_RED = 3,
};

// Messages written to the restraint controller channel (first byte).
constexpr uint8_t ORC_MSG_LED_STATUS = 1;
constexpr uint8_t ORC_MSG_ASSIST_STATUS = 2;
constexpr uint8_t ORC_MSG_RESET_CELL_MODULE = 3;

// Messages read from it (first byte).
constexpr uint8_t ORC_MSG_IMPACT = 0;
constexpr uint8_t ORC_MSG_LOC = 1;
constexpr int ORC_IMPACT_MSG_MIN_SIZE = 7;
constexpr int ORC_LOC_MSG_MIN_SIZE = 4;
constexpr int ORC_READ_SIZE = 254;

// Where each of the thirteen impact kinds sits in the two impact bytes of a
// path: the byte (0 or 1) and the bit mask.
struct orcIpcLocation {
  uint8_t byte;
  uint8_t mask;
};
extern const orcIpcLocation orcIpcLocationTable[ecallMain::IMPACT_KIND_COUNT];
// Kinds that start an emergency, in order of checking, ended by 13.
extern const uint8_t orcSerialTriggers[];
extern const uint8_t orcCanTriggers[];

// Maximum number of module resets until the module is seen working again.
constexpr uint32_t V850_RESET_LIMIT = 3;
// The pause between two reads that failed, and between two attempts to open
// the channel while the vehicle micro is away.
constexpr int64_t ORC_RETRY_MS = 1000;
// The target's open flag for the vehicle micro's IPC device; the platform
// layer drops it where it has no meaning.
constexpr int ORC_IPC_OPEN_FLAG = 0x2000;

// arg points to the handler (CANImpactECallHandler).
void* canImpactThrdFunc(void* arg);
void* ecallReadThrdFunc(void* arg);
void* BlinkTimerThreadFunc(void* arg);
// Waits until every blink timer thread has ended (at most twice the blink
// time and a second); false when one is still running then. Called before the process
// objects are destroyed, since the blink timers use them.
bool waitForBlinkTimers();

class CANImpactECallHandler {
 public:
  // Opens the mirror button PPS object. The inputs raise emergencies and
  // failures with processor and ask services whether the variant has the
  // embedded phone.
  CANImpactECallHandler(processorInputs& processor, externalServiceHandling& services);
  ~CANImpactECallHandler();
  CANImpactECallHandler(const CANImpactECallHandler&) = delete;
  CANImpactECallHandler& operator=(const CANImpactECallHandler&) = delete;

  // Starts both input threads and blocks until both end.
  void monitorCANForEmergency();
  // Opens the restraint controller channel into the handler's descriptor
  // (a step of monitorCANForEmergency); false, logged, when it cannot.
  bool openOrcIpcChannel();
  // The channel is open again after a loss, or open at last after a failed
  // first attempt: the Assist side may use it, and the vehicle micro, which
  // has lost what it was told, gets the LED and Assist states once more.
  void orcChannelReturned();
  platform::IpcChannel& orcChannel() { return mOrcChannel; }
  processorInputs& processor() { return mProcessor; }
  // What each reader thread shows of itself to the watchdog: waiting on its
  // input, or busy with one message (a few log entries and requests).
  platform::threadProgress& orcReaderProgress() { return mOrcReaderProgress; }
  platform::threadProgress& buttonReaderProgress() { return mButtonReaderProgress; }

  // One message read from the restraint controller channel (n bytes).
  void processOrcMessage(const uint8_t* msg, int n);
  // One read of the mirror button PPS object (zero-terminated text); armed is
  // the emergency button's arm flag of the reader thread.
  void processButtonPpsText(char* text, bool& armed);

  int openPPSObj(std::string path, int& fd);
  int closePPSObj(int& fd);

  // ---- Mirror LED (mirrorLed.cpp) ----
  eLedStatus getLastLedSetStatus() const { return mLastLedSetStatus.load(); }
  void setLedStatus(eLedStatus status);
  void sendAssistAppStatus(bool active);
  void startBlinkTimer();

  // ---- Module reset (moduleReset.cpp) ----
  bool v850ResetSierra();
  void resetV850ResetPhCounter();

  int getPpsFd() const { return mPpsFd.load(); }

 private:
  friend struct processProbe;  // the unit tests' view
  // The last LED status (where the variant has the LED) and the Assist
  // status, sent again without a log entry: they are not new states.
  void resendControllerState();
  // One message to the vehicle micro: a kind byte and a value byte.
  void writeOrcMessage(uint8_t kind, uint8_t value);

  processorInputs& mProcessor;
  externalServiceHandling& mServices;

  std::atomic<int> mPpsFd{-1};
  platform::IpcChannel mOrcChannel{orcIpcChannelPath.c_str(), O_RDWR | ORC_IPC_OPEN_FLAG};
  // The button thread runs (the Assist side needs both inputs).
  std::atomic<bool> mButtonThreadRunning{false};
  platform::threadProgress mOrcReaderProgress{"restraint controller reader", 30000};
  platform::threadProgress mButtonReaderProgress{"mirror button reader", 30000};
  // Keeps the last LED status and its message in step: a status set while
  // the micro gets the last one again after its return is never overtaken.
  std::mutex mLedMutex;
  std::atomic<eLedStatus> mLastLedSetStatus{LED_OFF};
  std::atomic<uint32_t> mV850ResetCounter{0};
  // The last blink timer thread; blink timers are started from several
  // threads, the handle is kept whole.
  std::mutex mBlinkThreadMutex;
  pthread_t mBlinkThread{};
};
