// The emergency call processor: the state machine thread and its timers,
// emergency requests and call modes, the embedded phone's call state, status
// and failures, the emergency number, the Assist application, the emergency
// log, volumes, Bluetooth call state and the module's USB ports.
//
// One instance, ecallHandler; it owns its state machine (thread, channel and
// timers). Other threads write the request fields (type, mode, call state)
// and wake the state machine by a pulse; the state machine re-reads them at
// each step. The fields shared between threads are atomics (or sharedText)
// so that each read and write is whole.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "callTimings/callTimings.h"
#include "common/ecallTypes.h"
#include "common/sharedText.h"
#include "ecallProcessor/processorInputs.h"
#include "ecallProcessor/stateMachine.h"
#include "emergencyJournal/emergencyJournal.h"
#include "platform/fileSyncer.h"
#include "platform/serviceBus.h"
#include "platform/trace.h"

namespace Json {
class Value;
}

inline const CQVTraceScopeDef ecallProcessorTraceScope("ecallService_ecallProcessor", "all");
inline const CQVTraceScopeDef stateMachineTraceScope("statemachine", "all");

// Limit of the emergency log, and the size of one entry line.
constexpr long EMERGENCY_LOG_SIZE_LIMIT = 1024000;
constexpr int EMERGENCY_LOG_ENTRY_SIZE = 256;
inline const std::string emergencyLogDir = "/fs/etfs/usr/var/ecall";
inline const std::string emergencyLogPath = "/fs/etfs/usr/var/ecall/ecall_log.txt";
inline const std::string gpsResetLogPath = "/fs/etfs/usr/var/ecall/GPSReset.log";
// The emergency journal, beside the log, and where an unreadable one is put.
inline const std::string emergencyJournalPath = "/fs/etfs/usr/var/ecall/ecall_journal";
inline const std::string emergencyJournalAsidePath = "/fs/etfs/usr/var/ecall/ecall_journal.bad";
// An emergency older than this is not raised again after a restart.
constexpr int64_t EMERGENCY_RESUME_AGE_LIMIT_MS = 3600000;
// How long the emergency mode stays on after the call, for the centre's call-back.
constexpr unsigned CALLBACK_PERIOD_MS = 30000;

class CANImpactECallHandler;
class externalServiceHandling;

// How a failed phone query's answer is told in the system log: "not NULL"
// when the phone sent a text with its error, "NULL" when it sent none.
inline const char* answerState(const std::string& reply) { return reply.empty() ? "NULL" : "not NULL"; }

class ecallProcessor final : public processorInputs {
 public:
  // Writes "ECall Service Version" to the emergency log. The processor
  // drives the inputs' LED and the external services; they are handed in
  // when the process objects are wired (and may be built after it).
  ecallProcessor(CANImpactECallHandler& inputs, externalServiceHandling& services);
  ~ecallProcessor();
  ecallProcessor(const ecallProcessor&) = delete;
  ecallProcessor& operator=(const ecallProcessor&) = delete;

  // ---- Requests and call modes (emergencyRequests.cpp) ----
  ecallMain::eEmergencyType getCurECallType() const { return curECallType.load(); }
  ecallMain::eCallModeType getCurCallModeType() const { return curCallModeType.load(); }
  std::string getCurCallState() const { return curCallState.get(); }
  bool getCallConnected() const { return callConnected.load(); }
  bool getEcallModeActive() const override { return ecallModeActive.load(); }
  bool isBtCallActive() const override { return btCallActive.load(); }
  uint32_t getSystemError() const override { return systemError.load(); }
  void setOrcMonitoringStarted(bool started) override { orcMonitoringStarted = started; }
  void setWillDisconnectBluetooth(bool willDisconnect) override { mWillDisconnBT = willDisconnect; }
  std::string getLocalEcallNumber() const { return localEcallNumber.get(); }
  void setEcallFailedToStart();
  void clearECallEvent();
  void setEcallModeActive(bool active);
  void exitEmergencyMode();
  void assistButtonPressed() override;
  void processCachedEcallStatus();
  // The phone is seen ON again: an emergency recorded while it could not
  // call is handed over once, whichever way the return was seen.
  void servePhoneReturn();
  void emergencyHappened(ecallMain::eEmergencyType newType) override;
  void processEcallBtnPressWithSystemError();
  void requestHMIDisplayPleaseWaitPopup();

  // ---- Test call (testCall.cpp) ----
  // A test call to the vehicle's test number: true when it is started, or
  // false with the reason in why (the test number is missing, empty or an
  // emergency number; an emergency is in hand; the phone is away).
  bool startTestCall(std::string& why);

  // ---- Requests of the state machine to the phone (stateMachine.cpp) ----
  void hangUpCall();
  bool acceptEmergencyCallback();
  void logPsapEndedIncomingCallAndClearCall();
  static void onAsyncDialResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context);

  // ---- Call state, end reasons, prompts, DTMF (callState.cpp) ----
  static void onSubcribedSignal(const char* sigName, const char* data, void* context);
  void processEmdPhCallState(const char* data);
  void processWendReason(const char* data);
  void processTtsPlayState(const char* data);
  void processDtmf(const char* data);

  // ---- Phone status, owner, antenna, system failure (phoneStatus.cpp) ----
  void setEcallSystemFailureState(ecallSystemFailure::eSource source, bool failed) override;
  void registerEmdPhSvc();
  static void onEmbeddedPhoneOwnerChange(const char* busName, const char* oldOwner, const char* newOwner,
                                         void* context);
  void getEmdPhStatus();
  // The "embeddedPhoneStatus" and "antennaStatus" signals of the phone.
  void processEmdPhStatusSignal(const char* data);
  void processAntennaStatusSignal(const char* data);
  void checkAntennaStatus();
  void asyncCheckAntennaStatus();
  static void onAsyncAntennaStatusResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context);
  // Reactions of the state machine to pulses 8, 9 and 10.
  void onPhoneNotPresentTimeout();
  void onAntennaFaultTimeout();
  void onDelaySysErrTimeout();

  // ---- Emergency number (emergencyNumber.cpp) ----
  int parseEcallNumber(const char* reply);
  bool readECallNumber();
  void asyncReadECallNumber();
  static void onAsyncEcallNumberResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context);
  static bool isPhoneNumberValid(const char* number);

  // ---- Assist application (assistApp.cpp) ----
  void getAssistAppUUID();  // reads the identifier from the configuration file
  static void onSubcribedAppMngrSignal(const char* sigName, const char* data, void* context);
  void processAssistAppOperStatus(ecallMain::eXletState state);
  void asyncStopAssistApp();
  void sendAssistStatus() override;
  void onAssistNeverActiveTimeout();  // reaction of the state machine to pulse 7

  // ---- Emergency log and marker files (emergencyLog.cpp) ----
  void addEntryToEmergencyLog(const char* text) override;
  // Formats into a 256-byte entry (cut safely) and appends it.
  void addFormattedEntryToEmergencyLog(const char* format, ...) override __attribute__((format(printf, 2, 3)));
  void saveEmergencyLogToUSBAndRemoveLocalLog();
  void createFlagInTmp(bool create, std::string path) override;
  // From here on entries are written without waiting for the flash; the
  // syncer's thread makes them durable (until then each write is synchronous).
  void startLogSyncer();

  // ---- Call-stage timings (stageTimings.cpp) ----
  // The stage happened now, in the call in hand.
  void markCallStage(callTimings::stage stage);
  // The call in hand is over: its end is now, unless marked before, and its
  // timings go to the emergency log in one entry.
  void closeCallTimings();
  // The call closed last, for "getLastCallTimings".
  callTimings::callRecord lastCallTimings() const { return mStageClock.last(); }

  // ---- Initialisation and subscriptions (initialisation.cpp) ----
  void initEcallProcessor();
  // Its first step: the emergency log's lock and the general lock.
  void initLocks();
  // Reads the emergency journal and resumes what a restart interrupted: an
  // emergency still requested is raised again, a call-back period goes on.
  void resumeFromJournal();
  void subscribeEmbPhSignals(const char* sigName);
  void subscribeTtsSignals(const char* sigName);
  void subscribeBtSignals(const char* sigName);
  void subscribeAudioCtrlSignals(const char* sigName);
  void subscribeAppManagerSignals(const char* sigName);

  // ---- Volumes and Bluetooth call state (volumesAndBluetooth.cpp) ----
  void getDefaultVolumes();
  void setRingVolume(int step);
  static void onSubcribedBTSignal(const char* sigName, const char* data, void* context);

  // ---- Cellular module USB ports (usbPorts.cpp) ----
  static std::string parseSWIUSBPortsStr(const char* reply);
  std::string getSWIUSBPorts();
  void asyncRequestSWIUSBPorts();
  static void onAsyncSWIUSBPortsResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context);

  // Texts of emdPhOn + 1.
  static const char* const sEmbPhoneStatusString[3];

 private:
  friend class ecallStateMachine;
  friend struct processProbe;  // the unit tests' view

  // The peers the processor calls.
  CANImpactECallHandler& canIpcEmergencyHandler;
  externalServiceHandling& extServHandle;

  processorTimers& timers() { return mStateMachine.timers(); }
  void sendStateMachinePulse(int code) { mStateMachine.sendPulse(code); }
  // The failure word, read under the processor's general lock when it exists.
  uint32_t readSystemError();

  // The App Manager's signals about the Assist application (assistApp.cpp).
  void onOperStatus(const char* text, const Json::Value& data);
  void onAppLifeSignal(const std::string& name, const Json::Value& data);

  // What a request leads to besides its recording, told once the request
  // lock is released (emergencyRequests.cpp): the press-with-system-error
  // notice (how many times), and the blink of a press during a call.
  struct requestNotices {
    int systemErrorNotices = 0;
    bool repeatedPress = false;
  };
  requestNotices decideEmergency(ecallMain::eEmergencyType newType);
  void tellRequestNotices(const requestNotices& notices);

  // Why a test call cannot start now ("" when it can); the request lock is
  // held (testCall.cpp).
  std::string testCallRefusal() const;
  // The vehicle's test number, checked against every emergency number;
  // "" when it may be dialled, else why not.
  std::string readTestNumber(std::string& number);
  // A test call the state machine cannot run is dropped, with the reason.
  void dropTestCall(const char* why);

  // The phone's presence, module resets and antenna (phoneStatus.cpp).
  void phoneSeenOn(CQVTraceScope& scope);
  void phoneSeenOff(CQVTraceScope& scope, int32_t oldStatus);
  void requestModuleReset(const char* requestedText, const char* exhaustedText);
  void evaluateAntennaStatus(const char* report);

  // ---- Fields ----
  std::atomic<ecallMain::eEmergencyType> curECallType{ecallMain::NONE};
  std::atomic<ecallMain::eCallModeType> curCallModeType{ecallMain::CALL_NONE};
  sharedText curCallState{"CALL_STATE_IDLE"};
  std::atomic<bool> callConnected{false};
  std::atomic<int32_t> emdPhOn{-1};  // -1 unknown, 0 OFF, 1 ON
  // The phone's own status reports so far: an answer to a status query that
  // a report overtook is older than the report and is not taken. The count
  // and emdPhOn change together under mPhoneStatusMutex.
  std::atomic<unsigned> phoneStatusReports{0};
  std::mutex mPhoneStatusMutex;
  sharedText localEcallNumber;
  std::atomic<bool> btCallActive{false};
  std::atomic<bool> ecallModeActive{false};
  std::atomic<bool> bAssistAppActive{false};
  std::atomic<bool> ecallSignalActive{false};
  std::atomic<bool> orcMonitoringStarted{false};
  std::atomic<uint32_t> systemError{0};
  std::atomic<bool> mWillDisconnBT{false};
  // The emergency in curECallType was recorded while the phone could not
  // call; it is handed to emergencyHappened when the phone is back.
  std::atomic<bool> waitingForPhone{false};
  // The emergency in curECallType is requested but no number could be read
  // yet; it is tried again at the retry period, or when a number arrives.
  std::atomic<bool> waitingForNumber{false};
  // Taken for each decision on the request (type, mode and the two waiting
  // markers) by the emergencies, the phone's return, a cancel and the
  // centre's call; never held across a peer request.
  std::mutex mRequestMutex;
  // The number of the test call in hand (kept only in memory).
  sharedText testCallNumber;
  // Counts the numbers stored, so that a number that arrives while a read
  // fails is not missed.
  std::atomic<unsigned> numbersStored{0};

  // What the service must not forget of the emergency in hand.
  emergencyJournal mJournal;
  // The rest of a call-back period resumed at start-up (the service's ms).
  std::atomic<int64_t> resumedCallbackPeriodMs{0};

  // When each stage of the call in hand happened, and of the last call.
  callTimings::stageClock mStageClock;

  // The prompt last requested by the state machine (eECallTtsPrompt). The
  // prompt for the emergency centre is two readouts chained by the
  // "ttsPlayState" completions on the bus thread while the state machine may
  // be deciding to start it: activeTts, firstPsapTtsCount and
  // firstPsapTtsWaitForComplete change together under promptSequenceMutex
  // (held only for the change, never across a bus request).
  std::atomic<int> activeTts{0};
  std::atomic<bool> firstPsapTtsWaitForComplete{false};
  std::atomic<int> firstPsapTtsCount{0};
  std::mutex promptSequenceMutex;
  std::atomic<bool> errorSentForNoEcallNumberLoaded{false};

  std::atomic<int> embeddedPhAvail{0};      // the EmbeddedPhone service has an owner
  std::atomic<bool> systemErrorSent{false};  // the first system error was told; never cleared
  SVCIPC_tSigSubHnd embeddedPhOwnerSubHnd = nullptr;

  // Made by initEcallProcessor; taken only once their flags say so.
  pthread_mutex_t logWriteMutex;
  std::atomic<bool> uselogWriteMutex{false};
  pthread_mutex_t generalEcallProcessorMutex;
  std::atomic<bool> useGeneralEcallProcessorMutex{false};

  sharedText assistAppUUID{ecallMain::defaultAssistAppUUID};  // Assist application identifier

  std::atomic<int32_t> defaultPhoneVol{15};   // 15 until read
  std::atomic<int32_t> defaultPromptVol{15};  // 15 until read, then 12

  // Makes the log's entries durable (emergencyLog.cpp).
  platform::fileSyncer logSyncer;

  // Last: its thread uses the fields above.
  ecallStateMachine mStateMachine{*this, canIpcEmergencyHandler, extServHandle};
};
