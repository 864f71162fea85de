#include "externalServiceHandling/externalServiceHandling.h"

CQVTraceScopeDef externalServiceHandlingTraceScope("ecallService_externalServiceHandling", "all");
std::atomic<int> platformDBUSAvail{0};
SVCIPC_tSigSubHnd platformOwnerSubHnd = nullptr;

externalServiceHandling::externalServiceHandling() {}
externalServiceHandling::~externalServiceHandling() {}
