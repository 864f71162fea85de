#include "orcImpact/CANImpactECallHandler.h"

CQVTraceScopeDef orcImpactTraceScope("ecallService_orcImpact", "all");

CANImpactECallHandler::CANImpactECallHandler() {}
CANImpactECallHandler::~CANImpactECallHandler() {}
void CANImpactECallHandler::monitorCANForEmergency() {}
int CANImpactECallHandler::openPPSObj(std::string path, int& fd) { return 0; }
int CANImpactECallHandler::closePPSObj(int& fd) { return 0; }
