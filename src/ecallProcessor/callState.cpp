#include "ecallProcessor/ecallProcessor.h"

void ecallProcessor::onSubcribedSignal(const char*, const char*, void*) {}
void ecallProcessor::processEmdPhCallState(const char*) {}
void ecallProcessor::processWendReason(const char*) {}
void ecallProcessor::processTtsPlayState(const char*) {}
void ecallProcessor::processDtmf(const char*) {}
