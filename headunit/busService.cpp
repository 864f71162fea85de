#include "busService.h"

#include <cstdio>
#include <memory>
#include <mutex>

namespace headunit {

std::string jsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

Json::Value jsonValue(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = 64;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return Json::Value();
  } catch (const std::exception&) {
    return Json::Value();
  }
  return value;
}

void logLine(const std::string& line) {
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  std::string text = line;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  fprintf(stdout, "%s\n", text.c_str());
  fflush(stdout);
}

BusService::Answer BusService::ok() {
  Json::Value value(Json::objectValue);
  value["result"] = "OK";
  return result(value);
}

bool BusService::join(SVCIPC_tConnection connection, std::string& why) {
  const std::string busName = "com.nordak.service." + mName, path = "/com/nordak/service/" + mName;
  SVCIPC_tSvcRegHnd registration = nullptr;
  SVCIPC_tError rc = SVCIPC_registerService(connection, busName.c_str(), path.c_str(), 0, &BusService::onRequest, this,
                                            &registration);
  if (!SVCIPC_IS_ERROR(rc)) {
    mRegistration.store(registration);
    return true;
  }
  char text[128];
  snprintf(text, sizeof text, "cannot own %s, rc 0x%X", busName.c_str(), static_cast<unsigned>(rc));
  why = text;
  return false;
}

void BusService::leave() {
  if (SVCIPC_tSvcRegHnd registration = mRegistration.exchange(nullptr)) SVCIPC_unregisterService(registration);
}

void BusService::emit(const std::string& signal, const Json::Value& data) {
  const std::string text = jsonText(data);
  logLine("<- " + mName + " " + signal + " " + text);
  // Before the name is owned nobody can hear it: ecallService asks for the
  // state when it finds the service.
  if (SVCIPC_tSvcRegHnd registration = mRegistration.load())
    SVCIPC_asyncEmit(registration, signal.c_str(), text.c_str(), nullptr, nullptr);
}

void BusService::onRequest(SVCIPC_tReqContext request, const char* method, const char* params, int noReplyExpected,
                           SVCIPC_tUserToken token) {
  auto* service = static_cast<BusService*>(token);
  const std::string methodText = method ? method : "", paramText = params ? params : "";
  Answer answer = service->answer(methodText, jsonValue(paramText));
  std::string shown = paramText;
  while (!shown.empty() && shown.back() == '\n') shown.pop_back();
  logLine("-> " + service->mName + "." + methodText + " " + shown + (answer.isError ? "  => error " : "  => ") +
          answer.text);
  if (!noReplyExpected) SVCIPC_asyncReturnResult(request, answer.text.c_str(), answer.isError ? 1 : 0, token);
  SVCIPC_freeReqContext(request);
}

}  // namespace headunit
