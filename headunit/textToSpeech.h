// TextToSpeechService on espeak-ng (the library): "ttsReadout" speaks the
// text with a voice of its language (the operator's announcements always in
// English, the occupants' prompts in the car's language), "ttsAbort" stops
// it, and "ttsPlayState" reports "playing" when the speech starts and
// "notPlaying" when it has ended ("aborted" after "ttsAbort").
//
// Without a folder the speech plays on the default audio device through
// espeak-ng's own output; with --speech-out DIR each prompt is written to
// DIR/NNN-TYPE.wav instead, and has been "played" once the file is whole.
//
// espeak-ng is used from one thread only, the speaker, which takes the
// latest readout: a new readout replaces one not yet finished, without a
// report of its own.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "busService.h"
#include "config.h"

namespace headunit {

class TextToSpeech : public BusService {
 public:
  TextToSpeech(const Config& config, std::string folder)
      : BusService("TextToSpeechService"), mConfig(config), mFolder(std::move(folder)) {}
  ~TextToSpeech() override { stop(); }
  // Starts the speaker; false when espeak-ng cannot start.
  bool start(std::string& why);
  void stop();

 protected:
  Answer answer(const std::string& method, const Json::Value& params) override;

 private:
  struct Job {
    uint64_t handle = 0;
    std::string text, voice, file;
  };
  static int onSamples(short* samples, int count, void* events);
  void run();
  void speak(const Job& job);
  bool writeWav(const std::string& path, int rate) const;
  std::string voiceFor(const std::string& readoutType) const;
  void playState(const char* state);

  const Config& mConfig;
  const std::string mFolder;
  std::mutex mMutex;
  std::condition_variable mWake;
  bool mStopping = false, mStarted = false, mReady = false;
  std::string mStartError;
  Job mNext;                         // handle 0: none waiting
  uint64_t mNextHandle = 1;
  std::atomic<uint64_t> mPlaying{0};  // the readout being spoken; 0: none
  std::atomic<bool> mCut{false};      // the speech in progress must stop
  std::vector<short> mSamples;        // the speaker's, while it writes a file
  size_t mCount = 0;
  std::thread mThread;
};

}  // namespace headunit
