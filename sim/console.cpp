#include "console.h"

#include <strings.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "platform/runtime.h"

namespace sim {

Car::Car(SimContext& context, Speaker* speaker)
    : phone(context),
      speech(context, speaker),
      mixer(context),
      audioControl(context),
      psse(context),
      bluetooth(context, psse),
      appManager(context),
      hmi(context),
      platform(context),
      vehicleConfig(context),
      vehicleStatus(context),
      navigation(context),
      micro(context.recorder),
      vehstat(context.recorder) {}

std::vector<SimService*> Car::services() {
  return {&platform, &vehicleConfig, &vehicleStatus, &navigation, &speech,     &mixer,
          &audioControl, &psse,     &bluetooth,     &appManager, &hmi,       &phone};
}

SimService* Car::service(const std::string& name) {
  for (SimService* s : services())
    if (strcasecmp(s->name().c_str(), name.c_str()) == 0) return s;
  return nullptr;
}

std::vector<std::string> splitWords(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  std::string word;
  while (in >> word) words.push_back(word);
  return words;
}

std::string restAfterWords(const std::string& line, size_t n) {
  size_t pos = 0;
  for (size_t i = 0; i < n; ++i) {
    pos = line.find_first_not_of(" \t", pos);
    if (pos == std::string::npos) return "";
    pos = line.find_first_of(" \t", pos);
    if (pos == std::string::npos) return "";
  }
  pos = line.find_first_not_of(" \t", pos);
  if (pos == std::string::npos) return "";
  size_t end = line.find_last_not_of(" \t\r");
  return line.substr(pos, end - pos + 1);
}

namespace {

bool toInt(const std::string& text, long long& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  value = strtoll(text.c_str(), &end, 10);
  return errno == 0 && end && *end == '\0';
}

bool toByte(const std::string& text, uint8_t& value, int base) {
  if (text.empty()) return false;
  char* end = nullptr;
  unsigned long v = strtoul(text.c_str(), &end, base);
  if (!end || *end != '\0' || v > 255) return false;
  value = static_cast<uint8_t>(v);
  return true;
}

// A coordinate: degrees when written with a point, else millionths of a
// degree as the navigation service reports them.
bool toCoordinate(const std::string& text, int32_t& value) {
  if (text.find('.') != std::string::npos) {
    char* end = nullptr;
    double degrees = strtod(text.c_str(), &end);
    if (!end || *end != '\0' || std::fabs(degrees) > 180.0) return false;
    value = static_cast<int32_t>(std::llround(degrees * 1e6));
    return true;
  }
  long long v;
  if (!toInt(text, v) || v < INT32_MIN || v > INT32_MAX) return false;
  value = static_cast<int32_t>(v);
  return true;
}

std::string usage(const char* form) { return std::string("error usage: ") + form; }

std::string hexText(const std::vector<uint8_t>& bytes) {
  std::string text;
  char buf[4];
  for (uint8_t b : bytes) {
    snprintf(buf, sizeof buf, " %02x", b);
    text += buf;
  }
  return text;
}

}  // namespace

// One row per command: its first word, its lines of help (none: not
// listed), whether the panel may give it, and what it does. The console and
// the panel both run commands through this table only, so that a button of
// the panel is exactly the console's command. A new command is a new row.
const std::vector<Console::Command>& Console::commands() {
  constexpr bool kPanelToo = true, kConsoleOnly = false;
  static const std::vector<Command> table = {
      {"crash", "crash LETTER [can|serial]       airbag impact of kind A B C D F Tgl H I K L M O X", kPanelToo,
       &Console::crash},
      {"impact", "impact HEX...                   raw message on the restraint controller channel", kPanelToo,
       &Console::channelBytes},
      {"loc", "loc CAN SERIAL MIRROR           link-loss message (1 = lost)", kPanelToo, &Console::channelBytes},
      {"micro",
       "micro close|open|restart        the micro's end of the channel closes, listens again\n"
       "micro deaf|hearing              the micro stops reading the channel, reads it again\n"
       "micro drop|keep                 the micro closes each connection at once, keeps them again",
       kPanelToo, &Console::micro},
      {"button", "button ecall|assist press|release|tap   (tap: pressed and released at once)", kPanelToo,
       &Console::button},
      {"psap", "psap answer|hangup|callback [NUMBER]", kPanelToo, &Console::psap},
      {"dtmf", "dtmf KEY                        a key pressed by the operator", kPanelToo, &Console::number},
      {"wend", "wend N                          call end reason from the phone", kPanelToo, &Console::number},
      {"phone", "phone on|off", kPanelToo, &Console::phone},
      {"peer",
       "peer SERVICE gone|back|refuse|hang|normal\n"
       "peer SERVICE hang METHOD        never answers that one method",
       kPanelToo, &Console::peer},
      {"signal", "signal SERVICE NAME [TEXT]      any signal, any data, from the service itself", kPanelToo,
       &Console::signal},
      {"set",
       "set number NUMBER...|none\n"
       "set variant YES|NO|none|TEXT\n"
       "set brand N\n"
       "set language CODE               e.g. en_US fr_CA es_MX\n"
       "set testnumber NUMBER|none|empty  the vehicle configuration's test number (5550100)\n"
       "set gps none|LAT LON            degrees (with a point) or millionths\n"
       "set antenna fault|normal\n"
       "set dial ok|fail|idle|drop\n"
       "set end terminated|idle         how the phone reports a call's end\n"
       "set pace MS                     time between call states\n"
       "set hangup MS                   time the phone takes to end a call it is asked to end\n"
       "set answer auto|manual          whether the operator answers by itself\n"
       "set volume N                    phone volume of the mixer\n"
       "set scenario NAME|none          active hands-free scenario",
       kPanelToo, &Console::set},
      {"reply", "reply SERVICE METHOD JSON|default", kPanelToo, &Console::reply},
      {"odo", "odo N", kPanelToo, &Console::number},
      {"appmgr",
       "appmgr start|stop [APPID]\n"
       "appmgr operStatus|appStarted|appPaused|appStopped JSON",
       kPanelToo, &Console::appManager},
      {"bt", "bt callstate active|idle", kPanelToo, &Console::bluetooth},
      {"testcall", "testcall                        ask the service for a test call (as a technician's tool does)",
       kPanelToo, &Console::testCall},
      // A pause or the end of the car belongs to whoever started it.
      {"wait", "wait MS                         pause (car time)", kConsoleOnly, &Console::wait},
      {"status", "status", kPanelToo, &Console::statusCommand},
      {"help", "help", kPanelToo, &Console::helpCommand},
      {"quit", "quit                            (so does the end of the input)", kConsoleOnly, &Console::quitCommand},
      {"exit", "", kConsoleOnly, &Console::quitCommand},
  };
  return table;
}

const Console::Command* Console::command(const std::string& name) {
  for (const Command& c : commands())
    if (name == c.name) return &c;
  return nullptr;
}

std::string Console::help() {
  std::string text = "ok commands:";
  for (const Command& c : commands()) {
    std::istringstream lines(c.usage);
    for (std::string line; std::getline(lines, line);) text += "\n  " + line;
  }
  return text;
}

std::string Console::run(const std::string& line, bool& quit, bool fromPanel) {
  std::vector<std::string> words = splitWords(line);
  if (words.empty() || words[0][0] == '#') return "";
  std::string answer;
  double givenAt;  // what the command sets off is later in time
  {
    std::lock_guard<std::mutex> lock(mMutex);  // the console and the panel take turns
    givenAt = monotonicSeconds();
    answer = dispatch({words, line, quit}, fromPanel);
  }
  Json::Value entry(Json::objectValue);
  entry["kind"] = "command";
  entry["line"] = line;
  entry["reply"] = answer.substr(0, answer.find('\n'));
  if (fromPanel) entry["from"] = "panel";
  mContext.recorder.recordAt(givenAt, entry, "");
  return answer;
}

std::string Console::dispatch(const Args& a, bool fromPanel) {
  const Command* c = command(a.w[0]);
  if (!c) return "error unknown command " + a.w[0] + " (try help)";
  if (fromPanel && !c->fromPanel) return "error " + a.w[0] + " is for the console only";
  return (this->*c->handler)(a);
}

std::string Console::crash(const Args& a) {
  const auto& w = a.w;
  size_t n = w.size();
  if (n < 2 || n > 3 || (n == 3 && w[2] != "can" && w[2] != "serial")) return usage("crash LETTER [can|serial]");
  bool serial = n == 3 && w[2] == "serial";
  std::vector<uint8_t> message = impactMessage(w[1], serial);
  if (message.empty()) return "error unknown impact kind " + w[1] + " (A B C D F Tgl H I K L M O X)";
  if (!mCar.micro.send(message, "impact")) return "error the service is not connected to the channel";
  return "ok impact " + w[1] + (serial ? " on the serial path:" : " on the CAN path:") + hexText(message);
}

// "impact HEX..." and "loc CAN SERIAL MIRROR": bytes on the channel.
std::string Console::channelBytes(const Args& a) {
  const auto& w = a.w;
  const std::string& c = w[0];
  size_t n = w.size();
  std::vector<uint8_t> message;
  if (c == "loc") {
    if (n != 4) return usage("loc CAN SERIAL MIRROR");
    message.push_back(1);
  } else if (n < 2 || n > 1025) {
    return usage("impact HEX...");
  }
  for (size_t i = 1; i < n; ++i) {
    uint8_t b;
    if (!toByte(w[i], b, c == "loc" ? 10 : 16)) return "error not a byte: " + w[i];
    message.push_back(b);
  }
  if (!mCar.micro.send(message, c)) return "error the service is not connected to the channel";
  return "ok sent" + hexText(message);
}

std::string Console::micro(const Args& a) {
  const auto& w = a.w;
  if (w.size() == 2 && (w[1] == "deaf" || w[1] == "hearing")) return mCar.micro.setDeaf(w[1] == "deaf");
  if (w.size() == 2 && (w[1] == "drop" || w[1] == "keep")) return mCar.micro.setDropping(w[1] == "drop");
  if (w.size() != 2 || (w[1] != "close" && w[1] != "open" && w[1] != "restart"))
    return usage("micro close|open|restart|deaf|hearing|drop|keep");
  return mCar.micro.restart(w[1] != "open", w[1] != "close");
}

std::string Console::button(const Args& a) {
  const auto& w = a.w;
  if (w.size() != 3 || (w[1] != "ecall" && w[1] != "assist") ||
      (w[2] != "press" && w[2] != "release" && w[2] != "tap"))
    return usage("button ecall|assist press|release|tap");
  if (w[2] == "tap") {
    const std::string pressed = mCar.vehstat.button(w[1], true);
    if (pressed.rfind("ok", 0) != 0) return pressed;
    return mCar.vehstat.button(w[1], false);
  }
  return mCar.vehstat.button(w[1], w[2] == "press");
}

// "dtmf N", "wend N", "odo N".
std::string Console::number(const Args& a) {
  const auto& w = a.w;
  const std::string& c = w[0];
  long long v;
  if (w.size() != 2 || !toInt(w[1], v)) return usage((c + " N").c_str());
  if (c == "dtmf") return mCar.audioControl.dtmf(static_cast<int>(v));
  if (c == "wend") return mCar.phone.wendReason(static_cast<int>(v));
  return mCar.vehstat.odometer(v);
}

std::string Console::phone(const Args& a) {
  const auto& w = a.w;
  if (w.size() != 2 || (w[1] != "on" && w[1] != "off")) return usage("phone on|off");
  return mCar.phone.setPhoneOn(w[1] == "on");
}

std::string Console::bluetooth(const Args& a) {
  const auto& w = a.w;
  if (w.size() != 3 || w[1] != "callstate" || (w[2] != "active" && w[2] != "idle"))
    return usage("bt callstate active|idle");
  return mCar.bluetooth.setCallActive(w[2] == "active");
}

std::string Console::wait(const Args& a) {
  long long ms;
  if (a.w.size() != 2 || !toInt(a.w[1], ms) || ms < 0) return usage("wait MS");
  platform::sleepMs(ms);
  return "ok waited " + a.w[1] + " ms";
}

std::string Console::helpCommand(const Args&) { return help(); }

std::string Console::quitCommand(const Args& a) {
  a.quit = true;
  return "ok bye";
}

std::string Console::psap(const Args& a) {
  const auto& w = a.w;
  if (w.size() == 2 && w[1] == "answer") return mCar.phone.psapAnswer();
  if (w.size() == 2 && w[1] == "hangup") return mCar.phone.psapHangup();
  if ((w.size() == 2 || w.size() == 3) && w[1] == "callback") return mCar.phone.psapCallback(w.size() == 3 ? w[2] : "");
  return usage("psap answer|hangup|callback [NUMBER]");
}

std::string Console::peer(const Args& a) {
  const auto& w = a.w;
  if (w.size() == 4 && w[2] == "hang") {
    SimService* service = mCar.service(w[1]);
    if (!service) return "error no simulated service " + w[1];
    service->hangMethod(w[3]);
    return "ok " + service->name() + " never answers " + w[3];
  }
  if (w.size() != 3) return usage("peer SERVICE gone|back|refuse|hang [METHOD]|normal");
  SimService* service = mCar.service(w[1]);
  if (!service) return "error no simulated service " + w[1];
  const std::string& what = w[2];
  if (what == "gone") {
    service->leave();
    return "ok " + service->name() + " left the bus";
  }
  if (what == "back") {
    std::string why;
    if (!service->join(why)) return "error " + why;
    return "ok " + service->name() + " is on the bus";
  }
  if (what == "refuse") service->setMode(SimService::Mode::Refuse);
  else if (what == "hang") service->setMode(SimService::Mode::Hang);
  else if (what == "normal") service->setMode(SimService::Mode::Normal);
  else return usage("peer SERVICE gone|back|refuse|hang|normal");
  return "ok " + service->name() + " answers " + SimService::modeName(service->mode());
}

// A signal with any data, even no JSON at all, sent from the service's own
// connection, so the ecall service takes it as the service's word.
std::string Console::signal(const Args& a) {
  const auto& w = a.w;
  const std::string& line = a.line;
  if (w.size() < 3) return usage("signal SERVICE NAME [TEXT]");
  SimService* service = mCar.service(w[1]);
  if (!service) return "error no simulated service " + w[1];
  const std::string data = restAfterWords(line, 3);
  service->emitLater(0, w[2], data);
  return "ok " + service->name() + "." + w[2] + " with " + std::to_string(data.size()) + " bytes";
}

std::string Console::set(const Args& a) {
  const auto& w = a.w;
  size_t n = w.size();
  if (n < 3) return usage("set WHAT VALUE (try help)");
  const std::string& what = w[1];
  const std::string& v = w[2];
  long long number = 0;
  if (what == "number") {
    if (n == 3 && v == "none") return mCar.phone.setNumbers({});
    return mCar.phone.setNumbers(std::vector<std::string>(w.begin() + 2, w.end()));
  }
  if (what == "variant" && n == 3) return mCar.platform.setVariant(v == "none" ? "" : v);
  if (what == "brand" && n == 3 && toInt(v, number)) return mCar.vehicleConfig.setBrand(static_cast<int>(number));
  if (what == "testnumber" && n == 3) {
    mContext.settings.setTestNumber(v == "none" ? std::nullopt : std::optional<std::string>(v == "empty" ? "" : v));
    return "ok test number " + v;
  }
  if (what == "language" && n == 3) {
    mContext.settings.setLanguage(v);
    return "ok language " + v;
  }
  if (what == "gps") {
    if (n == 3 && v == "none") return mCar.navigation.setPosition(false, 0, 0);
    int32_t latitude, longitude;
    if (n == 4 && toCoordinate(w[2], latitude) && toCoordinate(w[3], longitude))
      return mCar.navigation.setPosition(true, latitude, longitude);
    return usage("set gps none|LAT LON");
  }
  if (what == "antenna" && n == 3 && (v == "fault" || v == "normal")) return mCar.phone.setAntennaFault(v == "fault");
  if (what == "dial" && n == 3) {
    if (v == "ok") return mCar.phone.setDialMode(PhoneService::DialMode::Ok);
    if (v == "fail") return mCar.phone.setDialMode(PhoneService::DialMode::Fail);
    if (v == "idle") return mCar.phone.setDialMode(PhoneService::DialMode::Idle);
    if (v == "drop") return mCar.phone.setDialMode(PhoneService::DialMode::Drop);
    return usage("set dial ok|fail|idle|drop");
  }
  if (what == "end" && n == 3 && (v == "terminated" || v == "idle")) return mCar.phone.setEndAsIdle(v == "idle");
  if (what == "pace" && n == 3 && toInt(v, number) && number >= 0) return mCar.phone.setPace(number);
  if (what == "hangup" && n == 3 && toInt(v, number) && number >= 0) return mCar.phone.setHangupDelay(number);
  if (what == "answer" && n == 3 && (v == "auto" || v == "manual")) return mCar.phone.setAutoAnswer(v == "auto");
  if (what == "volume" && n == 3 && toInt(v, number)) return mCar.mixer.setVolume(static_cast<int>(number));
  if (what == "scenario" && n == 3) {
    mCar.psse.setScenario(v == "none" ? "" : v);
    return "ok scenario " + v;
  }
  return "error cannot set " + what + " that way (try help)";
}

std::string Console::reply(const Args& a) {
  const auto& w = a.w;
  const std::string& line = a.line;
  if (w.size() < 4) return usage("reply SERVICE METHOD JSON|default");
  SimService* service = mCar.service(w[1]);
  if (!service) return "error no simulated service " + w[1];
  std::string text = restAfterWords(line, 3);
  if (text == "default") {
    service->overrideReply(w[2], "");
    return "ok " + service->name() + "." + w[2] + " answers as simulated";
  }
  service->overrideReply(w[2], text);
  return "ok " + service->name() + "." + w[2] + " answers " + text;
}

std::string Console::appManager(const Args& a) {
  const auto& w = a.w;
  const std::string& line = a.line;
  size_t n = w.size();
  if (n >= 2 && (w[1] == "start" || w[1] == "stop") && n <= 3) {
    std::string appId = n == 3 ? w[2] : AppManagerService::kAssistApp;
    return w[1] == "start" ? mCar.appManager.startApp(appId) : mCar.appManager.stopApp(appId);
  }
  if (n >= 3 && (w[1] == "operStatus" || w[1] == "appStarted" || w[1] == "appPaused" || w[1] == "appStopped"))
    return mCar.appManager.rawSignal(w[1], restAfterWords(line, 2));
  return usage("appmgr start|stop [APPID] | appmgr operStatus|appStarted|appPaused|appStopped JSON");
}

std::string Console::statusCommand(const Args&) { return status(); }

// The service's own answer: started, or refused with its reason.
std::string Console::testCall(const Args& a) {
  if (a.w.size() != 1) return usage("testcall");
  if (!mServiceConnection &&
      SVCIPC_IS_ERROR(SVCIPC_getConnectionByAddress(mContext.busAddress.c_str(), &mServiceConnection))) {
    mServiceConnection = nullptr;
    return "error cannot connect to the bus";
  }
  SVCIPC_tResponse* response = nullptr;
  const SVCIPC_tError rc = SVCIPC_invoke(mServiceConnection, "com.nordak.service.ecallService",
                                         "/com/nordak/service/ecallService", "startTestEcall", "{}",
                                         SVCIPC_TIMEOUT_DEFAULT, &response);
  if (SVCIPC_IS_ERROR(rc)) {
    char status[16];
    snprintf(status, sizeof status, "0x%08X", static_cast<unsigned>(rc));
    return std::string("error ecallService gave no answer (status ") + status + ")";
  }
  Json::Value reply;
  const bool parsed = jsonParse(response->result, reply) && reply.isObject();
  SVCIPC_freeResponse(response);
  if (parsed && reply["result"] == "OK") return "ok test call started";
  if (parsed && reply["reason"].isString()) return "error test call refused: " + reply["reason"].asString();
  return "error unexpected answer from ecallService";
}

std::string Console::status() {
  std::string text = "ok";
  for (SimService* s : mCar.services()) {
    if (!s->onBus()) text += " " + s->name() + "=gone";
    else if (s->mode() != SimService::Mode::Normal) text += " " + s->name() + "=" + SimService::modeName(s->mode());
  }
  for (SimService* s : mCar.services()) {
    std::string part = s->status();
    if (!part.empty()) text += " " + part;
  }
  text += " " + mCar.micro.status() + " " + mCar.vehstat.status();
  return text;
}

}  // namespace sim
