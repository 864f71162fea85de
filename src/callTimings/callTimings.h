// Call-stage timings: when each stage of a call happened, on the monotonic
// clock in milliseconds, so that an engineer can read how long each stage
// took. The caller opens a call at its trigger, marks the stages as they
// happen and closes the call at its end; the call closed last is kept for
// whoever asks.
//
// It knows nothing of who marks the stages nor why. Marks come from several
// threads; each takes a lock for a few stores and never allocates or
// writes, so that marking costs nothing on the way to the dial.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace Json {
class Value;
}

namespace callTimings {

// The stages after the trigger, in the order a call goes through them.
enum stage : int {
  NUMBER_READ,
  DIAL_SENT,
  DIALLING,
  ALERTING,
  CALLBACK_ANSWERED,
  ACTIVE,
  ANNOUNCEMENT_STARTED,
  ANNOUNCEMENT_FINISHED,
  END,
  STAGE_COUNT
};

// A stage's member in the JSON text, its word in the emergency log, and
// its name for a person.
struct stageName {
  const char* member;
  const char* logWord;
  const char* label;
};
inline constexpr std::array<stageName, STAGE_COUNT> stageNames = {{
    {"numberRead", "number", "number read"},
    {"dialSent", "dial", "dial sent"},
    {"dialling", "dialling", "dialling"},
    {"alerting", "alerting", "alerting"},
    {"callbackAnswered", "answered", "call-back answered"},
    {"active", "active", "active"},
    {"announcementStarted", "announcing", "announcement started"},
    {"announcementFinished", "announced", "announcement finished"},
    {"end", "end", "end"},
}};

// A time that was never taken: a stage that did not happen.
inline constexpr int64_t ABSENT = -1;

// One call: its trigger on the monotonic clock, and each stage in ms after
// the trigger.
struct callRecord {
  int64_t triggerMs = ABSENT;  // ABSENT: no call
  std::array<int64_t, STAGE_COUNT> afterTriggerMs = filled();
  unsigned dials = 0;  // dial attempts; the dial stages are the last one's

  bool hasCall() const { return triggerMs != ABSENT; }
  static constexpr std::array<int64_t, STAGE_COUNT> filled() {
    std::array<int64_t, STAGE_COUNT> all{};
    all.fill(ABSENT);
    return all;
  }
};

class stageClock {
 public:
  // A call is triggered at nowMs. An open call keeps its trigger: the same
  // emergency taken up again is the same call.
  void begin(int64_t nowMs);
  // The stage happened at nowMs: its first time in the call counts. Without
  // an open call nothing is marked.
  void mark(stage s, int64_t nowMs);
  // A dial was sent at nowMs: the dial stages start again with this attempt.
  void dialSent(int64_t nowMs);
  // Closes the open call, its end at nowMs unless marked before; false when
  // no call was open.
  bool finish(int64_t nowMs, callRecord& closed);
  // The call closed last (hasCall() false before the first).
  callRecord last() const;

 private:
  void markLocked(stage s, int64_t nowMs);

  mutable std::mutex mMutex;
  bool mOpen = false;
  callRecord mCurrent;
  callRecord mLast;
};

// The emergency log's line of a call, "Call timings (ms after trigger):
// number 3, dial 9, ..., end 20000; dials 1" and a line end, with the stages
// that happened in their order. At most room bytes: stages that do not fit
// are left out whole and "..." says so.
std::string logLine(const callRecord& call, size_t room);
// {"dials":1,"stages":{"numberRead":3,...},"trigger":MS}; {} without a call.
Json::Value toJson(const callRecord& call);

}  // namespace callTimings
