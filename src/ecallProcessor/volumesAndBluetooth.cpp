#include "ecallProcessor/ecallProcessor.h"

std::atomic<int32_t> defaultPhoneVol{15};
std::atomic<int32_t> defaultPromptVol{15};

void ecallProcessor::getDefaultVolumes() {}
void ecallProcessor::setRingVolume(int) {}
void ecallProcessor::onSubcribedBTSignal(const char*, const char*, void*) {}
