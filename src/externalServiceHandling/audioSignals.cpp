// The reading of the speech service's and the audio control's signals.
#include "externalServiceHandling/audioSignals.h"

#include "externalServiceHandling/serviceRequests.h"

namespace audioSignals {

std::string ttsPlayState(const char* data) { return extServ::textMember(extServ::parseObject(data), "state"); }

int dtmfKey(const char* data) { return extServ::intMember(extServ::parseObject(data), "KeyPressed", -1); }

}  // namespace audioSignals
