#include "ecallMain/jsonText.h"

// Work in progress.
std::string jsonWrite(const Json::Value& value) { return "{}\n"; }
bool jsonParse(const char* text, Json::Value& value) {
  value = Json::Value();
  return false;
}
