// JSON texts of the bus payloads. Written compactly, members in ascending
// byte order of their names, no blanks, one line end at the end (the form
// every peer of the service expects). Parsed leniently: a text that does not
// parse leaves an empty (null) value, which reads like an object without
// members; nesting is bounded so that no peer can exhaust the stack.
#pragma once

#include <json/json.h>

#include <string>

std::string jsonWrite(const Json::Value& value);
// Parses text (null reads as ""); on failure value becomes null and false is
// returned.
bool jsonParse(const char* text, Json::Value& value);

// A member read with its default: the library's conversion of the member,
// or the default when the member is missing, cannot be converted, or object
// is not an object. Never throws, whatever a peer sent.
int jsonGetInt(const Json::Value& object, const char* name, int defaultValue);
std::string jsonGetString(const Json::Value& object, const char* name, const std::string& defaultValue);
