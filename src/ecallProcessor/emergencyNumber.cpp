#include "ecallProcessor/ecallProcessor.h"

int ecallProcessor::parseEcallNumber(const char*) { return 0; }
bool ecallProcessor::readECallNumber() { return false; }
void ecallProcessor::asyncReadECallNumber() {}
void ecallProcessor::onAsyncEcallNumberResult(const SVCIPC_tCallbackStatus*, const char*, void*) {}
bool ecallProcessor::isPhoneNumberValid(const char*) { return false; }
