#include "externalServiceHandling/externalServiceHandling.h"

void externalServiceHandling::disableBluetooth() {}
void externalServiceHandling::enableBluetooth() {}
