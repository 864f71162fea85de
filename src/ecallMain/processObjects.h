// The three process-wide worker objects, and the one place where they are
// wired: each is handed the others it calls when it is built (the inputs and
// the external services see the processor only as processorInputs). The
// frame (main, the bus methods) calls them through these references.
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
