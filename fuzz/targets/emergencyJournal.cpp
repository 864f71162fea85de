// The emergency journal as the service reads it at start-up: any bytes, a
// torn write, flash noise, another program's file. Nothing but a whole,
// checked record of a requested emergency is ever raised again, and what is
// read is exactly what a slot of the input holds.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/ecallTypes.h"
#include "emergencyJournal/journalRecord.h"
#include "support/fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace journal;
  const journalLoad load = decodeJournal(data, size);
  const bool read = load.status == loadStatus::whole || load.status == loadStatus::lastChangeCut;
  fuzzSupport::expect(read == (load.sequence > 0), "a record read without a sequence, or a sequence without one");
  if (read) {
    const journalSlot slot = encodeSlot(load.record, load.sequence);
    const uint64_t at = slotOffset(load.sequence);
    fuzzSupport::expect(at + SLOT_SIZE <= size && memcmp(data + at, slot.data(), SLOT_SIZE) == 0,
                        "a record read that no whole slot of the input holds");
  } else {
    fuzzSupport::expect(load.record.kind == journalKind::idle, "a record kept from an unreadable journal");
  }

  // The clocks of this boot near the record's, of another boot, and far off.
  journalClock clocks[3];
  clocks[0].boot = load.record.boot;
  clocks[0].bootMs = load.record.sinceBootMs + 1000;
  clocks[1].wallMs = load.record.sinceWallMs + 1000;
  clocks[1].boot[0] = static_cast<uint8_t>(load.record.boot[0] + 1);
  clocks[2].wallMs = INT64_MIN / 2;
  for (const journalClock& now : clocks) {
    const journalResume resume = decideResume(load.record, now, 3600000, 30000);
    if (resume.action == resumeAction::raise) {
      fuzzSupport::expect(read && load.record.kind == journalKind::requested, "raised without a requested record");
      fuzzSupport::expect(resume.type >= ecallMain::E_CALL_BtnStat && resume.type <= ecallMain::SERIAL_IMPACT_X,
                          "raised a type that is no emergency");
      fuzzSupport::expect(resume.mode >= ecallMain::CALL_ACN && resume.mode <= ecallMain::CALL_ECALL,
                          "raised with a mode that is no call");
    }
    if (resume.action == resumeAction::callbackPeriod)
      fuzzSupport::expect(resume.periodMs > 0 && resume.periodMs <= 30000, "a call-back period out of its length");
  }
  return 0;
}
