// Requests the emergency-call service makes of other head-unit services:
// spoken prompts, audio source and microphone routing, Bluetooth on/off,
// vehicle variant, brand, language, position and software versions.
// Three operations that must not run on the bus signal thread go through a
// small command thread fed by pulses.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "common/sharedText.h"
#include "platform/serviceBus.h"
#include "platform/trace.h"

inline const CQVTraceScopeDef externalServiceHandlingTraceScope("ecallService_externalServiceHandling", "all");

class processorInputs;

// Spoken prompt codes; 1-7 are spoken to the occupants, 8-12 into the call.
// A test call has prompts of its own (13 and 14 to the occupants, 15 and 16
// into the call), so that nobody takes it for an emergency.
enum eECallTtsPrompt : int32_t {
  TTS_PROMPT_NONE = 0,
  TTS_PROMPT_INITIATE = 1,
  TTS_PROMPT_INCOMING = 2,
  TTS_PROMPT_ENDED = 3,
  TTS_PROMPT_ERROR = 4,
  TTS_PROMPT_RETRY = 5,
  TTS_PROMPT_RETRY_WITH_CANCEL = 6,
  TTS_PROMPT_DIALING = 7,
  TTS_PROMPT_ECALL_PSAP1 = 8,
  TTS_PROMPT_ECALL_PSAP2 = 9,
  TTS_PROMPT_ACN_PSAP1 = 10,
  TTS_PROMPT_ACN_PSAP2 = 11,
  TTS_PROMPT_GPS_COORDINATES = 12,
  TTS_PROMPT_TEST_CALLING = 13,
  TTS_PROMPT_TEST_ENDED = 14,
  TTS_PROMPT_TEST_PSAP1 = 15,
  TTS_PROMPT_TEST_PSAP2 = 16,
  TTS_PROMPT_COUNT = 17
};

constexpr int TTS_LANGUAGE_COUNT = 3;  // 0 English, 1 French, 2 Spanish
constexpr int VEHICLE_BRAND_COUNT = 14;
constexpr int VEHICLE_BRAND_NONE = 13;  // the empty row

extern const char* const strECallTtsPrompts[TTS_LANGUAGE_COUNT * TTS_PROMPT_COUNT];
extern const char* const strTtsLanguage[TTS_LANGUAGE_COUNT];
extern const char* const strVehicleBrands[VEHICLE_BRAND_COUNT];

// Command pulses of the command thread.
enum eExtCmdPulse : int {
  EXT_CMD_PLAY_TTS = 1,
  EXT_CMD_ABORT_TTS = 2,
  EXT_CMD_SET_MIC_MUTE = 3,
};

// arg points to the external services object.
void* externalServiceCommandThreadFunc(void* arg);

class externalServiceHandling {
 public:
  // Adds its entries to the emergency log of processor.
  explicit externalServiceHandling(processorInputs& processor);
  ~externalServiceHandling();  // unregisters the mute client
  externalServiceHandling(const externalServiceHandling&) = delete;
  externalServiceHandling& operator=(const externalServiceHandling&) = delete;

  // ---- Command thread (commandThread.cpp) ----
  void initExternalServiceHandling();
  void asyncAbortCurrentTtsMsg();
  void ayncPlayTtsMsg(eECallTtsPrompt prompt);
  void asyncSetMicInputMuteState(bool mute);
  static void onPlatformOwnerChange(const char* busName, const char* oldOwner, const char* newOwner, void* context);
  // Runs one received command (the command thread's body for one pulse).
  void processCommand(int code, int value);

  // ---- Spoken prompts (spokenPrompts.cpp) ----
  void playTtsMsg(eECallTtsPrompt prompt);
  void abortCurrentTtsMsg();
  void playTtsMsgHasCompleted();
  std::string getGPSResponseString();
  // The text spoken for a prompt in the current language and brand.
  std::string composeTtsText(eECallTtsPrompt prompt);

  // ---- Audio routing and muting (audioRouting.cpp) ----
  void requestEcallAudioSource();
  void releaseEcallAudioSource();
  void ecallAudioSourceSet(bool request);
  void registerMuteClient();
  void unregisterMuteClient();
  void setSourceMute(bool mute);
  void setMicInputMuteState(bool mute);
  void statePsseForRingTone(bool start);
  void stopAnyNonEmbeddedPsseSource();

  // ---- Vehicle configuration (vehicleConfig.cpp) ----
  bool getEmebeddedPhoneEnabledInVariant();
  void getVehicleBrand();
  // The brand and language the prompts use now (valid indexes).
  int currentBrand() const;
  int currentLanguage() const;
  void getCurrentLanguage();
  void logSystemSWInfo();
  // The vehicle's test number for a test call into number; "" when it was
  // read, else why there is none (in words for the one who asked).
  std::string getTestNumber(std::string& number);

  // ---- Bluetooth (bluetooth.cpp) ----
  void disableBluetooth();
  void enableBluetooth();

  // The command thread's receive channel.
  int32_t commandChannel() const { return mCmdChannelId.load(); }
  // The mirror LED of a crash is the processor's business; the services
  // only log.
  processorInputs& processor() { return mProcessor; }

 private:
  friend struct processProbe;  // the unit tests' view

  processorInputs& mProcessor;
  std::atomic<int32_t> mCmdChannelId{0};
  std::atomic<int32_t> mCmdConnectionId{0};
  std::atomic<int32_t> mMuteClientId{0};
  std::atomic<int32_t> mCurrentTtsPrompt{TTS_PROMPT_NONE};
  sharedText mReadoutType{"none"};
  std::atomic<int32_t> mTtsLanguage{0};
  std::atomic<int32_t> mVehicleBrandIndex{VEHICLE_BRAND_NONE};
  pthread_t mCmdThread{};
  std::atomic<bool> mEmbeddedPhoneEnabled{true};
  std::atomic<bool> mVariantInfoKnown{false};
  // The last position the navigation service gave, spoken when it hangs.
  sharedText mLastPosition;
  // Set at start-up when the platform service has an owner on the bus.
  std::atomic<int> mPlatformAvailable{0};
  SVCIPC_tSigSubHnd mPlatformOwnerSubscription = nullptr;
};
