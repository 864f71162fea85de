#include "ecallProcessor/ecallProcessor.h"

std::string ecallProcessor::parseSWIUSBPortsStr(const char*) { return "Read Failure"; }
std::string ecallProcessor::getSWIUSBPorts() { return "Read Failure"; }
void ecallProcessor::asyncRequestSWIUSBPorts() {}
void ecallProcessor::onAsyncSWIUSBPortsResult(const SVCIPC_tCallbackStatus*, const char*, void*) {}
