// The processor object.
#include "ecallProcessor/ecallProcessor.h"

#include "ecallMain/ecallMain.h"

const char* const ecallProcessor::sEmbPhoneStatusString[3] = {"UNKNOWN", "OFF", "ON"};

// The fields start as declared. The version line marks each start of the
// service in the emergency log; it is written before the log lock exists.
ecallProcessor::ecallProcessor(CANImpactECallHandler& inputs, externalServiceHandling& services)
    : canIpcEmergencyHandler(inputs), extServHandle(services) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  addFormattedEntryToEmergencyLog("ECall Service Version %s\n", ecallServiceVersion);
}

ecallProcessor::~ecallProcessor() { CQVTraceScope scope(ecallProcessorTraceScope, __func__); }
