// Enumerations, name tables and fixed strings shared by every module.
// The ordinals are binding: they index the tables, travel inside pulses and
// choose the texts of signals and log lines.
#pragma once

#include <cstdint>
#include <string>

namespace ecallMain {

// What caused the emergency: 0 none, 1 the mirror emergency button, 2..14 the
// thirteen impact kinds of the restraint controller's CAN path, 15..27 the
// same kinds on its serial path (a serial kind is its CAN kind + 13),
// 28 the emergency centre's callback, 29 a test call (no emergency: it is
// dialled to the vehicle's test number only, and never kept across a
// restart).
enum eEmergencyType : int32_t {
  NONE = 0,
  E_CALL_BtnStat = 1,
  CAN_IMPACT_A = 2,
  CAN_IMPACT_B = 3,
  CAN_IMPACT_C = 4,
  CAN_IMPACT_D = 5,
  CAN_IMPACT_F = 6,
  CAN_IMPACT_Tgl = 7,
  CAN_IMPACT_H = 8,
  CAN_IMPACT_I = 9,
  CAN_IMPACT_K = 10,
  CAN_IMPACT_L = 11,
  CAN_IMPACT_M = 12,
  CAN_IMPACT_O = 13,
  CAN_IMPACT_X = 14,
  SERIAL_IMPACT_A = 15,
  SERIAL_IMPACT_B = 16,
  SERIAL_IMPACT_C = 17,
  SERIAL_IMPACT_D = 18,
  SERIAL_IMPACT_F = 19,
  SERIAL_IMPACT_Tgl = 20,
  SERIAL_IMPACT_H = 21,
  SERIAL_IMPACT_I = 22,
  SERIAL_IMPACT_K = 23,
  SERIAL_IMPACT_L = 24,
  SERIAL_IMPACT_M = 25,
  SERIAL_IMPACT_O = 26,
  SERIAL_IMPACT_X = 27,
  Emergency_Callback = 28,
  TEST_CALL = 29,
  EMERGENCY_TYPE_COUNT = 30
};

// The thirteen impact kinds of one path.
constexpr int32_t IMPACT_KIND_COUNT = 13;
constexpr int32_t CAN_IMPACT_FIRST = CAN_IMPACT_A;
constexpr int32_t SERIAL_IMPACT_FIRST = SERIAL_IMPACT_A;

inline const std::string EmergencyEvent[EMERGENCY_TYPE_COUNT] = {
    "NONE",
    "E_CALL_BtnStat",
    "CAN_IMPACT_A",
    "CAN_IMPACT_B",
    "CAN_IMPACT_C",
    "CAN_IMPACT_D",
    "CAN_IMPACT_F",
    "CAN_IMPACT_Tgl",
    "CAN_IMPACT_H",
    "CAN_IMPACT_I",
    "CAN_IMPACT_K",
    "CAN_IMPACT_L",
    "CAN_IMPACT_M",
    "CAN_IMPACT_O",
    "CAN_IMPACT_X",
    "SERIAL_IMPACT_A",
    "SERIAL_IMPACT_B",
    "SERIAL_IMPACT_C",
    "SERIAL_IMPACT_D",
    "SERIAL_IMPACT_F",
    "SERIAL_IMPACT_Tgl",
    "SERIAL_IMPACT_H",
    "SERIAL_IMPACT_I",
    "SERIAL_IMPACT_K",
    "SERIAL_IMPACT_L",
    "SERIAL_IMPACT_M",
    "SERIAL_IMPACT_O",
    "SERIAL_IMPACT_X",
    "Emergency_Callback",
    "TEST_CALL",
};

inline const std::string EmergencyEventDescription[EMERGENCY_TYPE_COUNT] = {
    "NONE",
    "ECall button was pressed by the user",
    "CAN - Front pretensioner event",
    "CAN - More severe rear event",
    "CAN - More severe front event",
    "CAN - Less severe side event",
    "CAN - Less severe front event",
    "CAN - Toggle bit for all impact events",
    "CAN - Rollover event 2 (Fast developing roll - Window Curtains and/or Pretensioners)",
    "CAN - Rollover",
    "CAN - Driver side event",
    "CAN - More severe side event",
    "CAN - Passenger side event",
    "CAN - Pedestrian event",
    "CAN - Any impact event",
    "SERIAL - Front pretensioner event",
    "SERIAL - More severe rear event",
    "SERIAL - More severe front event",
    "SERIAL - Less severe side event",
    "SERIAL - Less severe front event",
    "SERIAL - Toggle bit for all impact events",
    "SERIAL - Rollover event 2 (Fast developing roll - Window Curtains and/or Pretensioners)",
    "SERIAL - Rollover",
    "SERIAL - Driver side event",
    "SERIAL - More severe side event",
    "SERIAL - Passenger side event",
    "SERIAL - Pedestrian event",
    "SERIAL - Any impact event",
    "Emergency Callback",
    "Test call to the vehicle's test number",
};

// How the emergency is presented to the user interface ("type" of the
// "ecall" signal). CALL_NOCHANGE is a command to the signal emitter: repeat
// the mode last signalled; it is never itself sent. CALL_TEST, the test
// call's mode, comes after it, so that the emergency modes keep their
// numbers.
enum eCallModeType : int32_t {
  CALL_NONE = 0,
  CALL_ACN = 1,
  CALL_ECALL_DELAY = 2,
  CALL_ECALL = 3,
  CALL_EMERGENCY_CALLBACK = 4,
  CALL_REDIAL_DURING_END = 5,
  CALL_FAILED = 6,
  CALL_SYSTEM_ERROR = 7,
  CALL_ECALL_BUTTON_REPEAT = 8,
  CALL_NOCHANGE = 9,
  CALL_TEST = 10,
  CALL_MODE_COUNT = 11
};

inline const std::string eCallModeTypeString[CALL_MODE_COUNT] = {
    "none",   "acn",         "ecallDelay",          "ecall",    "emergency_callback",
    "redial_during_end", "failed", "systemError", "ecall_button_repeat", "nochange",
    "testCall",
};

// Operating state of the Assist application, as the application manager
// reports it.
enum eXletState : int32_t {
  XLET_INITIALIZING = 0,
  XLET_PAUSED = 1,
  XLET_STARTING = 2,
  XLET_RUNNING = 3,
  XLET_STOPPING = 4,
  XLET_STOPPED = 5,
  XLET_STATE_COUNT = 6
};

inline const std::string eXletStateString[XLET_STATE_COUNT] = {
    "initializing", "paused", "starting", "running", "stopping", "stopped",
};

// Identifier of the Assist application when the application manager's
// configuration names none.
inline const std::string defaultAssistAppUUID = "3305261F-B524-4E27-8048-C5778A672389";

}  // namespace ecallMain

namespace ecallSystemFailure {

// A reason why emergency calls are not possible; each owns one bit of the
// processor's failure word.
enum eSource : int32_t {
  SOURCE_NONE = 0,
  EMBEDDED_PHONE_NOT_PRESENT = 1,
  ORC_LOC = 2,
  EMBEDDED_PHONE_SERVICE_NOT_RUNNING = 3,
  ORC_CAN_LOC = 4,
  ORC_SERIAL_LOC = 5,
  MIRROR_LOC = 6,
  ANTENNA_FAULT = 7,
  NO_ECALL_NUMBER = 8,
  SOURCE_COUNT = 9
};

inline const uint32_t bitMask[SOURCE_COUNT] = {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};

inline const std::string sDescription[SOURCE_COUNT] = {
    "none",
    "embedded phone not present",
    "ORC LOC",
    "embedded phone service not running",
    "ORC CAN LOC",
    "ORC Serial LOC",
    "Mirror LOC",
    "antenna fault",
    "no ecall number programmed",
};

}  // namespace ecallSystemFailure

// The mirror button PPS object: blocking reads of the changed values of the
// two button attributes only.
inline const std::string ecallBtnPPSPath = "/pps/can/vehstat?wait,delta,f=E_CALL_BtnStat+U_CALL_BtnStat";
// Exists while a reset of the cellular module is in progress.
inline const std::string resetMarkerFile = "/tmp/resetSierraInprogress";
// Application manager configuration, read for the Assist identifier.
inline const std::string appMngrConfigPath = "/etc/system/config/appManager.cfg";
inline const std::string cfgFileAssistAppId = "uuidAssistApp";
// The antenna whose diagnosis is asked of the embedded phone, and its
// no-fault status.
inline const std::string embeddedPhoneAntennaIdentifier = "PHONE_ANTENNA_PRIMARY";
inline const std::string embeddedPhoneAntennaStatNormal = "PHONE_DIAG_ANTENNA_NORMAL";

// Further paths and bus names every module uses.
inline const std::string vehicleStatusPPSPath = "/pps/can/vehstat";
inline const std::string orcIpcChannelPath = "/dev/ipc/ch12";
inline const std::string embeddedCallActiveFlag = "/tmp/embeddedCallActive";

// Progress codes of the "ecallProgress" signal.
constexpr unsigned int ECALL_PROGRESS_MIC_MUTED = 0xDA80;    // 55936
constexpr unsigned int ECALL_PROGRESS_MIC_UNMUTED = 0xDA6B;  // 55915

#define ECALL_SERVICE_NAME "com.nordak.service.ecallService"
#define ECALL_SERVICE_PATH "/com/nordak/service/ecallService"
#define EMBEDDED_PHONE_SERVICE "com.nordak.service.EmbeddedPhone"
#define EMBEDDED_PHONE_PATH "/com/nordak/service/EmbeddedPhone"
#define TTS_SERVICE "com.nordak.service.TextToSpeechService"
#define TTS_PATH "/com/nordak/service/TextToSpeechService"
#define AUDIO_MIXER_SERVICE "com.nordak.service.AudioMixerManager"
#define AUDIO_MIXER_PATH "/com/nordak/service/AudioMixerManager"
#define AUDIO_CTRL_SERVICE "com.nordak.service.AudioCtrlSvc"
#define AUDIO_CTRL_PATH "/com/nordak/service/AudioCtrlSvc"
#define PSSE_SERVICE "com.nordak.service.psseControlService"
#define PSSE_PATH "/com/nordak/service/psseControlService"
#define BLUETOOTH_SERVICE "com.nordak.service.BluetoothService"
#define BLUETOOTH_PATH "/com/nordak/service/BluetoothService"
#define APP_MANAGER_SERVICE "com.nordak.service.AppManager"
#define APP_MANAGER_PATH "/com/nordak/service/AppManager"
#define HMI_GATEWAY_SERVICE "com.nordak.service.HMIGateWay"
#define HMI_GATEWAY_PATH "/com/nordak/service/HMIGateWay"
#define PLATFORM_SERVICE "com.nordak.service.platform"
#define PLATFORM_PATH "/com/nordak/service/platform"
#define VEHICLE_CONFIG_SERVICE "com.nordak.service.VehicleConfig"
#define VEHICLE_CONFIG_PATH "/com/nordak/service/VehicleConfig"
#define VEHICLE_STATUS_SERVICE "com.nordak.service.VehicleStatus"
#define VEHICLE_STATUS_PATH "/com/nordak/service/VehicleStatus"
#define NDR_SERVICE "com.nordak.service.NDR"
#define NDR_PATH "/com/nordak/service/NDR"
