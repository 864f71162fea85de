#include "orcImpact/CANImpactECallHandler.h"

const orcIpcLocation orcIpcLocationTable[ecallMain::IMPACT_KIND_COUNT] = {};
const uint8_t orcSerialTriggers[] = {13};
const uint8_t orcCanTriggers[] = {13};

void* canImpactThrdFunc(void* arg) { return nullptr; }
void CANImpactECallHandler::processOrcMessage(const uint8_t* msg, int n) {}
