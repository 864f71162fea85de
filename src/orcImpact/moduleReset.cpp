#include "orcImpact/CANImpactECallHandler.h"

bool CANImpactECallHandler::v850ResetSierra() { return false; }
void CANImpactECallHandler::resetV850ResetPhCounter() {}
