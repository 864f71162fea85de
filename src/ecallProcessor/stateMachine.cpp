#include <atomic>

#include "ecallProcessor/ecallProcessor.h"

std::atomic<int> stateMachineThreadReceiveChannelId{0};
std::atomic<int> stateMachineThreadSendChannelId{0};
pthread_t mainStateMachineThreadHnd{};
std::atomic<int> activeTts{0};
std::atomic<bool> firstPsapTtsWaitForComplete{false};
std::atomic<int> firstPsapTtsCount{0};
std::atomic<bool> errorSentForNoEcallNumberLoaded{false};

const char* getStateMachineString(ecallStateMachineStates) { return "NONE"; }
void* mainStateMachineThreadFunc(void*) { return nullptr; }
void sendStateMachinePulse(int) {}

void ecallProcessor::hangUpCall() {}
bool ecallProcessor::acceptEmergencyCallback() { return false; }
void ecallProcessor::logPsapEndedIncomingCallAndClearCall() {}
void ecallProcessor::onAsyncResult(const SVCIPC_tCallbackStatus*, const char*, void*) {}
