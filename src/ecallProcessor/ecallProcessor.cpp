// The processor object, its trace scopes and the process-wide flags and
// locks of the processor module.
#include "ecallProcessor/ecallProcessor.h"

#include "ecallMain/ecallMain.h"

CQVTraceScopeDef ecallProcessorTraceScope("ecallService_ecallProcessor", "all");
CQVTraceScopeDef stateMachineTraceScope("statemachine", "all");

std::atomic<int> embeddedPhAvail{0};
std::atomic<bool> systemErrorSent{false};
SVCIPC_tSigSubHnd embeddedPhOwnerSubHnd = nullptr;

// Made by initEcallProcessor; taken only once their flags say so.
pthread_mutex_t logWriteMutex;
std::atomic<bool> uselogWriteMutex{false};
pthread_mutex_t generalEcallProcessorMutex;
std::atomic<bool> useGeneralEcallProcessorMutex{false};

const char* const ecallProcessor::sEmbPhoneStatusString[3] = {"UNKNOWN", "OFF", "ON"};

// The fields start as declared. The version line marks each start of the
// service in the emergency log; it is written before the log lock exists.
ecallProcessor::ecallProcessor() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  addFormattedEntryToEmergencyLog("ECall Service Version %s\n", ecallServiceVersion);
}

ecallProcessor::~ecallProcessor() { CQVTraceScope scope(ecallProcessorTraceScope, __func__); }
