// The emergency journal: torn and bad bytes, the clocks of a restart, a start kept across restarts.
#include <gtest/gtest.h>

#include <string>

#include "common/ecallTypes.h"
#include "emergencyJournal/emergencyJournal.h"
#include "support/testSupport.h"

using namespace journal;

namespace {

constexpr int64_t kHour = 3600000;
constexpr int64_t kPeriod = 30000;
const platform::bootIdentity kBootA = {1, 2, 3}, kBootB = {4, 5, 6};

journalRecord recordOf(journalKind kind, int32_t type = 3, int32_t mode = 1, int64_t t = 1000000) {
  return {kind, type, mode, kBootA, t, 5000, t + kPeriod, 5000 + kPeriod};
}
journalLoad decode(const std::string& bytes) {
  return decodeJournal(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}
bool sameRecord(const journalRecord& a, const journalRecord& b) { return encodeSlot(a, 1) == encodeSlot(b, 1); }

}  // namespace

// Changes written alternately into the two slots, each cut after every byte (the rest as it
// was or erased): the reader gets the change before or the whole new one. A changed bit,
// a foreign format and a file too long are unreadable.
TEST(EmergencyJournal, ACutAtAnyByteLeavesTheChangeBeforeAndBadBytesRaiseNothing) {
  const journalRecord life[] = {recordOf(journalKind::requested), recordOf(journalKind::placed),
                                recordOf(journalKind::callbackPeriod), recordOf(journalKind::ended),
                                recordOf(journalKind::requested, 1, 2), recordOf(journalKind::cancelled, 1, 2)};
  std::string file(JOURNAL_SIZE, '\0');
  for (uint32_t sequence = 1; sequence <= std::size(life); ++sequence) {
    const journalSlot slot = encodeSlot(life[sequence - 1], sequence);
    const size_t at = slotOffset(sequence);
    for (size_t cut = 0; cut <= SLOT_SIZE; ++cut) {
      for (char rest : {'\0', '\xff', 'k'}) {
        std::string torn = file;
        if (rest != 'k') torn.replace(at, SLOT_SIZE, SLOT_SIZE, rest);
        torn.replace(at, cut, reinterpret_cast<const char*>(slot.data()), cut);
        const journalLoad load = decode(torn);
        const uint32_t expected = cut == SLOT_SIZE ? sequence : sequence - 1;
        ASSERT_EQ(load.sequence, expected) << "write " << sequence << " cut " << cut;
        ASSERT_TRUE(sameRecord(load.record, expected > 0 ? life[expected - 1] : journalRecord{}));
      }
    }
    file.replace(at, SLOT_SIZE, reinterpret_cast<const char*>(slot.data()), SLOT_SIZE);
  }

  EXPECT_EQ(decode("").status, loadStatus::fresh);
  EXPECT_EQ(decode(std::string(JOURNAL_SIZE, '\0')).status, loadStatus::fresh);
  EXPECT_EQ(decode(file + "x").status, loadStatus::unreadable);
  std::string flipped = file;
  for (size_t bit = 0; bit < 8 * flipped.size(); bit += 7) {
    flipped = file;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
    EXPECT_EQ(decode(flipped).sequence, bit / 8 < SLOT_SIZE ? 5u : 6u) << "bit " << bit;
  }
  // A whole slot of another format version, or with a type no emergency has.
  journalSlot future = encodeSlot(life[0], 1), noType = encodeSlot(recordOf(journalKind::requested, 40), 1);
  future[3] = '2';
  const std::string blank(SLOT_SIZE, '\0');
  EXPECT_EQ(decode(blank + std::string(future.begin(), future.end())).problem, "is of an unknown format");
  EXPECT_EQ(decode(blank + std::string(noType.begin(), noType.end())).status, loadStatus::unreadable);
}

// Within one boot the boot clock rules; across boots the wall clock, an hour either way
// (a clock set back); a period goes on for its rest, never longer than a whole period.
TEST(EmergencyJournal, AgeAndPeriodFollowTheClocksOfARestartedHeadUnit) {
  const int64_t t = 1000000;  // the wall clock of the records' start
  // The record's kind; the clocks of the restart: wall, boot, boot identity; what is resumed.
  const std::tuple<journalKind, int64_t, int64_t, platform::bootIdentity, resumeAction, int64_t> cases[] = {
      {journalKind::requested, t + 2 * kHour, 6000, kBootA, resumeAction::raise, 0},
      {journalKind::requested, t, 5000 + kHour, kBootA, resumeAction::tooOld, 0},
      {journalKind::requested, t + kHour - 1, 100, kBootB, resumeAction::raise, 0},
      {journalKind::requested, t + kHour, 100, kBootB, resumeAction::tooOld, 0},
      {journalKind::requested, t - 600000, 100, kBootB, resumeAction::raise, 0},
      {journalKind::requested, t - 2 * kHour, 100, kBootB, resumeAction::tooOld, 0},
      {journalKind::requested, t, 100, platform::bootIdentity{}, resumeAction::raise, 0},
      {journalKind::placed, t + 60000, 100, kBootB, resumeAction::callbackPeriod, kPeriod},
      {journalKind::callbackPeriod, 0, 5000 + 10000, kBootA, resumeAction::callbackPeriod, kPeriod - 10000},
      {journalKind::callbackPeriod, t + 25000, 100, kBootB, resumeAction::callbackPeriod, kPeriod - 25000},
      {journalKind::callbackPeriod, t - kHour, 100, kBootB, resumeAction::callbackPeriod, kPeriod},
      {journalKind::callbackPeriod, t + kPeriod, 100, kBootB, resumeAction::nothing, 0},
      {journalKind::cancelled, t, 5000, kBootA, resumeAction::nothing, 0},
  };
  for (const auto& [kind, wall, boot, id, action, periodMs] : cases) {
    const journalResume resume = decideResume(recordOf(kind), journalClock{wall, boot, id}, kHour, kPeriod);
    EXPECT_TRUE(resume.action == action && resume.periodMs == periodMs) << kindName(kind) << " at " << wall;
  }
}

// On a real file, a raised emergency's age counts from its first request across restarts.
TEST(EmergencyJournal, ARaisedEmergencyKeepsItsStartAcrossRestarts) {
  testSupport::TempRoot root;
  auto restart = [](bool request) {
    emergencyJournal journal;
    const emergencyJournal::startUp found = journal.open("/var/journal", "/var/journal.bad", kHour, kPeriod);
    if (request) journal.requested(ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN);
    return found.resume;
  };
  EXPECT_EQ(restart(true).action, resumeAction::nothing);
  const journalResume first = restart(true);
  ASSERT_EQ(first.action, resumeAction::raise);
  EXPECT_EQ(first.type, ecallMain::CAN_IMPACT_B);
  platform::sleepRealMs(20);
  EXPECT_GE(restart(false).ageMs, first.ageMs + 20) << "a raised emergency restarted its age";
}
