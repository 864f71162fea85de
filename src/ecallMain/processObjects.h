// The three process-wide worker objects. Every module calls the others
// through them; there is no other registry.
//
// Their constructors already touch the file system (the processor writes its
// version line to the emergency log, the input handler opens the mirror
// button PPS object), and on Linux every path lies under the --root folder
// given on the command line. So they are constructed by createProcessObjects()
// right after the command line is read, before any thread starts, in the
// order ecallHandler, canIpcEmergencyHandler, extServHandle, and destroyed at
// exit in reverse order.
#pragma once

class ecallProcessor;
class CANImpactECallHandler;
class externalServiceHandling;

extern ecallProcessor& ecallHandler;
extern CANImpactECallHandler& canIpcEmergencyHandler;
extern externalServiceHandling& extServHandle;

// Constructs the three objects (once; later calls do nothing).
void createProcessObjects();
