// The three process-wide worker objects.
//
// Each lives in static storage of its own, so the references every module
// holds are valid from the start of the program (the processor, built first,
// is handed the inputs and the services before they are built), but the
// object is built only by createProcessObjects(), once the root folder is
// known. They are destroyed at exit in reverse order of creation.
#include "ecallMain/processObjects.h"

#include <cstdlib>
#include <mutex>
#include <new>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"

namespace {

// Storage for one object that is constructed and destroyed explicitly.
template <class T>
union processObjectSlot {
  constexpr processObjectSlot() : unused() {}
  ~processObjectSlot() {}
  char unused;
  T object;
};

processObjectSlot<ecallProcessor> processorSlot;
processObjectSlot<CANImpactECallHandler> inputHandlerSlot;
processObjectSlot<externalServiceHandling> extServSlot;

std::once_flag processObjectsCreated;

void destroyProcessObjects() {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  // A blink timer still running would set the LED through objects gone.
  waitForBlinkTimers();
  extServSlot.object.~externalServiceHandling();
  inputHandlerSlot.object.~CANImpactECallHandler();
  processorSlot.object.~ecallProcessor();
}

}  // namespace

ecallProcessor& ecallHandler = processorSlot.object;
CANImpactECallHandler& canIpcEmergencyHandler = inputHandlerSlot.object;
externalServiceHandling& extServHandle = extServSlot.object;

void createProcessObjects() {
  CQVTraceScope scope(ecallMainTraceScope, __func__);
  std::call_once(processObjectsCreated, [] {
    new (&processorSlot.object) ecallProcessor(inputHandlerSlot.object, extServSlot.object);
    new (&inputHandlerSlot.object) CANImpactECallHandler(processorSlot.object, extServSlot.object);
    new (&extServSlot.object) externalServiceHandling(processorSlot.object);
    std::atexit(destroyProcessObjects);
  });
}
