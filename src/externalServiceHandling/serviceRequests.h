// Module-internal helpers of the external services: the head-unit services
// this module talks to, the two request forms it uses, and safe reads of
// members from their JSON answers (a peer's answer never makes the service
// throw, whatever its shape).
#pragma once

#include <json/json.h>

#include <string>

#include "common/ecallTypes.h"
#include "platform/serviceBus.h"

namespace extServ {

// A head-unit service: its bus name and the object path it serves.
struct busService {
  const char* name;
  const char* path;
};

inline constexpr busService ttsService{"com.nordak.service.TextToSpeechService",
                                       "/com/nordak/service/TextToSpeechService"};
inline constexpr busService navigationService{"com.nordak.service.NDR", "/com/nordak/service/NDR"};
inline constexpr busService audioMixerService{"com.nordak.service.AudioMixerManager",
                                              "/com/nordak/service/AudioMixerManager"};
inline constexpr busService audioCtrlService{"com.nordak.service.AudioCtrlSvc", "/com/nordak/service/AudioCtrlSvc"};
inline constexpr busService psseService{"com.nordak.service.psseControlService",
                                        "/com/nordak/service/psseControlService"};
inline constexpr busService bluetoothService{"com.nordak.service.BluetoothService",
                                             "/com/nordak/service/BluetoothService"};
inline constexpr busService platformService{"com.nordak.service.platform", "/com/nordak/service/platform"};
inline constexpr busService vehicleConfigService{"com.nordak.service.VehicleConfig",
                                                 "/com/nordak/service/VehicleConfig"};
inline constexpr busService vehicleStatusService{"com.nordak.service.VehicleStatus",
                                                 "/com/nordak/service/VehicleStatus"};
inline constexpr busService embeddedPhoneService{EMBEDDED_PHONE_SERVICE, EMBEDDED_PHONE_PATH};
inline constexpr busService hmiGatewayService{HMI_GATEWAY_SERVICE, HMI_GATEWAY_PATH};
inline constexpr busService appManagerService{APP_MANAGER_SERVICE, APP_MANAGER_PATH};

// A synchronous request bounded by the peer reply bound: a hung peer costs
// the caller one second (scaled), never the bus's 25 s. The answer's text
// goes to *result when the caller wants it; the response is released here.
SVCIPC_tError invokeSync(const busService& service, const char* method, const std::string& params,
                         std::string* result = nullptr);
// The same with the caller's time limit in ms (SVCIPC_TIMEOUT_DEFAULT: the
// bus's own).
SVCIPC_tError invokeSync(const busService& service, const char* method, const std::string& params,
                         std::string* result, int timeoutMs);

// The completion of an asynchronous request named name: the result is
// traced, a failure told in the system log. True when the request failed
// (a request the bus library cancelled itself has not).
bool asyncRequestFailed(const SVCIPC_tCallbackStatus* status, const char* result, const char* name);
// The completion of a request whose reply nothing waits for; the context is
// its name (a text that lives for the process).
void onAsyncResult(const SVCIPC_tCallbackStatus* status, const char* result, void* context);

// An asynchronous request named by context, completed by onAsyncResult.
SVCIPC_tError invokeAsync(const busService& service, const char* method, const std::string& params,
                          const char* context);
// The same with the reply going to onResult, which gets context (the object
// that waits for the reply).
SVCIPC_tError invokeAsync(const busService& service, const char* method, const std::string& params,
                          SVCIPC_tResultCallback onResult, void* context);

// Subscribes to the service's signal sigName for the life of the process.
SVCIPC_tError subscribe(const busService& service, const char* sigName, SVCIPC_tSignalCallback onSignal,
                        void* context);

// When rc says the peer did not answer in time: says so in the trace and the
// system log, with the value the service goes on with, and returns true.
bool reportTimedOut(SVCIPC_tError rc, const char* query, const std::string& kept);

// {"props":[name]}: the one-property query of the configuration services.
std::string propertyQuery(const char* name);

// Member name read as an integer: fallback when it is missing or has no
// integer form.
int intMember(const Json::Value& object, const char* name, int fallback);
// Member name when it is a text, else "".
std::string textMember(const Json::Value& object, const char* name);
// A signal's or answer's text; anything but an object reads as an empty
// object.
Json::Value parseObject(const char* data);

// Member name of an object, or null when value is not an object or lacks it
// (for walking down nested answers).
Json::Value member(const Json::Value& value, const char* name);

}  // namespace extServ
