#include "ecallProcessor/ecallProcessor.h"

sharedText assistAppUUID{ecallMain::defaultAssistAppUUID};

void ecallProcessor::getAssistAppUUID() {}
void ecallProcessor::onSubcribedAppMngrSignal(const char* sigName, const char* data, void* context) {}
void ecallProcessor::processAssistAppOperStatus(ecallMain::eXletState state) {}
void ecallProcessor::asyncStopAssistApp() {}
void ecallProcessor::sendAssistStatus() {}
void ecallProcessor::onAssistNeverActiveTimeout() {}
