// The processor object, its trace scopes and the process-wide flags and locks.
#include "ecallProcessor/ecallProcessor.h"

#include "ecallMain/ecallMain.h"

CQVTraceScopeDef ecallProcessorTraceScope("ecallService_ecallProcessor", "all");
CQVTraceScopeDef stateMachineTraceScope("statemachine", "all");

std::atomic<int> embeddedPhAvail{0};
std::atomic<bool> systemErrorSent{false};
SVCIPC_tSigSubHnd embeddedPhOwnerSubHnd = nullptr;

pthread_mutex_t logWriteMutex;
std::atomic<bool> uselogWriteMutex{false};
pthread_mutex_t generalEcallProcessorMutex;
std::atomic<bool> useGeneralEcallProcessorMutex{false};

const char* const ecallProcessor::sEmbPhoneStatusString[3] = {"UNKNOWN", "OFF", "ON"};

ecallProcessor::ecallProcessor() {}

ecallProcessor::~ecallProcessor() {}
