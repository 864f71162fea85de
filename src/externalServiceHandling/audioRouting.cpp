#include "externalServiceHandling/externalServiceHandling.h"

void externalServiceHandling::requestEcallAudioSource() {}
void externalServiceHandling::releaseEcallAudioSource() {}
void externalServiceHandling::ecallAudioSourceSet(bool) {}
void externalServiceHandling::registerMuteClient() {}
void externalServiceHandling::unregisterMuteClient() {}
void externalServiceHandling::setSourceMute(bool) {}
void externalServiceHandling::setMicInputMuteState(bool) {}
void externalServiceHandling::statePsseForRingTone(bool) {}
void externalServiceHandling::stopAnyNonEmbeddedPsseSource() {}
