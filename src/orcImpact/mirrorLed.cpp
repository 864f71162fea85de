#include "orcImpact/CANImpactECallHandler.h"

pthread_t blinkTimerThreadHnd;

void CANImpactECallHandler::setLedStatus(eLedStatus status) {}
void CANImpactECallHandler::sendAssistAppStatus(bool active) {}
void CANImpactECallHandler::startBlinkTimer() {}
void* BlinkTimerThreadFunc(void* arg) { return nullptr; }
