// The text-to-speech service (TextToSpeechService). A readout plays for a
// time proportional to its text and then reports "notPlaying"; an abort
// stops it and reports "aborted". Every text it was asked to speak is kept;
// with a speech folder each one is also rendered to a WAV file by espeak-ng
// (a child process on a worker thread, never on the bus thread), so that a
// person can hear what the occupants and the operator would hear.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "simService.h"

namespace sim {

// Renders texts to WAV files, one at a time, in the order given.
class Speaker {
 public:
  explicit Speaker(Recorder& recorder) : mRecorder(recorder) {}
  ~Speaker();
  void start(const std::string& folder);
  // voice: an espeak-ng voice name ("en-us", "fr", "es").
  void say(const std::string& text, const std::string& voice, const std::string& fileName);
  void stop();

 private:
  struct Job {
    std::string text, voice, file;
  };
  void run();
  bool render(const Job& job);

  Recorder& mRecorder;
  std::string mFolder;
  std::mutex mMutex;
  std::condition_variable mCond;
  std::deque<Job> mJobs;
  bool mStopping = false;
  std::thread mThread;
};

class SpeechService : public SimService {
 public:
  SpeechService(SimContext& context, Speaker* speaker);
  std::string status() const override;
  // The texts asked for so far, in order.
  std::vector<std::string> spoken() const;
  // Playing time of a text in car time.
  static int64_t playingMs(const std::string& text);

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;
  std::string describe(const std::string& method, const std::string& params) const override;

 private:
  Answer readout(const Json::Value& params);
  Answer abort();
  void finished(uint64_t handle);
  std::string voiceFor(const std::string& readoutType) const;

  Speaker* mSpeaker;
  mutable std::mutex mMutex;
  uint64_t mNextHandle = 1;
  uint64_t mPlaying = 0;  // handle of the readout playing, 0 for none
  Scheduler::Id mDone = 0;
  std::vector<std::string> mSpoken;
};

}  // namespace sim
