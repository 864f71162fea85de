// The speech service's and the audio control's signals as the processor
// reads them.
#pragma once

#include <string>

namespace audioSignals {

// The "state" of a "ttsPlayState" signal ("notPlaying", "aborted", ...), ""
// when it has none.
std::string ttsPlayState(const char* data);
// The key of a "DTMF" signal, -1 when it has none.
int dtmfKey(const char* data);

}  // namespace audioSignals
