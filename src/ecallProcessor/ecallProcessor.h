// The emergency call processor: the state machine thread and its timers,
// emergency requests and call modes, the embedded phone's call state, status
// and failures, the emergency number, the Assist application, the emergency
// log, volumes, Bluetooth call state and the module's USB ports.
//
// One instance, ecallHandler. Other threads write the request fields (type,
// mode, call state) and wake the state machine by a pulse; the state machine
// re-reads them at each step. The fields shared between threads are atomics
// (or sharedText) so that each read and write is whole.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "common/ecallTypes.h"
#include "common/sharedText.h"
#include "platform/serviceBus.h"
#include "platform/trace.h"

extern CQVTraceScopeDef ecallProcessorTraceScope;  // "ecallService_ecallProcessor"
extern CQVTraceScopeDef stateMachineTraceScope;    // "statemachine"

// ---- State machine (stateMachine.cpp) ----

enum ecallStateMachineStates : int32_t {
  ECALL_SM_IDLE = 0,
  ECALL_SM_CALL_DELAY = 1,
  ECALL_SM_MAKE_CALL = 2,
  ECALL_SM_WAIT_TO_CONNECT = 3,
  ECALL_SM_CALL_ACTIVE = 4,
  ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS = 5,
  ECALL_SM_WAIT_FOR_END_FROM_HMI = 6,
  ECALL_SM_INCOMING_CALL_OPEN_AUDIO_FOR_RING_TONES = 7,
  ECALL_SM_INCOMING_CALL_WAIT_RING_TONES_COMPLETE = 8,
  ECALL_SM_INCOMING_CALL_ANSWER = 9,
  ECALL_SM_INCOMING_CALL_WAIT_FOR_CALL_ACTIVE = 10,
};

// Pulse codes of the state machine's channel (the value is always 0).
enum ecallStateMachinePulse : int {
  ECALL_PULSE_RUN_STATE_MACHINE = 1,
  ECALL_PULSE_START_CALL = 2,
  ECALL_PULSE_DELAY_START = 3,
  ECALL_PULSE_PSAP_CALL_ENDED = 4,
  ECALL_PULSE_CONNECT_TIMEOUT = 5,
  ECALL_PULSE_EMERGENCY_INCOMING_CALL = 6,
  ECALL_PULSE_ASSIST_NEVER_ACTIVE = 7,
  ECALL_PULSE_PHONE_NOT_PRESENT = 8,
  ECALL_PULSE_ANTENNA_FAULT = 9,
  ECALL_PULSE_DELAY_SYS_ERR_NO_SIERRA_COMM = 10,
  // The phone's reply to the dial request was an error (sent by the bus
  // thread, judged by the state machine).
  ECALL_PULSE_DIAL_FAILED = 11,
};

// Name of a state for traces (the table has no row for state 5, kept so).
const char* getStateMachineString(ecallStateMachineStates state);
void* mainStateMachineThreadFunc(void* arg);

extern std::atomic<int> stateMachineThreadReceiveChannelId;
extern std::atomic<int> stateMachineThreadSendChannelId;
extern pthread_t mainStateMachineThreadHnd;
// The prompt last requested by the state machine (eECallTtsPrompt).
extern std::atomic<int> activeTts;
extern std::atomic<bool> firstPsapTtsWaitForComplete;
extern std::atomic<int> firstPsapTtsCount;
extern std::atomic<bool> errorSentForNoEcallNumberLoaded;

// MsgSendPulse(stateMachineThreadSendChannelId, getprio(0), code, 0).
void sendStateMachinePulse(int code);

// ---- Process-wide flags and locks ----

extern std::atomic<int> embeddedPhAvail;   // the EmbeddedPhone service has an owner
extern std::atomic<bool> systemErrorSent;  // the first system error was told; never cleared
extern SVCIPC_tSigSubHnd embeddedPhOwnerSubHnd;

extern pthread_mutex_t logWriteMutex;
extern std::atomic<bool> uselogWriteMutex;
extern pthread_mutex_t generalEcallProcessorMutex;
extern std::atomic<bool> useGeneralEcallProcessorMutex;

extern sharedText assistAppUUID;  // Assist application identifier

extern std::atomic<int32_t> defaultPhoneVol;   // 15 until read
extern std::atomic<int32_t> defaultPromptVol;  // 15 until read, then 12

// Limit of the emergency log, and the size of one entry line.
constexpr long EMERGENCY_LOG_SIZE_LIMIT = 1024000;
constexpr int EMERGENCY_LOG_ENTRY_SIZE = 256;
inline const std::string emergencyLogDir = "/fs/etfs/usr/var/ecall";
inline const std::string emergencyLogPath = "/fs/etfs/usr/var/ecall/ecall_log.txt";
inline const std::string gpsResetLogPath = "/fs/etfs/usr/var/ecall/GPSReset.log";

class ecallProcessor {
 public:
  ecallProcessor();  // writes "ECall Service Version" to the emergency log
  ~ecallProcessor();
  ecallProcessor(const ecallProcessor&) = delete;
  ecallProcessor& operator=(const ecallProcessor&) = delete;

  // ---- Requests and call modes (emergencyRequests.cpp) ----
  ecallMain::eEmergencyType getCurECallType() const { return curECallType.load(); }
  ecallMain::eCallModeType getCurCallModeType() const { return curCallModeType.load(); }
  std::string getCurCallState() const { return curCallState.get(); }
  bool getCallConnected() const { return callConnected.load(); }
  bool getEcallModeActive() const { return ecallModeActive.load(); }
  std::string getLocalEcallNumber() const { return localEcallNumber.get(); }
  void setEcallFailedToStart();
  void clearECallEvent();
  void setEcallModeActive(bool active);
  void exitEmergencyMode();
  void assistButtonPressed();
  void processCachedEcallStatus();
  // The phone is seen ON again: an emergency recorded while it could not
  // call is handed over once, whichever way the return was seen.
  void servePhoneReturn();
  void emergencyHappened(ecallMain::eEmergencyType newType);
  void processEcallBtnPressWithSystemError();
  void requestHMIDisplayPleaseWaitPopup();

  // ---- Requests of the state machine to the phone (stateMachine.cpp) ----
  void hangUpCall();
  bool acceptEmergencyCallback();
  void logPsapEndedIncomingCallAndClearCall();
  static void onAsyncResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context);

  // ---- Call state, end reasons, prompts, DTMF (callState.cpp) ----
  static void onSubcribedSignal(const char* sigName, const char* data, void* context);
  void processEmdPhCallState(const char* data);
  void processWendReason(const char* data);
  void processTtsPlayState(const char* data);
  void processDtmf(const char* data);

  // ---- Phone status, owner, antenna, system failure (phoneStatus.cpp) ----
  void setEcallSystemFailureState(ecallSystemFailure::eSource source, bool failed);
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
  void sendAssistStatus();
  void onAssistNeverActiveTimeout();  // reaction of the state machine to pulse 7

  // ---- Emergency log and marker files (emergencyLog.cpp) ----
  void addEntryToEmergencyLog(const char* text);
  // Formats into a 256-byte entry (cut safely) and appends it.
  void addFormattedEntryToEmergencyLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void saveEmergencyLogToUSBAndRemoveLocalLog();
  void createFlagInTmp(bool create, std::string path);

  // ---- Initialisation and subscriptions (initialisation.cpp) ----
  void initEcallProcessor();
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

  // ---- Fields ----
  std::atomic<ecallMain::eEmergencyType> curECallType{ecallMain::NONE};
  std::atomic<ecallMain::eCallModeType> curCallModeType{ecallMain::CALL_NONE};
  sharedText curCallState{"CALL_STATE_IDLE"};
  std::atomic<bool> callConnected{false};
  std::atomic<int32_t> emdPhOn{-1};  // -1 unknown, 0 OFF, 1 ON
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
  // Counts the numbers stored, so that a number that arrives while a read
  // fails is not missed.
  std::atomic<unsigned> numbersStored{0};

  // Texts of emdPhOn + 1.
  static const char* const sEmbPhoneStatusString[3];
};
