// What the emergency journal keeps, its form on flash, and what it means at
// start-up. Everything here is a pure function of its arguments: the reader
// takes any bytes (a torn write, another program's file, noise) and never
// yields an emergency that a whole, checked record did not hold.
//
// The file is two slots of 64 bytes, written alternately; each slot is
//   0  "ECJ1"  format tag (the last character is the format's version)
//   4  u32     sequence number of the change (1, 2, 3 ...; slot = sequence % 2)
//   8  u8      kind (journalKind)
//   9  u8      emergency type
//   10 u8      call mode
//   11 u8      0
//   12 16 B    identity of the boot that wrote the slot
//   28 i64     wall clock of the emergency's start, ms since the epoch
//   36 i64     boot clock of the emergency's start, ms (of the writing boot)
//   44 i64     wall clock of the end of the call-back period
//   52 i64     boot clock of the end of the call-back period
//   60 u32     CRC-32 of bytes 0 to 59
// all integers little-endian. A write that is cut leaves a slot that fails
// its check, and the other slot, the state before, stands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/clocks.h"

namespace journal {

enum class journalKind : uint8_t {
  idle = 0,            // nothing to remember
  requested = 1,       // an emergency is requested and not yet connected
  placed = 2,          // its call was connected to the emergency centre
  callbackPeriod = 3,  // the call ended; the emergency mode stays for the centre's call-back
  cancelled = 4,       // cancelled before it was connected
  ended = 5,           // over after it was connected
  expired = 6,         // found too old at a start-up: never raised again
};
constexpr int journalKindCount = 7;
const char* kindName(journalKind kind);

// The clocks at one moment.
struct journalClock {
  int64_t wallMs = 0;
  int64_t bootMs = 0;
  platform::bootIdentity boot{};
};

struct journalRecord {
  journalKind kind = journalKind::idle;
  int32_t type = 0;  // ecallMain::eEmergencyType
  int32_t mode = 0;  // ecallMain::eCallModeType
  platform::bootIdentity boot{};  // the boot whose clocks the boot times are
  int64_t sinceWallMs = 0, sinceBootMs = 0;  // the emergency's start
  int64_t untilWallMs = 0, untilBootMs = 0;  // the call-back period's end
};

constexpr size_t SLOT_SIZE = 64;
constexpr size_t JOURNAL_SIZE = 2 * SLOT_SIZE;

using journalSlot = std::array<uint8_t, SLOT_SIZE>;
journalSlot encodeSlot(const journalRecord& record, uint32_t sequence);
inline uint64_t slotOffset(uint32_t sequence) { return (sequence % 2) * SLOT_SIZE; }

enum class loadStatus {
  fresh,          // no journal yet (no file, or nothing ever written)
  whole,          // the last change is read
  lastChangeCut,  // the last change was cut; the one before it is read
  unreadable,     // torn, corrupt or of an unknown format: to be set aside
};
struct journalLoad {
  loadStatus status = loadStatus::fresh;
  journalRecord record;   // idle unless whole or lastChangeCut
  uint32_t sequence = 0;  // of the record read; 0 for none
  std::string problem;    // what was wrong, for the log
};
// What the bytes of a journal file hold.
journalLoad decodeJournal(const uint8_t* data, size_t size);

enum class resumeAction {
  nothing,         // nothing was in hand, or it was cancelled or ended
  raise,           // the requested emergency is raised again
  callbackPeriod,  // the emergency mode is kept for periodMs more
  tooOld,          // requested or placed longer ago than the age limit (or its time cannot be trusted)
};
struct journalResume {
  resumeAction action = resumeAction::nothing;
  int32_t type = 0, mode = 0;
  int64_t ageMs = 0;     // of the emergency (raise, tooOld, and a placed one resumed)
  int64_t periodMs = 0;  // callbackPeriod: how long the emergency mode stays on
};
// What start-up does with the record at now: an emergency younger than
// maxAgeMs is raised again, a placed one gets a whole call-back period of
// periodMs, a running call-back period goes on for its rest.
journalResume decideResume(const journalRecord& record, const journalClock& now, int64_t maxAgeMs, int64_t periodMs);

}  // namespace journal
