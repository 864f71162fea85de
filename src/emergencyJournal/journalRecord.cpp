#include "emergencyJournal/journalRecord.h"

#include <algorithm>
#include <cstring>

#include "common/ecallTypes.h"

namespace journal {

namespace {

constexpr char FORMAT_TAG[4] = {'E', 'C', 'J', '1'};
constexpr size_t CHECKED_SIZE = SLOT_SIZE - 4;

// later - earlier, held at the int64 limits: the times come from the disk
// and the clocks, and a difference past the limits is only "very old".
int64_t differenceMs(int64_t later, int64_t earlier) {
  int64_t difference = 0;
  if (__builtin_sub_overflow(later, earlier, &difference)) return later < earlier ? INT64_MIN : INT64_MAX;
  return difference;
}

uint32_t crc32(const uint8_t* data, size_t size) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void putU32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}
void putI64(uint8_t* at, int64_t value) {
  for (int i = 0; i < 8; ++i) at[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
}
uint32_t getU32(const uint8_t* at) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = value << 8 | at[i];
  return value;
}
int64_t getI64(const uint8_t* at) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = value << 8 | at[i];
  return static_cast<int64_t>(value);
}

bool isBlank(const uint8_t* slot, size_t size) {
  return std::all_of(slot, slot + size, [](uint8_t b) { return b == 0; });
}

bool isEmergency(int32_t type) { return type >= ecallMain::E_CALL_BtnStat && type <= ecallMain::SERIAL_IMPACT_X; }
// The modes an emergency that is to be dialled is recorded with.
bool isCallMode(int32_t mode) { return mode >= ecallMain::CALL_ACN && mode <= ecallMain::CALL_ECALL; }

// A record whose fields a whole slot can hold: kinds that start something
// must name an emergency and a mode of a call.
bool fieldsValid(const journalRecord& record) {
  if (static_cast<int>(record.kind) >= journalKindCount) return false;
  if (record.kind == journalKind::requested || record.kind == journalKind::placed)
    return isEmergency(record.type) && isCallMode(record.mode);
  return record.type >= 0 && record.type < ecallMain::EMERGENCY_TYPE_COUNT && record.mode >= 0 &&
         record.mode < ecallMain::CALL_MODE_COUNT;
}

enum class slotState { blank, valid, unknownFormat, broken };

slotState readSlot(const uint8_t* slot, size_t size, journalRecord& record, uint32_t& sequence) {
  if (isBlank(slot, size)) return slotState::blank;
  if (size < SLOT_SIZE) return slotState::broken;
  if (memcmp(slot, FORMAT_TAG, 3) != 0) return slotState::broken;
  // Another version lays its slot out its own way: not even its check is ours.
  if (slot[3] != FORMAT_TAG[3]) return slotState::unknownFormat;
  if (getU32(slot + CHECKED_SIZE) != crc32(slot, CHECKED_SIZE)) return slotState::broken;
  sequence = getU32(slot + 4);
  record.kind = static_cast<journalKind>(slot[8]);
  record.type = slot[9];
  record.mode = slot[10];
  memcpy(record.boot.data(), slot + 12, record.boot.size());
  record.sinceWallMs = getI64(slot + 28);
  record.sinceBootMs = getI64(slot + 36);
  record.untilWallMs = getI64(slot + 44);
  record.untilBootMs = getI64(slot + 52);
  // Sequence 0 is never written, and the slot a sequence goes to is fixed.
  if (sequence == 0 || slot[11] != 0 || !fieldsValid(record)) return slotState::unknownFormat;
  return slotState::valid;
}

bool sameBoot(const platform::bootIdentity& a, const platform::bootIdentity& b) {
  const platform::bootIdentity none{};
  return a == b && a != none;
}

}  // namespace

const char* kindName(journalKind kind) {
  static const char* const names[journalKindCount] = {"idle",      "requested", "placed", "in its call-back period",
                                                      "cancelled", "ended",     "expired"};
  const int index = static_cast<int>(kind);
  return index < journalKindCount ? names[index] : "unknown";
}

journalSlot encodeSlot(const journalRecord& record, uint32_t sequence) {
  journalSlot slot{};
  memcpy(slot.data(), FORMAT_TAG, sizeof FORMAT_TAG);
  putU32(slot.data() + 4, sequence);
  slot[8] = static_cast<uint8_t>(record.kind);
  slot[9] = static_cast<uint8_t>(record.type);
  slot[10] = static_cast<uint8_t>(record.mode);
  memcpy(slot.data() + 12, record.boot.data(), record.boot.size());
  putI64(slot.data() + 28, record.sinceWallMs);
  putI64(slot.data() + 36, record.sinceBootMs);
  putI64(slot.data() + 44, record.untilWallMs);
  putI64(slot.data() + 52, record.untilBootMs);
  putU32(slot.data() + CHECKED_SIZE, crc32(slot.data(), CHECKED_SIZE));
  return slot;
}

journalLoad decodeJournal(const uint8_t* data, size_t size) {
  journalLoad load;
  if (size == 0 || (size <= JOURNAL_SIZE && isBlank(data, size))) return load;
  if (size > JOURNAL_SIZE) {
    load.status = loadStatus::unreadable;
    load.problem = "is " + std::to_string(size) + " bytes long, not a journal";
    return load;
  }
  journalRecord records[2];
  uint32_t sequences[2] = {0, 0};
  slotState states[2];
  for (size_t i = 0; i < 2; ++i) {
    const size_t start = std::min(size, i * SLOT_SIZE);
    const size_t length = std::min(SLOT_SIZE, size - start);
    states[i] = readSlot(data + start, length, records[i], sequences[i]);
    // A slot holds the sequences of its own parity only.
    if (states[i] == slotState::valid && slotOffset(sequences[i]) != i * SLOT_SIZE)
      states[i] = slotState::unknownFormat;
  }
  int best = -1;
  for (int i = 0; i < 2; ++i)
    if (states[i] == slotState::valid && (best < 0 || sequences[i] > sequences[best])) best = i;
  if (best < 0) {
    load.status = loadStatus::unreadable;
    const bool unknown = states[0] == slotState::unknownFormat || states[1] == slotState::unknownFormat;
    load.problem = unknown ? "is of an unknown format" : "is torn or corrupt";
    return load;
  }
  load.record = records[best];
  load.sequence = sequences[best];
  const slotState other = states[1 - best];
  load.status = other == slotState::blank || other == slotState::valid ? loadStatus::whole : loadStatus::lastChangeCut;
  if (load.status == loadStatus::lastChangeCut) load.problem = "had its last change cut; the change before it stands";
  return load;
}

journalResume decideResume(const journalRecord& record, const journalClock& now, int64_t maxAgeMs, int64_t periodMs) {
  journalResume resume;
  resume.type = record.type;
  resume.mode = record.mode;
  // Within one boot the boot clock is exact; across boots only the wall
  // clock remains, and it may have been stepped either way.
  const bool exact = sameBoot(record.boot, now.boot);
  switch (record.kind) {
    case journalKind::requested:
    case journalKind::placed: {
      resume.ageMs =
          exact ? differenceMs(now.bootMs, record.sinceBootMs) : differenceMs(now.wallMs, record.sinceWallMs);
      // An age below zero is a clock set back: within the limit it is taken
      // as young, beyond it the time cannot be trusted.
      if (resume.ageMs >= maxAgeMs || resume.ageMs <= -maxAgeMs) {
        resume.action = resumeAction::tooOld;
      } else if (record.kind == journalKind::requested) {
        resume.action = resumeAction::raise;
      } else {
        resume.action = resumeAction::callbackPeriod;
        resume.periodMs = periodMs;
      }
      break;
    }
    case journalKind::callbackPeriod: {
      const int64_t left =
          exact ? differenceMs(record.untilBootMs, now.bootMs) : differenceMs(record.untilWallMs, now.wallMs);
      if (left > 0) {
        resume.action = resumeAction::callbackPeriod;
        // A clock set back must not stretch the period.
        resume.periodMs = std::min(left, periodMs);
      }
      break;
    }
    default:
      break;
  }
  return resume;
}

}  // namespace journal
