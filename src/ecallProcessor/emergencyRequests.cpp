#include "ecallProcessor/ecallProcessor.h"

void ecallProcessor::setEcallFailedToStart() {}
void ecallProcessor::clearECallEvent() {}
void ecallProcessor::setEcallModeActive(bool) {}
void ecallProcessor::exitEmergencyMode() {}
void ecallProcessor::assistButtonPressed() {}
void ecallProcessor::processCachedEcallStatus() {}
void ecallProcessor::emergencyHappened(ecallMain::eEmergencyType) {}
void ecallProcessor::processEcallBtnPressWithSystemError() {}
void ecallProcessor::requestHMIDisplayPleaseWaitPopup() {}
