// Process-wide settings of the platform layer: the root folder under which
// every absolute path of the service is resolved (--root), and the time
// scale that shortens every wait for simulation (--time-scale).
#pragma once

#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <string>

namespace platform {

// Root folder, "/" by default. Set once from the command line, before any
// process object is created.
void setRoot(const std::string& dir);
const std::string& root();
// An absolute path of the service ("/fs/etfs/...") under the root.
std::string rootPath(const std::string& absolutePath);

// 0 < scale <= 1; 1 by default.
void setTimeScale(double scale);
double timeScale();
// A duration the service waits for, scaled (never below 1 ms for a non-zero
// duration, so a 1 ms "run now" stays a real timer expiry).
int64_t scaledMs(int64_t ms);
int64_t scaledNs(int64_t ns);
// The inverse: how much of the service's own time a real duration is.
int64_t unscaledMs(int64_t realMs);
// nanosleep for a scaled duration (retried on EINTR).
void sleepMs(int64_t ms);
void sleepNs(int64_t ns);

// For a program that never waits for the world outside it (the fuzz
// targets): pauses (sleepMs, sleepNs) return at once and timers expire as
// they are armed. Off unless set; the service never sets it.
void skipWaits(bool on);
bool waitsSkipped();

// Starts body(arg) on a detached thread, as pthread_create does (0, or an
// error number). A program may run such threads its own way instead
// (setThreadStarter; null: real threads again): the fuzz targets run them
// in their own thread after each input.
using threadBody = void* (*)(void*);
using threadStarter = int (*)(pthread_t* thread, threadBody body, void* arg);
int startDetachedThread(pthread_t* thread, threadBody body, void* arg);
void setThreadStarter(threadStarter starter);

// For a program whose one thread waits for its end: blocks SIGINT and SIGTERM
// in the calling thread, and so in every thread it starts afterwards, and
// ignores SIGPIPE, so that a peer that hangs up never ends the program.
// Returns the blocked set, for sigwait or signalfd.
sigset_t blockTerminationSignals();

}  // namespace platform
