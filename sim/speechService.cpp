#include "speechService.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace sim {

Speaker::~Speaker() { stop(); }

void Speaker::start(const std::string& folder) {
  mFolder = folder;
  mThread = std::thread([this] { run(); });
}

void Speaker::say(const std::string& text, const std::string& voice, const std::string& fileName) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mThread.joinable() || mStopping) return;
  mJobs.push_back({text, voice, mFolder + "/" + fileName});
  mCond.notify_all();
}

void Speaker::stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
    mJobs.clear();
    mCond.notify_all();
  }
  if (mThread.joinable()) mThread.join();
}

void Speaker::run() {
  std::unique_lock<std::mutex> lock(mMutex);
  while (true) {
    mCond.wait(lock, [this] { return mStopping || !mJobs.empty(); });
    if (mStopping) return;
    Job job = std::move(mJobs.front());
    mJobs.pop_front();
    lock.unlock();
    bool done = render(job);
    Json::Value entry(Json::objectValue);
    entry["kind"] = "speech";
    entry["file"] = job.file;
    entry["voice"] = job.voice;
    entry["ok"] = done;
    mRecorder.record(entry, done ? "spoken to " + job.file : "espeak-ng could not render " + job.file);
    lock.lock();
  }
}

bool Speaker::render(const Job& job) {
  std::vector<std::string> args = {"espeak-ng", "-v", job.voice, "-w", job.file, "--", job.text};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, "espeak-ng", nullptr, nullptr, argv.data(), environ) != 0) return false;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

SpeechService::SpeechService(SimContext& context, Speaker* speaker)
    : SimService(context, "TextToSpeechService"), mSpeaker(speaker) {}

int64_t SpeechService::playingMs(const std::string& text) {
  // About fourteen characters a second, as a synthetic voice reads.
  return 300 + 70 * static_cast<int64_t>(text.size());
}

SimService::Answer SpeechService::answer(const std::string& method, const Json::Value& params) {
  if (method == "ttsReadout") return readout(params);
  if (method == "ttsAbort") return abort();
  return error("unknown method " + method);
}

std::string SpeechService::voiceFor(const std::string& readoutType) const {
  // The operator always hears English; the occupants hear the head unit's
  // language.
  if (readoutType == "ECALL") return "en-us";
  std::string language = mContext.settings.language();
  if (language.rfind("fr", 0) == 0) return "fr";
  if (language.rfind("es", 0) == 0) return "es";
  return "en-us";
}

SimService::Answer SpeechService::readout(const Json::Value& params) {
  if (!params.isObject()) return error("parameters are not a JSON object");
  std::string text = params.get("data", "").asString();
  std::string type = params.get("readoutType", "").asString();
  uint64_t handle;
  size_t count;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    handle = mNextHandle++;
    // A new readout replaces the one playing without a report of its own.
    if (mPlaying) mContext.scheduler.cancel(mDone);
    mPlaying = handle;
    mDone = mContext.scheduler.after(playingMs(text), [this, handle] { finished(handle); });
    mSpoken.push_back(text);
    count = mSpoken.size();
  }
  if (mSpeaker) {
    char name[64];
    snprintf(name, sizeof name, "%03zu-%s.wav", count, type.empty() ? "speech" : type.c_str());
    mSpeaker->say(text, voiceFor(type), name);
  }
  Json::Value reply(Json::objectValue);
  reply["handle"] = static_cast<Json::UInt64>(handle);
  return result(reply);
}

SimService::Answer SpeechService::abort() {
  bool wasPlaying;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    wasPlaying = mPlaying != 0;
    if (wasPlaying) mContext.scheduler.cancel(mDone);
    mPlaying = 0;
  }
  if (wasPlaying) {
    Json::Value data(Json::objectValue);
    data["state"] = "aborted";
    emitLater(0, "ttsPlayState", jsonText(data));
  }
  return ok();
}

void SpeechService::finished(uint64_t handle) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mPlaying != handle) return;
    mPlaying = 0;
  }
  Json::Value data(Json::objectValue);
  data["state"] = "notPlaying";
  emit("ttsPlayState", jsonText(data));
}

std::string SpeechService::describe(const std::string& method, const std::string& params) const {
  Json::Value parsed;
  if (method == "ttsReadout" && jsonParse(params, parsed) && parsed.isObject())
    return "say (" + parsed.get("readoutType", "").asString() + "): " + parsed.get("data", "").asString();
  return SimService::describe(method, params);
}

std::vector<std::string> SpeechService::spoken() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mSpoken;
}

std::string SpeechService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return "tts=" + std::string(mPlaying ? "playing" : "quiet") + " spoken=" + std::to_string(mSpoken.size());
}

}  // namespace sim
