#include "ecallMain/processObjects.h"

#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"

// Work in progress.
void createProcessObjects() {}
