// The timings of a call's stages. A call, for its timings, is one emergency
// from its trigger (the request taken, or the centre's call-back ringing) to
// the end of its call; the stages are marked where the processor sees them
// happen, and the call's line is written to the emergency log at its end,
// never on the way to the dial.
#include "ecallProcessor/ecallProcessor.h"
#include "platform/clocks.h"

void ecallProcessor::markCallStage(callTimings::stage stage) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  mStageClock.mark(stage, platform::monotonicMs());
}

void ecallProcessor::closeCallTimings() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  callTimings::callRecord call;
  if (!mStageClock.finish(platform::monotonicMs(), call)) return;
  // Room for the entry's time stamp and odometer field in front of it.
  constexpr size_t entryPrefixRoom = 48;
  addEntryToEmergencyLog(callTimings::logLine(call, EMERGENCY_LOG_ENTRY_SIZE - 1 - entryPrefixRoom).c_str());
}
