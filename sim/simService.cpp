#include "simService.h"

#include <array>
#include <utility>

namespace sim {

// The bus hands a request to a plain function. Each simulated service gets
// an entry point of its own, so that a request finds its service whatever the
// bus library passes as the token.
struct RequestThunks {
  static constexpr int kSlots = 32;
  static inline std::atomic<SimService*> services[kSlots];

  template <int N>
  static void entry(SVCIPC_tReqContext request, const char* method, const char* params, int noReplyExpected,
                    SVCIPC_tUserToken token) {
    SimService* service = services[N].load();
    if (!service) {
      SVCIPC_freeReqContext(request);
      return;
    }
    service->handle(request, method ? method : "", params ? params : "", noReplyExpected, token);
  }

  template <int... N>
  static constexpr std::array<SVCIPC_tRequestCallback, sizeof...(N)> table(std::integer_sequence<int, N...>) {
    return {&entry<N>...};
  }
  static inline const std::array<SVCIPC_tRequestCallback, kSlots> entries =
      table(std::make_integer_sequence<int, kSlots>{});

  static int take(SimService* service) {
    for (int i = 0; i < kSlots; ++i) {
      SimService* expected = nullptr;
      if (services[i].compare_exchange_strong(expected, service)) return i;
    }
    return -1;
  }
};

SimService::SimService(SimContext& context, std::string name)
    : mContext(context), mName(std::move(name)), mSlot(RequestThunks::take(this)) {}

SimService::~SimService() {
  leave(false);
  if (mSlot >= 0) RequestThunks::services[mSlot].store(nullptr);
}

const char* SimService::modeName(Mode mode) {
  switch (mode) {
    case Mode::Normal:
      return "normal";
    case Mode::Refuse:
      return "refuse";
    case Mode::Hang:
      return "hang";
  }
  return "?";
}

SimService::Answer SimService::ok() {
  Json::Value value(Json::objectValue);
  value["result"] = "OK";
  return result(value);
}

bool SimService::join(std::string& why, bool announce) {
  std::lock_guard<std::mutex> lock(mBusMutex);
  if (mRegistration) return true;
  if (mSlot < 0) {
    why = "too many simulated services";
    return false;
  }
  SVCIPC_tError rc = SVCIPC_getConnectionByAddress(mContext.busAddress.c_str(), &mConnection);
  if (SVCIPC_IS_ERROR(rc)) {
    char text[96];
    snprintf(text, sizeof text, "cannot connect %s to the bus, rc 0x%X", mName.c_str(), static_cast<unsigned>(rc));
    why = text;
    mConnection = nullptr;
    return false;
  }
  rc = SVCIPC_registerService(mConnection, busName().c_str(), objectPath().c_str(), 0, RequestThunks::entries[mSlot], this,
                              &mRegistration);
  if (SVCIPC_IS_ERROR(rc)) {
    char text[96];
    snprintf(text, sizeof text, "cannot own %s, rc 0x%X", busName().c_str(), static_cast<unsigned>(rc));
    why = text;
    SVCIPC_closeConnection(mConnection);
    mConnection = nullptr;
    mRegistration = nullptr;
    return false;
  }
  mOnBus.store(true);
  Json::Value entry(Json::objectValue);
  entry["kind"] = "peer";
  entry["service"] = mName;
  entry["state"] = "up";
  mContext.recorder.record(entry, announce ? mName + " is on the bus" : "");
  return true;
}

void SimService::leave(bool announce) {
  std::lock_guard<std::mutex> lock(mBusMutex);
  if (!mConnection) return;
  mOnBus.store(false);
  // Stamped before leaving, so that the service's answer is later in time.
  const double leavingAt = monotonicSeconds();
  if (mRegistration) SVCIPC_unregisterService(mRegistration);
  SVCIPC_closeConnection(mConnection);
  mRegistration = nullptr;
  mConnection = nullptr;
  Json::Value entry(Json::objectValue);
  entry["kind"] = "peer";
  entry["service"] = mName;
  entry["state"] = "gone";
  mContext.recorder.recordAt(leavingAt, entry, announce ? mName + " left the bus" : "");
}

void SimService::overrideReply(const std::string& method, const std::string& text) {
  std::lock_guard<std::mutex> lock(mOverrideMutex);
  if (text.empty())
    mOverrides.erase(method);
  else
    mOverrides[method] = text.back() == '\n' ? text : text + "\n";
}

bool SimService::emit(const std::string& signal, const std::string& data) {
  std::lock_guard<std::mutex> lock(mBusMutex);
  Json::Value entry(Json::objectValue);
  entry["kind"] = "signal";
  entry["service"] = mName;
  entry["name"] = signal;
  entry["data"] = data;
  if (!mRegistration) {
    entry["sent"] = false;
    mContext.recorder.record(entry, mName + " is off the bus: signal " + signal + " not sent");
    return false;
  }
  // The time is taken before sending: what the service does on hearing the
  // signal is then always later in time, even when its record is written
  // first in the file.
  const double sendingAt = monotonicSeconds();
  SVCIPC_tError rc = SVCIPC_asyncEmit(mRegistration, signal.c_str(), data.c_str(), nullptr, nullptr);
  entry["sent"] = !SVCIPC_IS_ERROR(rc);
  mContext.recorder.recordAt(sendingAt, entry, describeSignal(signal, data));
  return !SVCIPC_IS_ERROR(rc);
}

void SimService::setMode(Mode mode) {
  if (mode == Mode::Normal) {
    std::lock_guard<std::mutex> lock(mOverrideMutex);
    mHungMethods.clear();
  }
  mMode.store(mode);
}

void SimService::hangMethod(const std::string& method) {
  std::lock_guard<std::mutex> lock(mOverrideMutex);
  mHungMethods.insert(method);
}

void SimService::emitLater(int64_t delayMs, const std::string& signal, const std::string& data) {
  mContext.scheduler.after(delayMs, [this, signal, data] { emit(signal, data); });
}

std::string SimService::describeSignal(const std::string& signal, const std::string& data) const {
  return "<- " + mName + " " + signal + " " + oneLine(data);
}

std::string SimService::describe(const std::string& method, const std::string& params) const {
  std::string text = "-> " + mName + "." + method;
  if (!params.empty()) text += " " + oneLine(params);
  return text;
}

void SimService::handle(SVCIPC_tReqContext request, const std::string& method, const std::string& params,
                        int noReplyExpected, SVCIPC_tUserToken token) {
  // Stamped on receipt, so that what the answer sets off is later in time.
  const double receivedAt = monotonicSeconds();
  Answer answer{Answer::None, ""};
  Mode mode = mMode.load();
  if (mode == Mode::Refuse) {
    answer = error("refused by the simulator");
  } else if (mode == Mode::Normal) {
    std::string fixed;
    bool hung = false;
    {
      std::lock_guard<std::mutex> lock(mOverrideMutex);
      auto it = mOverrides.find(method);
      if (it != mOverrides.end()) fixed = it->second;
      hung = mHungMethods.count(method) != 0;
    }
    if (hung) {
      // This one method is never answered.
    } else if (!fixed.empty()) {
      // A fixed answer replaces the simulation of that method entirely.
      answer = Answer{Answer::Result, fixed};
    } else {
      Json::Value parsed;
      jsonParse(params, parsed);
      answer = this->answer(method, parsed);
    }
  }

  Json::Value entry(Json::objectValue);
  entry["kind"] = "request";
  entry["service"] = mName;
  entry["method"] = method;
  entry["params"] = params;
  entry["noReplyExpected"] = noReplyExpected != 0;
  std::string readable = describe(method, params);
  if (answer.kind == Answer::None || noReplyExpected) {
    entry["reply"] = Json::Value();
    if (answer.kind == Answer::None) readable += "  (no answer)";
  } else {
    entry["reply"] = answer.text;
    entry["error"] = answer.kind == Answer::Error;
    readable += answer.kind == Answer::Error ? "  => error " + answer.text : "  => " + oneLine(answer.text);
  }
  mContext.recorder.recordAt(receivedAt, entry, readable);

  if (answer.kind != Answer::None && !noReplyExpected)
    SVCIPC_asyncReturnResult(request, answer.text.c_str(), answer.kind == Answer::Error ? 1 : 0, token);
  SVCIPC_freeReqContext(request);
}

}  // namespace sim
