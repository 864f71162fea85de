#include "orcImpact/CANImpactECallHandler.h"

void* ecallReadThrdFunc(void* arg) { return nullptr; }
void CANImpactECallHandler::processButtonPpsText(char* text, bool& armed) {}
