// vehicle-sim alone, on a private bus, driven through its console and asked
// through a test-side bus client, as the service would.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>

#include "support/e2eHarness.h"
#include "support/testSupport.h"

using testSupport::E2eHarness;
using testSupport::E2eOptions;
using ms = std::chrono::milliseconds;

namespace {

E2eOptions simOnly() {
  E2eOptions options;
  options.startService = false;
  return options;
}

Json::Value parse(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  reader->parse(text.data(), text.data() + text.size(), &value, &errors);
  return value;
}

// Asks a simulated service and returns its parsed answer (null on failure).
Json::Value ask(E2eHarness& car, const std::string& service, const std::string& method,
                const std::string& params = "{}") {
  std::string reply;
  SVCIPC_tError rc = car.invoke(service, method, params, 3000, &reply);
  EXPECT_FALSE(SVCIPC_IS_ERROR(rc)) << service << "." << method << " failed, rc 0x" << std::hex << rc;
  return parse(reply);
}

// The signals of one name from one service, as a subscriber receives them.
class SignalTap {
 public:
  SignalTap(const std::string& bus, const std::string& service, const char* signal) {
    SVCIPC_tError rc = SVCIPC_getConnectionByAddress(bus.c_str(), &mConnection);
    EXPECT_FALSE(SVCIPC_IS_ERROR(rc)) << "rc 0x" << std::hex << rc;
    std::string path = "/com/nordak/service/" + service;
    rc = SVCIPC_subscribe(mConnection, path.c_str(), signal, &SignalTap::on, this, &mSub);
    EXPECT_FALSE(SVCIPC_IS_ERROR(rc)) << "subscribing to " << signal << ", rc 0x" << std::hex << rc;
  }
  ~SignalTap() { SVCIPC_closeConnection(mConnection); }

  // The first count signals (fewer if the deadline passed).
  std::vector<Json::Value> waitFor(size_t count, ms deadline = ms(5000)) {
    std::unique_lock<std::mutex> lock(mMutex);
    mCond.wait_for(lock, deadline, [&] { return mReceived.size() >= count; });
    return mReceived;
  }

 private:
  static void on(const char*, const char* data, void* context) {
    auto* self = static_cast<SignalTap*>(context);
    std::lock_guard<std::mutex> lock(self->mMutex);
    self->mReceived.push_back(parse(data ? data : ""));
    self->mCond.notify_all();
  }
  SVCIPC_tConnection mConnection = nullptr;
  SVCIPC_tSigSubHnd mSub = nullptr;
  std::mutex mMutex;
  std::condition_variable mCond;
  std::vector<Json::Value> mReceived;
};

std::vector<std::string> callStates(const std::vector<Json::Value>& signals) {
  std::vector<std::string> states;
  for (const auto& s : signals) states.push_back(s["callStateInfo"][0]["callState"].asString());
  return states;
}

bool startsWithOk(const std::string& reply) { return reply.rfind("ok", 0) == 0; }

}  // namespace

TEST(VehicleSim, HealthyCarAnswersTheQueriesOfTheService) {
  E2eHarness car(simOnly());

  // The exact texts of the two answers the service parses most carefully.
  std::string reply;
  ASSERT_FALSE(SVCIPC_IS_ERROR(car.invoke("EmbeddedPhone", "getEmergencyNumbers", "{\"maxCount\":10}\n", 3000, &reply)));
  EXPECT_EQ(reply, "{\"code\":0,\"count\":1,\"numberList\":[\"911\"]}\n");
  ASSERT_FALSE(SVCIPC_IS_ERROR(car.invoke("platform", "get_variantinfo", "", 3000, &reply)));
  EXPECT_EQ(reply, "{\"VARIANT_ECELL\":\"YES\"}\n");

  EXPECT_TRUE(ask(car, "EmbeddedPhone", "getProperties")["embeddedPhoneStatus"]["status"].asBool());
  Json::Value antenna = ask(car, "EmbeddedPhone", "getAntennaStatus", "{\"antenna\":\"PHONE_ANTENNA_PRIMARY\"}");
  EXPECT_EQ(antenna["description"].asString(), "success");
  EXPECT_EQ(antenna["status"].asString(), "PHONE_DIAG_ANTENNA_NORMAL");
  Json::Value ports = ask(car, "EmbeddedPhone", "getUsbPorts", "");
  EXPECT_EQ(ports["code"].asInt(), 0);
  EXPECT_GT(ports["ports"].size(), 0u);
  EXPECT_TRUE(ask(car, "platform", "get_all_versions", "")["app_version"].isString());
  EXPECT_EQ(ask(car, "VehicleConfig", "getProperties")["vehicleBrand"].asInt(), 1);
  EXPECT_EQ(ask(car, "VehicleStatus", "getProperties")["language"].asString(), "en_US");
  Json::Value position = ask(car, "NDR", "JSON_GetProperties")["outprop"]["POS_Position"];
  EXPECT_TRUE(position["DR_latitude"].isInt() && position["DR_latitude"].asInt() != 0);
  EXPECT_TRUE(position["DR_longitude"].isInt());
  EXPECT_TRUE(ask(car, "AudioMixerManager", "getProperties")["volumeLevel"]["FRONT_L_SPKR"]["PHONE"].isInt());
  EXPECT_TRUE(ask(car, "AudioMixerManager", "registerMuteClient")["id"].isInt());
  for (const char* method : {"requestInformationSource", "releaseInformationSource", "setMixerMute", "adjustVolume",
                             "unregisterMuteClient"})
    EXPECT_EQ(ask(car, "AudioMixerManager", method, "{\"source\":\"ecall\"}")["result"].asString(), "OK") << method;
  EXPECT_EQ(ask(car, "AudioCtrlSvc", "setMux", "{\"gain\":0,\"input\":\"OFF\",\"name\":\"mic1_mux1\"}")["result"].asString(),
            "OK");
  EXPECT_EQ(ask(car, "HMIGateWay", "displayGlobalPopupByMsgId", "{\"msgId\":2672}")["result"].asString(), "OK");
  EXPECT_EQ(ask(car, "EmbeddedPhone", "debugAT", "{\"atString\":\"at+wsos=0\\r\"}")["result"].asString(), "OK");

  // Each request is recorded with its parameters exactly as received.
  auto recorded = car.requests("EmbeddedPhone", "getEmergencyNumbers");
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0]["params"].asString(), "{\"maxCount\":10}\n");
  EXPECT_EQ(recorded[0]["reply"].asString(), "{\"code\":0,\"count\":1,\"numberList\":[\"911\"]}\n");
}

TEST(VehicleSim, CommandsChangeWhatTheServicesAnswer) {
  E2eHarness car(simOnly());
  SignalTap phoneStatus(car.busAddress(), "EmbeddedPhone", "embeddedPhoneStatus");
  SignalTap antennaStatus(car.busAddress(), "EmbeddedPhone", "antennaStatus");

  for (const char* command : {"set number 112 911", "set variant NO", "set brand 7", "set language fr_CA",
                              "set gps 12.345678 -98.765432", "set antenna fault", "set volume 9"})
    ASSERT_TRUE(startsWithOk(car.sim(command))) << command;
  Json::Value numbers = ask(car, "EmbeddedPhone", "getEmergencyNumbers");
  EXPECT_EQ(numbers["count"].asInt(), 2);
  EXPECT_EQ(numbers["numberList"][0].asString(), "112");
  EXPECT_EQ(ask(car, "platform", "get_variantinfo", "")["VARIANT_ECELL"].asString(), "NO");
  EXPECT_EQ(ask(car, "VehicleConfig", "getProperties")["vehicleBrand"].asInt(), 7);
  EXPECT_EQ(ask(car, "VehicleStatus", "getProperties")["language"].asString(), "fr_CA");
  Json::Value position = ask(car, "NDR", "JSON_GetProperties")["outprop"]["POS_Position"];
  EXPECT_EQ(position["DR_latitude"].asInt(), 12345678);
  EXPECT_EQ(position["DR_longitude"].asInt(), -98765432);
  EXPECT_EQ(ask(car, "AudioMixerManager", "getProperties")["volumeLevel"]["FRONT_L_SPKR"]["PHONE"].asInt(), 9);
  EXPECT_NE(ask(car, "EmbeddedPhone", "getAntennaStatus")["status"].asString(), "PHONE_DIAG_ANTENNA_NORMAL");
  auto antennaSignals = antennaStatus.waitFor(1);
  ASSERT_EQ(antennaSignals.size(), 1u);
  EXPECT_NE(antennaSignals[0]["status"].asString(), "PHONE_DIAG_ANTENNA_NORMAL");

  ASSERT_TRUE(startsWithOk(car.sim("set gps none")));
  EXPECT_EQ(ask(car, "NDR", "JSON_GetProperties")["outprop"]["POS_Position"]["DR_latitude"].asInt(), 0);
  ASSERT_TRUE(startsWithOk(car.sim("set variant none")));
  EXPECT_FALSE(ask(car, "platform", "get_variantinfo", "").isMember("VARIANT_ECELL"));
  ASSERT_TRUE(startsWithOk(car.sim("set number none")));
  EXPECT_EQ(ask(car, "EmbeddedPhone", "getEmergencyNumbers")["count"].asInt(), 0);

  // A phone switched off says so, by answer and by signal.
  ASSERT_TRUE(startsWithOk(car.sim("phone off")));
  EXPECT_FALSE(ask(car, "EmbeddedPhone", "getProperties")["embeddedPhoneStatus"]["status"].asBool());
  auto statusSignals = phoneStatus.waitFor(1);
  ASSERT_EQ(statusSignals.size(), 1u);
  EXPECT_FALSE(statusSignals[0]["embeddedPhoneStatus"]["status"].asBool());
  EXPECT_TRUE(statusSignals[0]["embeddedPhoneStatus"]["status"].isBool());

  // A fixed answer replaces the simulated one, and "default" restores it.
  ASSERT_TRUE(startsWithOk(car.sim("reply VehicleConfig getProperties {\"vehicleBrand\":\"3\"}")));
  EXPECT_EQ(ask(car, "VehicleConfig", "getProperties")["vehicleBrand"].asString(), "3");
  ASSERT_TRUE(startsWithOk(car.sim("reply VehicleConfig getProperties default")));
  EXPECT_EQ(ask(car, "VehicleConfig", "getProperties")["vehicleBrand"].asInt(), 7);
}

TEST(VehicleSim, EmergencyDialWalksToActiveAndEndsOnHangUp) {
  E2eHarness car(simOnly());
  SignalTap calls(car.busAddress(), "EmbeddedPhone", "callState");

  EXPECT_EQ(ask(car, "EmbeddedPhone", "ecallDial",
                "{\"address\":\"911\",\"callType\":\"MVA\",\"vehicleType\":\"Corvane\"}")["result"].asString(),
            "OK");
  auto signals = calls.waitFor(3);
  ASSERT_EQ(callStates(signals),
            (std::vector<std::string>{"CALL_STATE_DIALING", "CALL_STATE_ALERTING", "CALL_STATE_ACTIVE"}));
  for (const auto& s : signals) {
    ASSERT_EQ(s["callStateInfo"].size(), 1u);
    EXPECT_EQ(s["callStateInfo"][0]["number"].asString(), "911");
    EXPECT_EQ(s["callStateInfo"][0]["callType"].asInt(), 1);
  }
  // A second dial while the call is up is refused.
  std::string reply;
  EXPECT_TRUE(SVCIPC_IS_ERROR(car.invoke("EmbeddedPhone", "ecallDial", "{\"address\":\"911\"}", 3000, &reply)));

  EXPECT_EQ(ask(car, "EmbeddedPhone", "endActiveCall", "")["result"].asString(), "OK");
  signals = calls.waitFor(4);
  ASSERT_EQ(signals.size(), 4u);
  EXPECT_EQ(callStates(signals).back(), "CALL_STATE_TERMINATED");
  EXPECT_NE(car.sim("status").find("call=idle"), std::string::npos);

  // The operator ends the next call.
  ask(car, "EmbeddedPhone", "ecallDial", "{\"address\":\"911\"}");
  ASSERT_EQ(calls.waitFor(7).size(), 7u);
  EXPECT_TRUE(startsWithOk(car.sim("psap hangup")));
  EXPECT_EQ(callStates(calls.waitFor(8)).back(), "CALL_STATE_TERMINATED");
}

TEST(VehicleSim, DialCanFailStayIdleOrDrop) {
  E2eHarness car(simOnly());
  SignalTap calls(car.busAddress(), "EmbeddedPhone", "callState");
  const std::string dial = "{\"address\":\"911\",\"callType\":\"MVA\",\"vehicleType\":\"Corvane\"}";
  std::string reply;

  ASSERT_TRUE(startsWithOk(car.sim("set dial fail")));
  SVCIPC_tError rc = car.invoke("EmbeddedPhone", "ecallDial", dial, 3000, &reply);
  EXPECT_TRUE(SVCIPC_IS_ERROR(rc));
  EXPECT_EQ(SVCIPC_ERROR_CODE(rc), SVCIPC_DBUS_ERR_SERVICE_ERROR);

  ASSERT_TRUE(startsWithOk(car.sim("set dial idle")));
  EXPECT_EQ(ask(car, "EmbeddedPhone", "ecallDial", dial)["result"].asString(), "OK");
  EXPECT_NE(car.sim("status").find("call=idle"), std::string::npos);

  ASSERT_TRUE(startsWithOk(car.sim("set dial drop")));
  ask(car, "EmbeddedPhone", "ecallDial", dial);
  EXPECT_EQ(callStates(calls.waitFor(2)),
            (std::vector<std::string>{"CALL_STATE_DIALING", "CALL_STATE_TERMINATED"}));

  // With manual answering the call waits in alerting for the operator.
  ASSERT_TRUE(startsWithOk(car.sim("set dial ok")));
  ASSERT_TRUE(startsWithOk(car.sim("set answer manual")));
  ask(car, "EmbeddedPhone", "ecallDial", dial);
  ASSERT_EQ(callStates(calls.waitFor(4)).back(), "CALL_STATE_ALERTING");
  EXPECT_TRUE(startsWithOk(car.sim("psap answer")));
  EXPECT_EQ(callStates(calls.waitFor(5)).back(), "CALL_STATE_ACTIVE");
}

TEST(VehicleSim, OperatorCallbackRingsUntilAccepted) {
  E2eHarness car(simOnly());
  SignalTap calls(car.busAddress(), "EmbeddedPhone", "callState");
  std::string reply;
  // Nothing rings yet: accepting is refused.
  EXPECT_TRUE(SVCIPC_IS_ERROR(car.invoke("EmbeddedPhone", "acceptIncomingCall", "", 3000, &reply)));

  ASSERT_TRUE(startsWithOk(car.sim("psap callback 5551234")));
  auto signals = calls.waitFor(1);
  ASSERT_EQ(signals.size(), 1u);
  EXPECT_EQ(signals[0]["callStateInfo"][0]["callState"].asString(), "CALL_STATE_RINGING");
  EXPECT_EQ(signals[0]["callStateInfo"][0]["number"].asString(), "5551234");
  int callType = signals[0]["callStateInfo"][0]["callType"].asInt();
  EXPECT_TRUE(callType == 1 || callType == 2) << "the service takes only emergency call types";
  EXPECT_FALSE(startsWithOk(car.sim("psap callback"))) << "one call at a time";

  EXPECT_EQ(ask(car, "EmbeddedPhone", "acceptIncomingCall", "")["result"].asString(), "OK");
  EXPECT_EQ(callStates(calls.waitFor(2)).back(), "CALL_STATE_ACTIVE");
}

TEST(VehicleSim, ChannelCarriesExactImpactBytesAndRecordsWhatTheServiceWrites) {
  E2eHarness car(simOnly());
  EXPECT_EQ(car.sim("crash B can").rfind("error", 0), 0u) << "nobody is connected yet";

  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  struct sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = car.path("/dev/ipc/ch12");
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << strerror(errno);
  ASSERT_TRUE(car.waitForChannelConnected(ms(5000)));

  auto next = [&] {
    unsigned char buffer[512];
    ssize_t n = read(fd, buffer, sizeof buffer);
    return std::vector<int>(buffer, buffer + (n > 0 ? n : 0));
  };
  struct Case {
    const char* command;
    std::vector<int> bytes;
  } cases[] = {
      {"crash B can", {0, 1, 0x02, 0, 0, 0, 0}},
      {"crash Tgl can", {0, 1, 0x80, 0, 0, 0, 0}},
      {"crash X", {0, 1, 0, 0x80, 0, 0, 0}},
      {"crash I serial", {0, 0, 0, 0, 1, 0, 0x02}},
      {"crash O serial", {0, 0, 0, 0, 1, 0, 0x40}},
      {"impact 00 01 02 00 01 00 02", {0, 1, 2, 0, 1, 0, 2}},
      {"loc 0 1 0", {1, 0, 1, 0}},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(startsWithOk(car.sim(c.command))) << c.command;
    EXPECT_EQ(next(), c.bytes) << c.command;
  }
  EXPECT_EQ(car.sim("crash E").rfind("error", 0), 0u) << "E is not an impact kind";

  // What the service writes: LED, Assist status, module reset.
  for (std::vector<unsigned char> message : {std::vector<unsigned char>{1, 2}, {2, 1}, {3}})
    ASSERT_EQ(write(fd, message.data(), message.size()), static_cast<ssize_t>(message.size()));
  ASSERT_TRUE(car.waitForChannelMessage({3}, ms(5000)));
  EXPECT_EQ(car.channelMessages(), (std::vector<std::vector<int>>{{1, 2}, {2, 1}, {3}}));
  std::string status = car.sim("status");
  EXPECT_NE(status.find("led=blinking green"), std::string::npos) << status;
  EXPECT_NE(status.find("resets=1"), std::string::npos) << status;
  close(fd);
}

TEST(VehicleSim, ButtonsAndOdometerReplaceTheStatusObjectWhole) {
  E2eHarness car(simOnly());
  const std::string object = car.path("/pps/can/vehstat");
  EXPECT_EQ(testSupport::readFile(object), "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::1234567\n");
  struct stat before;
  ASSERT_EQ(stat(object.c_str(), &before), 0);

  ASSERT_TRUE(startsWithOk(car.sim("button ecall press")));
  EXPECT_EQ(testSupport::readFile(object), "@vehstat\nE_CALL_BtnStat::1\nU_CALL_BtnStat::0\nODO::1234567\n");
  struct stat after;
  ASSERT_EQ(stat(object.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino) << "the object must be replaced, not rewritten in place";

  ASSERT_TRUE(startsWithOk(car.sim("button assist press")));
  ASSERT_TRUE(startsWithOk(car.sim("button ecall release")));
  ASSERT_TRUE(startsWithOk(car.sim("odo 42")));
  EXPECT_EQ(testSupport::readFile(object), "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::1\nODO::42\n");
}

TEST(VehicleSim, PeersLeaveComeBackRefuseAndHang) {
  E2eHarness car(simOnly());
  std::string reply;
  ASSERT_TRUE(startsWithOk(car.sim("peer EmbeddedPhone gone")));
  SVCIPC_tError rc = car.invoke("EmbeddedPhone", "getProperties", "{}", 3000, &reply);
  EXPECT_TRUE(SVCIPC_IS_ERROR(rc));
  EXPECT_EQ(SVCIPC_ERROR_CODE(rc), SVCIPC_DBUS_ERR_SERVICE_UNKNOWN);
  // The others stay.
  EXPECT_EQ(ask(car, "VehicleStatus", "getProperties")["language"].asString(), "en_US");

  ASSERT_TRUE(startsWithOk(car.sim("peer EmbeddedPhone back")));
  EXPECT_TRUE(ask(car, "EmbeddedPhone", "getProperties")["embeddedPhoneStatus"]["status"].asBool());

  ASSERT_TRUE(startsWithOk(car.sim("peer platform refuse")));
  rc = car.invoke("platform", "get_variantinfo", "", 3000, &reply);
  EXPECT_TRUE(SVCIPC_IS_ERROR(rc));
  EXPECT_EQ(SVCIPC_ERROR_CODE(rc), SVCIPC_DBUS_ERR_SERVICE_ERROR);

  ASSERT_TRUE(startsWithOk(car.sim("peer platform hang")));
  rc = car.invoke("platform", "get_variantinfo", "", 300, &reply);
  EXPECT_TRUE(testSupport::isNoReply(rc)) << "a hanging peer answers nothing, not an error: rc 0x" << std::hex << rc;
  EXPECT_TRUE(car.requests("platform", "get_variantinfo").back()["reply"].isNull());

  ASSERT_TRUE(startsWithOk(car.sim("peer platform normal")));
  EXPECT_EQ(ask(car, "platform", "get_variantinfo", "")["VARIANT_ECELL"].asString(), "YES");
}

TEST(VehicleSim, ReadoutsReportTheirEndOrTheirAbort) {
  E2eHarness car(simOnly());
  SignalTap playState(car.busAddress(), "TextToSpeechService", "ttsPlayState");
  auto readout = [&](const std::string& text) {
    return ask(car, "TextToSpeechService", "ttsReadout",
               "{\"data\":\"" + text + "\",\"dataIsFile\":false,\"readoutType\":\"PMSG\",\"respondWithHandle\":true}");
  };

  Json::Value first = readout("Incoming call.");
  EXPECT_TRUE(first.isMember("handle"));
  ASSERT_EQ(playState.waitFor(1).size(), 1u);

  Json::Value second = readout("Calling 9-1-1");
  EXPECT_NE(second["handle"], first["handle"]);
  EXPECT_EQ(ask(car, "TextToSpeechService", "ttsAbort", "{\"readoutType\":\"PMSG\"}")["result"].asString(), "OK");
  readout("9-1-1 call ended. To reconnect, press the 9-1-1 button on the mirror.");
  // The aborted readout never reports its end: the third report is the
  // third readout's.
  std::vector<std::string> states;
  for (const auto& s : playState.waitFor(3)) states.push_back(s["state"].asString());
  EXPECT_EQ(states, (std::vector<std::string>{"notPlaying", "aborted", "notPlaying"}));
  EXPECT_NE(car.sim("status").find("spoken=3"), std::string::npos);
}

TEST(VehicleSim, SidePeersFollowTheirOwnState) {
  E2eHarness car(simOnly());
  SignalTap btCalls(car.busAddress(), "BluetoothService", "callState");
  SignalTap operStatus(car.busAddress(), "AppManager", "operStatus");
  SignalTap dtmf(car.busAddress(), "AudioCtrlSvc", "DTMF");

  // A hands-free call brings its scenario; switching Bluetooth off drops both.
  EXPECT_FALSE(ask(car, "psseControlService", "getSHF_Scenario", "{\"source\":\"ecall\"}").isMember("scenario"));
  ASSERT_TRUE(startsWithOk(car.sim("bt callstate active")));
  EXPECT_EQ(ask(car, "psseControlService", "getSHF_Scenario", "{\"source\":\"ecall\"}")["scenario"].asString(),
            "BT_HFP");
  ask(car, "BluetoothService", "switchBluetoothOff", "");
  auto bt = btCalls.waitFor(2);
  ASSERT_EQ(bt.size(), 2u);
  EXPECT_EQ(bt[0]["callStateInfo"][0]["callState"].asString(), "active");
  EXPECT_EQ(bt[1]["callStateInfo"][0]["callState"].asString(), "idle");
  EXPECT_FALSE(ask(car, "psseControlService", "getSHF_Scenario", "{\"source\":\"ecall\"}").isMember("scenario"));
  EXPECT_FALSE(startsWithOk(car.sim("bt callstate active"))) << "no Bluetooth call while Bluetooth is off";
  ask(car, "psseControlService", "setSHF_Scenario", "{\"mode\":\"START\",\"scenario\":\"Embedded_255_1\"}");
  EXPECT_EQ(ask(car, "psseControlService", "getSHF_Scenario", "{}")["scenario"].asString(), "Embedded_255_1");

  // The Assist application starts, then the service stops it.
  ASSERT_TRUE(startsWithOk(car.sim("appmgr start")));
  ASSERT_EQ(operStatus.waitFor(2).size(), 2u);
  ask(car, "AppManager", "stopApp", "{\"appId\":\"3305261F-B524-4E27-8048-C5778A672389\"}");
  std::vector<std::string> states;
  for (const auto& s : operStatus.waitFor(4)) {
    EXPECT_EQ(s["appId"].asString(), "3305261F-B524-4E27-8048-C5778A672389");
    states.push_back(s["state"].asString());
  }
  EXPECT_EQ(states, (std::vector<std::string>{"initializing", "running", "stopping", "stopped"}));

  ASSERT_TRUE(startsWithOk(car.sim("dtmf 1")));
  auto keys = dtmf.waitFor(1);
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(keys[0]["KeyPressed"].asInt(), 1);
}

TEST(VehicleSim, RecordsTheServiceSignalsAndItsEmergencyLog) {
  E2eHarness car(simOnly());
  // Stand in for the service on the bus.
  SVCIPC_tConnection connection = nullptr;
  ASSERT_FALSE(SVCIPC_IS_ERROR(SVCIPC_getConnectionByAddress(car.busAddress().c_str(), &connection)));
  SVCIPC_tSvcRegHnd registration = nullptr;
  ASSERT_FALSE(SVCIPC_IS_ERROR(SVCIPC_registerService(
      connection, "com.nordak.service.ecallService", "/com/nordak/service/ecallService", 0,
      [](SVCIPC_tReqContext c, const char*, const char*, int, SVCIPC_tUserToken) { SVCIPC_freeReqContext(c); },
      nullptr, &registration)));
  ASSERT_FALSE(car.waitForRecord("peer", [](const Json::Value& r) {
                    return r["service"] == "ecallService" && r["state"] == "up";
                  }).isNull());
  const char* ecall =
      "{\"BTCallActive\":false,\"ecall\":true,\"ecallModeActive\":true,\"event\":\"E_CALL_BtnStat\","
      "\"eventdetail\":\"ECall button was pressed by the user\",\"phoneNumber\":\"911\",\"type\":\"ecallDelay\"}\n";
  SVCIPC_asyncEmit(registration, "ecall", ecall, nullptr, nullptr);
  SVCIPC_asyncEmit(registration, "ecallProgress", "{\"progress\":55936}\n", nullptr, nullptr);
  ASSERT_FALSE(car.waitForRecord("ecallProgress", [](const Json::Value&) { return true; }).isNull());
  auto signals = car.ecallSignals();
  ASSERT_EQ(signals.size(), 1u);
  EXPECT_EQ(signals[0]["type"].asString(), "ecallDelay");
  EXPECT_EQ(car.records("ecall")[0]["data"].asString(), ecall) << "recorded as received";

  // Entries of the emergency log are followed as they are appended; the
  // header is not an entry.
  testSupport::writeFile(car.path("/fs/etfs/usr/var/ecall/ecall_log.txt"),
                         "Ecall Log File\n12:00:01 March 05, 2014 GMT:0123456:Calling 911\n");
  Json::Value line = car.waitForRecord("log", [](const Json::Value&) { return true; });
  EXPECT_EQ(line["line"].asString(), "12:00:01 March 05, 2014 GMT:0123456:Calling 911");
  EXPECT_EQ(car.records("log").size(), 1u);
  SVCIPC_closeConnection(connection);
}

TEST(VehicleSim, ConsoleRefusesWhatItDoesNotKnow) {
  E2eHarness car(simOnly());
  for (const char* command : {"fly away", "crash", "set pace soon", "peer Nobody gone", "button horn press",
                              "impact zz", "loc 1 2", "set dial maybe", "psap dance"})
    EXPECT_EQ(car.sim(command).rfind("error", 0), 0u) << command;
  EXPECT_TRUE(startsWithOk(car.sim("help")));
  EXPECT_TRUE(startsWithOk(car.sim("set pace 250")));
}

TEST(VehicleSim, ScriptRunsBeforeTheConsole) {
  char path[] = "/tmp/ecall-sim-script-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  testSupport::writeFile(path, "# a car with a tired phone\nset brand 9\n\nphone off\n");
  E2eOptions options = simOnly();
  options.simArgs = {"--script", path};
  E2eHarness car(options);
  std::string status = car.sim("status");
  unlink(path);
  EXPECT_NE(status.find("brand=9"), std::string::npos) << status;
  EXPECT_NE(status.find("phone=off"), std::string::npos) << status;
}
