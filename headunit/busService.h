// One head-unit service played by the bridge: its name
// com.nordak.service.<Name> at /com/nordak/service/<Name> on the bridge's
// bus connection, its answers, its signals, and one log line per request
// on standard output (the journal, under systemd).
//
// Requests arrive on the bus library's thread; answer() runs there.
#pragma once

#include <json/json.h>

#include <atomic>
#include <string>

#include "platform/serviceBus.h"

namespace headunit {

// Compact JSON, members in name order, one trailing line end: the form the
// head unit's services answer with.
std::string jsonText(const Json::Value& value);
// A text that does not parse gives null.
Json::Value jsonValue(const std::string& text);
// One line on standard output, whole even when threads write at once.
void logLine(const std::string& line);

class BusService {
 public:
  explicit BusService(std::string name) : mName(std::move(name)) {}
  virtual ~BusService() = default;
  BusService(const BusService&) = delete;
  BusService& operator=(const BusService&) = delete;

  const std::string& name() const { return mName; }
  // Owns the name on the connection; false with a reason when that fails.
  bool join(SVCIPC_tConnection connection, std::string& why);
  void leave();
  // Emits a signal of this service (logged).
  void emit(const std::string& signal, const Json::Value& data);

  struct Answer {
    bool isError;
    std::string text;
  };
  static Answer result(const Json::Value& value) { return {false, jsonText(value)}; }
  static Answer ok();
  static Answer error(const std::string& why) { return {true, why}; }

 protected:
  // The answer to one method; params is the parsed parameter text.
  virtual Answer answer(const std::string& method, const Json::Value& params) = 0;

 private:
  static void onRequest(SVCIPC_tReqContext request, const char* method, const char* params, int noReplyExpected,
                        SVCIPC_tUserToken token);
  const std::string mName;
  // Written at join and leave, read by the threads that emit.
  std::atomic<SVCIPC_tSvcRegHnd> mRegistration{nullptr};
};

}  // namespace headunit
