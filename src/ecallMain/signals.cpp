#include "ecallMain/ecallMain.h"

// Work in progress.
std::atomic<bool> bECallInProgress{false};
void emitEmergencySignal(bool ecall, ecallMain::eEmergencyType type, std::string phoneNumber,
                         ecallMain::eCallModeType mode, bool BTCallActive, bool ecallModeActive) {}
void emitECallProgressSignal(unsigned int progress) {}
std::string getCurCallModeString() { return "none"; }
