#include "ecallProcessor/ecallProcessor.h"

void ecallProcessor::initEcallProcessor() {}
void ecallProcessor::subscribeEmbPhSignals(const char*) {}
void ecallProcessor::subscribeTtsSignals(const char*) {}
void ecallProcessor::subscribeBtSignals(const char*) {}
void ecallProcessor::subscribeAudioCtrlSignals(const char*) {}
void ecallProcessor::subscribeAppManagerSignals(const char*) {}
