// The emergency journal: the few facts about the emergency in hand that the
// service must not forget when it is killed, or the head unit loses power,
// in the middle of it. Each change is written the moment it happens, into
// the file where no end of the process loses it, and made durable at once
// after by the file's own thread, so that no request waits for the medium
// on its way to the dial; a cancel returns only once it is durable. At
// start-up the journal says what to resume.
//
// It knows emergencies only as their type and mode numbers, and nothing of
// who calls it. Safe to call from any thread: the changes are written one at
// a time, in the order they are made.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "emergencyJournal/journalRecord.h"
#include "platform/durableFile.h"

class emergencyJournal {
 public:
  // What start-up found in the journal.
  struct startUp {
    journal::journalLoad load;      // what the file held (and what was wrong with it)
    journal::journalResume resume;  // what to do about it
    bool setAside = false;          // an unreadable file was moved to asidePath (or emptied)
  };

  emergencyJournal() = default;
  emergencyJournal(const emergencyJournal&) = delete;
  emergencyJournal& operator=(const emergencyJournal&) = delete;

  // Opens the journal at path (a path of the service), reads it and decides
  // what to resume (see decideResume). A file it cannot read is moved to
  // asidePath and a new journal started; nothing is resumed from it.
  startUp open(const std::string& path, const std::string& asidePath, int64_t maxAgeMs, int64_t periodMs);

  // An emergency of type and mode is requested. Its start is now, unless
  // one is already requested or placed (whose start it keeps: an emergency
  // raised again after a restart, or recorded over, is the same emergency).
  // During a placed call it stays placed.
  void requested(int32_t type, int32_t mode);
  // The call of the requested emergency was connected.
  void placed();
  // The call ended; the emergency mode stays for periodMs (real time). A
  // new emergency requested meanwhile wins: it is kept.
  void callbackPeriod(int64_t periodMs);
  // The emergency is over: cancelled if it was only requested, else ended.
  // A cancel returns once it is on the medium (or after a bound, logged).
  void closed();
  // The call-back period is over.
  void periodOver();
  // The wall clock (ms since the epoch) of the start of the emergency
  // requested or placed, kept over a restart; 0 when there is none.
  int64_t emergencyStartWallMs();

 private:
  journal::journalClock now() const;
  // Writes record as the next change (with the journal's lock held).
  void write(const journal::journalRecord& record);

  std::mutex mMutex;
  platform::durableFile mFile;
  journal::journalRecord mCurrent;  // the last change made
  uint32_t mSequence = 0;           // of the last change written
  bool mFailing = false;            // the last write failed (told once)
};
