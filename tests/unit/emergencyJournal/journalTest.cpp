// The emergency journal: a change cut at any byte leaves the change before
// it, no bytes but a whole checked record ever raise an emergency, the
// clocks decide an emergency's age and a period's rest as a restarted head
// unit must, and the journal on a real file keeps an emergency's start
// across restarts and sets an unreadable file aside.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "common/ecallTypes.h"
#include "emergencyJournal/emergencyJournal.h"
#include "support/testSupport.h"

using namespace journal;

namespace {

constexpr int64_t kHour = 3600000;
constexpr int64_t kPeriod = 30000;
const platform::bootIdentity kBootA = {1, 2, 3}, kBootB = {4, 5, 6};

journalRecord recordOf(journalKind kind, int32_t type, int32_t mode, int64_t sinceWall = 1000000) {
  journalRecord r;
  r.kind = kind;
  r.type = type;
  r.mode = mode;
  r.boot = kBootA;
  r.sinceWallMs = sinceWall;
  r.sinceBootMs = 5000;
  r.untilWallMs = sinceWall + kPeriod;
  r.untilBootMs = 5000 + kPeriod;
  return r;
}

journalLoad decode(const std::string& bytes) {
  return decodeJournal(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

bool sameRecord(const journalRecord& a, const journalRecord& b) {
  return a.kind == b.kind && a.type == b.type && a.mode == b.mode && a.sinceWallMs == b.sinceWallMs &&
         a.untilBootMs == b.untilBootMs;
}

journalClock clockAt(int64_t wall, int64_t boot, const platform::bootIdentity& id) {
  journalClock c;
  c.wallMs = wall;
  c.bootMs = boot;
  c.boot = id;
  return c;
}

}  // namespace

// A life of changes written alternately into the two slots; every write is
// cut after each of its bytes, the rest left as it was or as erased flash:
// the reader gets the change before, or the whole new one, never anything
// else. Noise, a changed bit, a foreign format and a file too long are
// unreadable and raise nothing.
TEST(EmergencyJournal, ACutAtAnyByteLeavesTheChangeBeforeAndBadBytesRaiseNothing) {
  const journalRecord life[] = {recordOf(journalKind::requested, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN),
                                recordOf(journalKind::placed, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN),
                                recordOf(journalKind::callbackPeriod, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN),
                                recordOf(journalKind::ended, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN),
                                recordOf(journalKind::requested, ecallMain::E_CALL_BtnStat, ecallMain::CALL_ECALL_DELAY),
                                recordOf(journalKind::cancelled, ecallMain::E_CALL_BtnStat, ecallMain::CALL_ECALL_DELAY)};
  std::string file;
  for (uint32_t sequence = 1; sequence <= std::size(life); ++sequence) {
    const journalSlot slot = encodeSlot(life[sequence - 1], sequence);
    const size_t at = slotOffset(sequence);
    for (size_t cut = 0; cut <= SLOT_SIZE; ++cut) {
      for (char rest : {'\0', '\xff', 'k'}) {
        std::string torn = file;
        if (torn.size() < at + SLOT_SIZE) torn.resize(at + SLOT_SIZE, '\0');
        if (rest != 'k') torn.replace(at, SLOT_SIZE, SLOT_SIZE, rest);
        torn.replace(at, cut, reinterpret_cast<const char*>(slot.data()), cut);
        const journalLoad load = decode(torn);
        const uint32_t expected = cut == SLOT_SIZE ? sequence : sequence - 1;
        ASSERT_EQ(load.sequence, expected) << "write " << sequence << " cut " << cut;
        ASSERT_TRUE(sameRecord(load.record, expected > 0 ? life[expected - 1] : journalRecord{}));
      }
    }
    if (file.size() < at + SLOT_SIZE) file.resize(at + SLOT_SIZE, '\0');
    file.replace(at, SLOT_SIZE, reinterpret_cast<const char*>(slot.data()), SLOT_SIZE);
    ASSERT_EQ(decode(file).status, loadStatus::whole);
    ASSERT_TRUE(sameRecord(decode(file).record, life[sequence - 1]));
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
  journalSlot future = encodeSlot(life[0], 1);
  future[3] = '2';
  EXPECT_EQ(decode(std::string(64, '\0') + std::string(future.begin(), future.end())).problem, "is of an unknown format");
  const journalSlot noType = encodeSlot(recordOf(journalKind::requested, 40, ecallMain::CALL_ACN), 1);
  EXPECT_EQ(decode(std::string(64, '\0') + std::string(noType.begin(), noType.end())).status, loadStatus::unreadable);

  std::mt19937 noise(21);
  for (int i = 0; i < 20000; ++i) {
    std::string bytes(noise() % (JOURNAL_SIZE + 2), '\0');
    for (char& b : bytes) b = static_cast<char>(noise());
    if (i % 2) bytes.replace(0, 3, "ECJ");
    const journalLoad load = decode(bytes);
    ASSERT_NE(decideResume(load.record, clockAt(1000000, 6000, kBootA), kHour, kPeriod).action, resumeAction::raise);
  }
}

// Within one boot the boot clock rules, whatever the wall clock did; across
// boots the wall clock, with an hour either way (a clock set back); a period
// goes on for its rest, never longer than a whole period.
TEST(EmergencyJournal, AgeAndPeriodFollowTheClocksOfARestartedHeadUnit) {
  const journalRecord crash = recordOf(journalKind::requested, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN);
  auto actionAt = [&](const journalRecord& r, int64_t wall, int64_t boot, const platform::bootIdentity& id) {
    return decideResume(r, clockAt(wall, boot, id), kHour, kPeriod);
  };
  EXPECT_EQ(actionAt(crash, 1000000 + 2 * kHour, 5000 + 1000, kBootA).action, resumeAction::raise);
  EXPECT_EQ(actionAt(crash, 1000000, 5000 + kHour, kBootA).action, resumeAction::tooOld);
  EXPECT_EQ(actionAt(crash, 1000000 + kHour - 1, 100, kBootB).action, resumeAction::raise);
  EXPECT_EQ(actionAt(crash, 1000000 + kHour, 100, kBootB).action, resumeAction::tooOld);
  EXPECT_EQ(actionAt(crash, 1000000 - 600000, 100, kBootB).action, resumeAction::raise);
  EXPECT_EQ(actionAt(crash, 1000000 - 2 * kHour, 100, kBootB).action, resumeAction::tooOld);
  EXPECT_EQ(actionAt(crash, 1000000 + 600000, 100, kBootB).ageMs, 600000);
  EXPECT_EQ(actionAt(crash, 1000000, 100, platform::bootIdentity{}).action, resumeAction::raise);

  const journalRecord placed = recordOf(journalKind::placed, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN);
  EXPECT_EQ(actionAt(placed, 1000000 + 60000, 100, kBootB).action, resumeAction::callbackPeriod);
  EXPECT_EQ(actionAt(placed, 1000000 + 60000, 100, kBootB).periodMs, kPeriod);

  const journalRecord period = recordOf(journalKind::callbackPeriod, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN);
  EXPECT_EQ(actionAt(period, 0, 5000 + 10000, kBootA).periodMs, kPeriod - 10000);
  EXPECT_EQ(actionAt(period, 1000000 + 25000, 100, kBootB).periodMs, kPeriod - 25000);
  EXPECT_EQ(actionAt(period, 1000000 - kHour, 100, kBootB).periodMs, kPeriod);
  EXPECT_EQ(actionAt(period, 1000000 + kPeriod, 100, kBootB).action, resumeAction::nothing);
  for (journalKind kind : {journalKind::cancelled, journalKind::ended, journalKind::expired, journalKind::idle})
    EXPECT_EQ(actionAt(recordOf(kind, 3, 1), 1000000, 5000, kBootA).action, resumeAction::nothing);
}

// On a real file: a requested emergency is raised again after a restart and
// keeps its start; once placed it resumes the call-back period; cancelled it
// is never raised; an unreadable file is set aside and a new one started.
TEST(EmergencyJournal, RestartsKeepTheEmergencyAndSetAnUnreadableFileAside) {
  testSupport::TempRoot root;
  const std::string path = "/var/journal", aside = "/var/journal.bad";
  auto restart = [&] {
    emergencyJournal journal;
    return journal.open(path, aside, kHour, kPeriod);
  };
  {
    emergencyJournal journal;
    EXPECT_EQ(journal.open(path, aside, kHour, kPeriod).resume.action, resumeAction::nothing);
    journal.requested(ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN);
  }
  int64_t firstAge;
  {
    emergencyJournal journal;
    const emergencyJournal::startUp found = journal.open(path, aside, kHour, kPeriod);
    ASSERT_EQ(found.resume.action, resumeAction::raise);
    EXPECT_EQ(found.resume.type, ecallMain::CAN_IMPACT_B);
    firstAge = found.resume.ageMs;
    platform::sleepRealMs(20);
    journal.requested(ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN);
  }
  EXPECT_GE(restart().resume.ageMs, firstAge + 20) << "a raised emergency restarted its age";
  {
    emergencyJournal journal;
    journal.open(path, aside, kHour, kPeriod);
    journal.placed();
  }
  EXPECT_EQ(restart().resume.action, resumeAction::callbackPeriod);
  {
    emergencyJournal journal;
    journal.open(path, aside, kHour, kPeriod);
    journal.closed();
    journal.requested(ecallMain::E_CALL_BtnStat, ecallMain::CALL_ECALL_DELAY);
    journal.closed();
  }
  EXPECT_EQ(restart().load.record.kind, journalKind::cancelled);

  testSupport::writeFile(root.path(path), std::string(JOURNAL_SIZE, 'x'));
  const emergencyJournal::startUp bad = restart();
  EXPECT_TRUE(bad.setAside);
  EXPECT_EQ(bad.resume.action, resumeAction::nothing);
  EXPECT_EQ(testSupport::readFile(root.path(aside)), std::string(JOURNAL_SIZE, 'x'));
  EXPECT_EQ(restart().load.status, loadStatus::fresh);
}
