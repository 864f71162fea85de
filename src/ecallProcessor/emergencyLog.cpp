#include "ecallProcessor/ecallProcessor.h"

// Work in progress.
void ecallProcessor::addEntryToEmergencyLog(const char* text) {}
void ecallProcessor::addFormattedEntryToEmergencyLog(const char* format, ...) {}
void ecallProcessor::saveEmergencyLogToUSBAndRemoveLocalLog() {}
void ecallProcessor::createFlagInTmp(bool create, std::string path) {}
