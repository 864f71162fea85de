#include "externalServiceHandling/externalServiceHandling.h"

void externalServiceHandling::initExternalServiceHandling() {}
void* externalServiceCommandThreadFunc(void*) { return nullptr; }
void externalServiceHandling::processCommand(int, int) {}
void externalServiceHandling::asyncAbortCurrentTtsMsg() {}
void externalServiceHandling::ayncPlayTtsMsg(eECallTtsPrompt) {}
void externalServiceHandling::asyncSetMicInputMuteState(bool) {}
void externalServiceHandling::onPlatformOwnerChange(const char*, const char*, const char*, void*) {}
