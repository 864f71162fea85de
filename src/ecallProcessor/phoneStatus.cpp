#include "ecallProcessor/ecallProcessor.h"

void ecallProcessor::setEcallSystemFailureState(ecallSystemFailure::eSource, bool) {}
void ecallProcessor::registerEmdPhSvc() {}
void ecallProcessor::onEmbeddedPhoneOwnerChange(const char*, const char*, const char*, void*) {}
void ecallProcessor::getEmdPhStatus() {}
void ecallProcessor::processEmdPhStatusSignal(const char*) {}
void ecallProcessor::processAntennaStatusSignal(const char*) {}
void ecallProcessor::checkAntennaStatus() {}
void ecallProcessor::asyncCheckAntennaStatus() {}
void ecallProcessor::onAsyncAntennaStatusResult(const SVCIPC_tCallbackStatus*, const char*, void*) {}
void ecallProcessor::onPhoneNotPresentTimeout() {}
void ecallProcessor::onAntennaFaultTimeout() {}
void ecallProcessor::onDelaySysErrTimeout() {}
