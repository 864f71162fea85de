#include "externalServiceHandling/externalServiceHandling.h"

bool externalServiceHandling::getEmebeddedPhoneEnabledInVariant() { return true; }
void externalServiceHandling::getVehicleBrand() {}
void externalServiceHandling::getCurrentLanguage() {}
void externalServiceHandling::logSystemSWInfo() {}
