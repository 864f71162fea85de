#include <cstdlib>

#include "ecallMain/ecallMain.h"

// Work in progress.
SVCIPC_tConnection svcIPCConn = nullptr;
SVCIPC_tSvcRegHnd svcIPCRegHnd = nullptr;
std::atomic<unsigned char> gQuit{0};
CQVTraceScopeDef ecallMainTraceScope("ecallService_ecallMain", "all");

void sigHandler(int sig) { gQuit = 1; }
void sendtoSlog(int severity, const char* format, ...) {}
void die(const char* format, ...) { abort(); }
