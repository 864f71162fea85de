#include "textToSpeech.h"

#include <espeak-ng/espeak_ng.h>
#include <pthread.h>
#include <sched.h>

#include <cstdio>
#include <cstring>

namespace headunit {

namespace {
TextToSpeech* gSpeaker = nullptr;  // espeak-ng's callback takes no context
}

bool TextToSpeech::start(std::string& why) {
  gSpeaker = this;
  mThread = std::thread([this] { run(); });
  std::unique_lock<std::mutex> lock(mMutex);
  mWake.wait(lock, [this] { return mStarted; });
  why = mStartError;
  return mReady;
}

void TextToSpeech::stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
  }
  mCut.store(true);
  mWake.notify_all();
  if (mThread.joinable()) mThread.join();
}

int TextToSpeech::onSamples(short* samples, int count, void*) {
  TextToSpeech* self = gSpeaker;
  if (self->mCut.load()) return 1;  // espeak-ng stops the synthesis
  if (!self->mFolder.empty() && samples && count > 0) self->mSamples.insert(self->mSamples.end(), samples, samples + count);
  return 0;
}

void TextToSpeech::run() {
  // A prompt is synthesized in one go, for as long as it takes: ordinary
  // work, whatever class the bridge's unit gives the threads that answer
  // requests (it would also end a real-time thread that runs that long).
  const sched_param ordinary{};
  pthread_setschedparam(pthread_self(), SCHED_OTHER, &ordinary);
  espeak_ng_InitializePath(nullptr);
  espeak_ng_STATUS status = espeak_ng_Initialize(nullptr);
  if (status == ENS_OK) {
    const int mode = mFolder.empty() ? ENOUTPUT_MODE_SYNCHRONOUS | ENOUTPUT_MODE_SPEAK_AUDIO : ENOUTPUT_MODE_SYNCHRONOUS;
    status = espeak_ng_InitializeOutput(static_cast<espeak_ng_OUTPUT_MODE>(mode), 0, nullptr);
  }
  if (status == ENS_OK) espeak_SetSynthCallback(reinterpret_cast<t_espeak_callback*>(&TextToSpeech::onSamples));
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStarted = true;
    mReady = status == ENS_OK;
    if (!mReady) mStartError = "espeak-ng did not start (status " + std::to_string(status) + ")";
  }
  mWake.notify_all();
  if (status != ENS_OK) return;
  while (true) {
    Job job;
    {
      std::unique_lock<std::mutex> lock(mMutex);
      mWake.wait(lock, [this] { return mStopping || mNext.handle != 0; });
      if (mStopping) break;
      job = std::move(mNext);
      mNext = Job{};
      mCut.store(false);
    }
    speak(job);
  }
  espeak_ng_Terminate();
}

void TextToSpeech::speak(const Job& job) {
  playState("playing");
  mSamples.clear();
  espeak_SetVoiceByName(job.voice.c_str());
  espeak_Synth(job.text.c_str(), job.text.size() + 1, 0, POS_CHARACTER, 0, espeakCHARS_UTF8, nullptr, nullptr);
  if (!mFolder.empty() && !mCut.load() && !writeWav(job.file, espeak_ng_GetSampleRate()))
    logLine("TextToSpeechService: cannot write " + job.file);
  // A readout cut short was replaced or aborted: it has had its report.
  uint64_t mine = job.handle;
  if (!mCut.load() && mPlaying.compare_exchange_strong(mine, 0)) {
    if (!mFolder.empty()) logLine("TextToSpeechService: spoken to " + job.file);
    playState("notPlaying");
  }
}

bool TextToSpeech::writeWav(const std::string& path, int rate) const {
  FILE* file = fopen(path.c_str(), "wb");
  if (!file) return false;
  auto put32 = [&](uint32_t v) { fwrite(&v, 4, 1, file); };
  auto put16 = [&](uint16_t v) { fwrite(&v, 2, 1, file); };
  const uint32_t bytes = static_cast<uint32_t>(mSamples.size() * sizeof(short));
  fwrite("RIFF", 1, 4, file);
  put32(36 + bytes);
  fwrite("WAVEfmt ", 1, 8, file);
  put32(16);
  put16(1);  // PCM, mono, 16 bits
  put16(1);
  put32(static_cast<uint32_t>(rate));
  put32(static_cast<uint32_t>(rate) * 2);
  put16(2);
  put16(16);
  fwrite("data", 1, 4, file);
  put32(bytes);
  fwrite(mSamples.data(), sizeof(short), mSamples.size(), file);
  return fclose(file) == 0;
}

std::string TextToSpeech::voiceFor(const std::string& readoutType) const {
  // The operator always hears English; the occupants hear the car's language.
  if (readoutType == "ECALL") return "en-us";
  if (mConfig.language.rfind("fr", 0) == 0) return "fr";
  if (mConfig.language.rfind("es", 0) == 0) return "es";
  return "en-us";
}

void TextToSpeech::playState(const char* state) {
  Json::Value data(Json::objectValue);
  data["state"] = state;
  emit("ttsPlayState", data);
}

BusService::Answer TextToSpeech::answer(const std::string& method, const Json::Value& params) {
  if (method == "ttsAbort") {
    const bool wasPlaying = mPlaying.exchange(0) != 0;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mNext = Job{};
      mCut.store(true);
    }
    if (wasPlaying) playState("aborted");
    return ok();
  }
  if (method != "ttsReadout") return error("unknown method " + method);
  if (!params.isObject()) return error("parameters are not a JSON object");
  const std::string type = params.get("readoutType", "").asString();
  Job job{0, params.get("data", "").asString(), voiceFor(type), ""};
  uint64_t handle;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    handle = job.handle = mNextHandle++;
    char name[64];
    snprintf(name, sizeof name, "/%03zu-%s.wav", ++mCount, type.empty() ? "speech" : type.c_str());
    job.file = mFolder + name;
    mCut.store(mPlaying.load() != 0);  // the readout in progress gives way
    mPlaying.store(job.handle);
    mNext = std::move(job);
  }
  mWake.notify_all();
  Json::Value reply(Json::objectValue);
  reply["handle"] = static_cast<Json::UInt64>(handle);
  return result(reply);
}

}  // namespace headunit
