#include "emergencyJournal/emergencyJournal.h"

#include <chrono>
#include <cstring>

#include "platform/slog.h"
#include "platform/trace.h"

using journal::journalKind;

namespace {

const CQVTraceScopeDef journalTraceScope("ecallService_emergencyJournal", "all");
// How long a cancel waits for the medium at most (a disk under load takes
// tens of milliseconds).
constexpr std::chrono::milliseconds kCancelSyncBound(2000);

}  // namespace

journal::journalClock emergencyJournal::now() const {
  journal::journalClock clock;
  clock.wallMs = platform::wallClockMs();
  clock.bootMs = platform::bootClockMs();
  clock.boot = platform::bootId();
  return clock;
}

emergencyJournal::startUp emergencyJournal::open(const std::string& path, const std::string& asidePath,
                                                 int64_t maxAgeMs, int64_t periodMs) {
  CQVTraceScope scope(journalTraceScope, __func__);
  std::lock_guard<std::mutex> lock(mMutex);
  startUp found;
  std::string bytes;
  if (!mFile.open(path) || !mFile.readAll(bytes, journal::JOURNAL_SIZE)) {
    // Told by the caller; the changes are still tried, and a failure told once.
    found.load.problem = std::string("cannot be read: ") + strerror(mFile.lastError());
    return found;
  }
  // A change must not wait for the medium on its way to the dial: it is in
  // the file when written, and on the medium a sync later.
  if (!mFile.syncInBackground())
    scope.sendFormattedWarning("Emergency journal syncer not started, every change waits for its sync\n");
  found.load = journal::decodeJournal(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  if (found.load.status == journal::loadStatus::unreadable) {
    found.setAside = true;
    if (!mFile.setAside(asidePath)) {
      slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "ecallService: Emergency journal %s cannot be moved aside: %s; emptied\n",
            path.c_str(), strerror(mFile.lastError()));
    }
    return found;
  }
  const journal::journalClock clock = now();
  found.resume = journal::decideResume(found.load.record, clock, maxAgeMs, periodMs);
  mSequence = found.load.sequence;
  mCurrent = found.load.record;
  // What goes on in this boot keeps its start, in this boot's clocks, so
  // that its age counts from the first request.
  mCurrent.boot = clock.boot;
  mCurrent.sinceBootMs = clock.bootMs - found.resume.ageMs;
  if (found.resume.action == journal::resumeAction::tooOld) {
    // Written so, it stays given up, also if the clock is set back later.
    journal::journalRecord record = mCurrent;
    record.kind = journalKind::expired;
    write(record);
  } else if (found.resume.action == journal::resumeAction::raise && found.load.record.boot != clock.boot) {
    // From now on a restart within this boot reads its age on the boot clock.
    write(mCurrent);
  } else if (found.resume.action == journal::resumeAction::nothing) {
    mCurrent = journal::journalRecord{};
  }
  scope.sendFormattedMessage("Emergency journal read: %s, type %d, mode %d, sequence %u\n",
                             journal::kindName(found.load.record.kind), found.load.record.type,
                             found.load.record.mode, found.load.sequence);
  return found;
}

void emergencyJournal::write(const journal::journalRecord& record) {
  CQVTraceScope scope(journalTraceScope, __func__);
  mCurrent = record;
  const uint32_t sequence = mSequence + 1;
  const journal::journalSlot slot = journal::encodeSlot(record, sequence);
  if (!mFile.writeAt(journal::slotOffset(sequence), slot.data(), slot.size())) {
    // The sequence stays, so the next change goes to the same slot and the
    // last good change stays whole in the other one.
    if (!mFailing) {
      slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "ecallService: Emergency journal write failed: %s\n",
            strerror(mFile.lastError()));
      mFailing = true;
    }
    return;
  }
  mSequence = sequence;
  mFailing = false;
  scope.sendFormattedMessage("Emergency journal written: %s, type %d, mode %d, sequence %u\n",
                             journal::kindName(record.kind), record.type, record.mode, sequence);
}

void emergencyJournal::requested(int32_t type, int32_t mode) {
  std::lock_guard<std::mutex> lock(mMutex);
  // The same emergency handed on again (the phone's return, a resumed one)
  // changes nothing.
  if ((mCurrent.kind == journalKind::requested || mCurrent.kind == journalKind::placed) && mCurrent.type == type &&
      mCurrent.mode == mode)
    return;
  journal::journalRecord record = mCurrent;
  record.type = type;
  record.mode = mode;
  if (mCurrent.kind != journalKind::requested && mCurrent.kind != journalKind::placed) {
    const journal::journalClock clock = now();
    record.kind = journalKind::requested;
    record.boot = clock.boot;
    record.sinceWallMs = clock.wallMs;
    record.sinceBootMs = clock.bootMs;
    record.untilWallMs = record.untilBootMs = 0;
  }
  write(record);
}

void emergencyJournal::placed() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCurrent.kind != journalKind::requested) return;
  journal::journalRecord record = mCurrent;
  record.kind = journalKind::placed;
  write(record);
}

void emergencyJournal::callbackPeriod(int64_t periodMs) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCurrent.kind == journalKind::requested) return;
  const journal::journalClock clock = now();
  journal::journalRecord record = mCurrent;
  record.kind = journalKind::callbackPeriod;
  record.boot = clock.boot;
  record.untilWallMs = clock.wallMs + periodMs;
  record.untilBootMs = clock.bootMs + periodMs;
  write(record);
}

void emergencyJournal::closed() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    journal::journalRecord record = mCurrent;
    switch (mCurrent.kind) {
      case journalKind::requested:
        record.kind = journalKind::cancelled;
        break;
      case journalKind::placed:
      case journalKind::callbackPeriod:
        record.kind = journalKind::ended;
        break;
      default:
        return;  // nothing in hand: nothing changes
    }
    write(record);
    if (record.kind != journalKind::cancelled) return;
  }
  // A cancel lost to a power cut would be dialled after it: it takes effect
  // once on the medium. Waited for outside the lock, so that a new request
  // meanwhile does not wait for the medium.
  if (!mFile.waitDurable(kCancelSyncBound))
    slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "ecallService: Emergency journal: cancel not on flash after %lld ms\n",
          static_cast<long long>(kCancelSyncBound.count()));
}

void emergencyJournal::periodOver() {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mCurrent.kind != journalKind::callbackPeriod) return;
  journal::journalRecord record = mCurrent;
  record.kind = journalKind::ended;
  write(record);
}

int64_t emergencyJournal::emergencyStartWallMs() {
  std::lock_guard<std::mutex> lock(mMutex);
  const bool inHand = mCurrent.kind == journalKind::requested || mCurrent.kind == journalKind::placed;
  return inHand ? mCurrent.sinceWallMs : 0;
}
