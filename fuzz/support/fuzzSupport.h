// Common ground of the fuzz targets: the service's modules on the fake bus,
// their files in memory, with the process objects made once per process and
// the processor's state put back before every input, so that an input does
// the same whether it runs first or after a million others.
//
// An input runs in one thread and never waits: the fake bus delivers in the
// thread that waits for its deliveries, the threads the service starts
// (the LED's blink timer) run after the input, and pauses and timers take
// no time. The state machine thread and the command thread are not
// started: the targets feed one input to one handler and look at what that
// handler does; the pulses the handler sends have no receiver and are
// dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzzSupport {

// Sets up the process once (later calls only check it) and the peers'
// answers. The state is that of a healthy car: the phone present and ON,
// no emergency, no failure, the LED off, the vehicle variant with embedded
// phone, no recorded bus calls. Every target calls it first.
void beginInput();

// Runs every asynchronous result the input caused, and the threads it
// started, then puts the state back. Every target calls it last.
void endInput();

// Writes a file of the service ("/pps/can/vehstat", ...) under the root.
void writeServiceFile(const std::string& absolutePath, const std::string& content);
// And wakes the PPS delta descriptors that watch it on disk as a writer
// does, opening it for writing and closing it (they read the text in memory).
void writeWatchedObject(const std::string& absolutePath, const std::string& content);

// Splits data into at most count fields at NUL bytes; the last field takes
// the rest (NULs included). Seeds keep the fields of one input apart so.
std::vector<std::string> splitFields(const uint8_t* data, size_t size, size_t count);

// The input as text up to its first NUL (what a C string peer can send).
std::string asText(const uint8_t* data, size_t size);

// A signal as a signal target reads it from data[0] and data[2...]: a known
// name chosen by data[0] with the rest as its text, or, for a data[0] past
// the known names, any name and text split at a NUL.
struct SignalInput {
  std::string name;
  std::string payload;
};
SignalInput signalInput(const uint8_t* data, size_t size, const char* const* knownNames, size_t knownCount);

// Answers of the fake peers: method of busName answers text (a successful
// reply), or fails when text is null.
void answer(const char* busName, const char* method, const char* text);

// Stops the fuzzer on a broken expectation with a readable message.
void expect(bool condition, const char* what);

}  // namespace fuzzSupport
