// The JSON text form of every bus payload.
#include "common/jsonText.h"

#include <memory>

#include "platform/trace.h"

namespace {

// The JSON helpers trace under the service frame's scope, as they did when
// they were part of it.
const CQVTraceScopeDef jsonTraceScope("ecallService_ecallMain", "all");

// Deeper nesting than any payload of the head unit has; a peer that sends
// more gets an empty value instead of exhausting the stack.
constexpr int JSON_NESTING_LIMIT = 64;

}  // namespace

std::string jsonWrite(const Json::Value& value) {
  CQVTraceScope scope(jsonTraceScope, __func__);
  // The compact writer is the wire form the peers expect: one line, members
  // in ascending byte order, no blanks, a line end at the end.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::FastWriter writer;
  return writer.write(value);
#pragma GCC diagnostic pop
}

bool jsonParse(const char* text, Json::Value& value) {
  CQVTraceScope scope(jsonTraceScope, __func__);
  value = Json::Value();
  if (text == nullptr) text = "";
  // A reader is made once per thread (making one costs as much as a parse)
  // and never shared between threads.
  thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["stackLimit"] = JSON_NESTING_LIMIT;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  const char* end = text;
  while (*end != '\0') ++end;
  Json::Value parsed;
  try {
    if (!reader->parse(text, end, &parsed, nullptr)) return false;
  } catch (const std::exception&) {
    return false;  // nesting beyond the limit
  }
  value = std::move(parsed);
  return true;
}

int jsonGetInt(const Json::Value& object, const char* name, int defaultValue) {
  CQVTraceScope scope(jsonTraceScope, __func__);
  if (!object.isObject()) return defaultValue;
  try {
    return object.get(name, defaultValue).asInt();
  } catch (const std::exception&) {
    return defaultValue;  // a text, array or object, or a number out of range
  }
}

std::string jsonGetString(const Json::Value& object, const char* name, const std::string& defaultValue) {
  CQVTraceScope scope(jsonTraceScope, __func__);
  if (!object.isObject()) return defaultValue;
  try {
    return object.get(name, defaultValue).asString();
  } catch (const std::exception&) {
    return defaultValue;  // an array or object
  }
}
