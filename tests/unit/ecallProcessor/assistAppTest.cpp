// The Assist application: its identifier, its reported life, and what the
// mirror LED, the marker file and the restraint controller see of it.
#include "ecallMain/jsonText.h"
#include "ecallProcessor/processorTimers.h"
#include "platform/pulses.h"
#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;

class AssistAppTest : public OrcFixture {
 protected:
  void SetUp() override {
    OrcFixture::SetUp();
    connectChannel();
    ecallHandler.orcMonitoringStarted = true;
  }
  // An application manager signal about Assist, its identifier inside appId.
  static void assistSignal(const char* name, const std::string& members) {
    const std::string data = "{\"appId\":\"xlet:" + assistAppUUID.get() + ":1\"" + members + "}";
    ecallProcessor::onSubcribedAppMngrSignal(name, data.c_str(), nullptr);
  }
  static void operStatus(const char* state) { assistSignal("operStatus", std::string(",\"state\":\"") + state + "\""); }
  bool markerExists() const { return testSupport::fileExists(root.path(embeddedCallActiveFlag)); }
};

TEST_F(AssistAppTest, IdentifierIsTakenFromTheFirstConfigurationLineHoldingTheKey) {
  const std::string defaultId = ecallMain::defaultAssistAppUUID;
  const std::pair<const char*, std::string> cases[] = {
      {"{\n\"name\":\"x\",\n\"uuidAssistApp\":\"ABC\",\"other\":\"y\"\n}\n", "ABC"},
      {"\"uuidAssistApp\":\"\",\n", ""},  // the quote and comma pass the length test
      {"\"uuidAssistApp\":\"A\n", defaultId},
      {"\"uuidAssistApp\" : \"XYZ\",\n\"uuidAssistApp\":\"LATER\",\n", defaultId},
      {"\"uuidAssistApp\":\"FIRST\",\n\"uuidAssistApp\":\"SECOND\",\n", "FIRST"},
      {nullptr, defaultId},  // no file
  };
  for (const auto& [content, expected] : cases) {
    if (content) testSupport::writeFile(root.path(appMngrConfigPath), content);
    else unlink(root.path(appMngrConfigPath).c_str());
    assistAppUUID.set("stale");
    ecallHandler.getAssistAppUUID();
    EXPECT_EQ(expected, assistAppUUID.get()) << (content ? content : "no file");
  }
}

TEST_F(AssistAppTest, ReportsThatDoNotConcernAssistChangeNothing) {
  ecallProcessor::onSubcribedAppMngrSignal("operStatus", "{\"appId\":\"other\",\"state\":\"initializing\"}", nullptr);
  ecallProcessor::onSubcribedAppMngrSignal("appStarted", "{\"errorCode\":0}", nullptr);
  ecallProcessor::onSubcribedAppMngrSignal("operStatus", "{", nullptr);
  ecallProcessor::onSubcribedAppMngrSignal("operStatus", nullptr, nullptr);  // read as "{}"
  assistSignal("operStatus", "");
  EXPECT_FALSE(ecallHandler.bAssistAppActive.load());
  EXPECT_TRUE(micro.drain().empty());
  EXPECT_TRUE(log.hasSlog("failed to parse App Manager signal operStatus data {"));
  EXPECT_EQ(1u, log.countTrace("failed to parse"));

  // Nor does an error report of Assist itself.
  operStatus("initializing");
  micro.drain();
  assistSignal("appStopped", ",\"errorCode\":3");
  EXPECT_TRUE(ecallHandler.bAssistAppActive && markerExists());
  EXPECT_TRUE(micro.drain().empty());
}

TEST_F(AssistAppTest, OutsideAnEmergencyAssistLightsGreenAndItsEndTurnsEverythingBack) {
  platform::setTimeScale(1.0);  // the never-active timer still runs when looked at
  createProcessorTimers(qnx::ChannelCreate(0));
  operStatus("initializing");
  EXPECT_TRUE(ecallHandler.bAssistAppActive && markerExists() && isRunningAssistTimeoutTimer());
  EXPECT_EQ(std::vector<Bytes>({{2, 1}, {1, 1}}), micro.drain());

  assistSignal("appPaused", "");  // handled as running
  EXPECT_FALSE(isRunningAssistTimeoutTimer());
  EXPECT_EQ(std::vector<Bytes>({{2, 1}, {1, 1}}), micro.drain());

  // The end: LED off, Bluetooth back, and a call still up is hung up.
  ecallHandler.curCallState.set("CALL_STATE_ACTIVE");
  operStatus("stopped");
  EXPECT_FALSE(ecallHandler.bAssistAppActive || markerExists());
  EXPECT_EQ(std::vector<Bytes>({{2, 0}, {1, 0}}), micro.drain());
  EXPECT_EQ(1u, fakeBus::requests(BLUETOOTH_SERVICE, "setBluetoothStatus").size());
  ecallHandler.curCallState.set("CALL_STATE_IDLE");
  assistSignal("appStopped", ",\"errorCode\":0");
  EXPECT_EQ(1u, fakeBus::requests(EMBEDDED_PHONE_SERVICE, "endActiveCall").size());
  EXPECT_TRUE(fakeBus::requests(APP_MANAGER_SERVICE, "stopApp").empty());
}

TEST_F(AssistAppTest, DuringAnEmergencyAssistIsClosedAndTheLedBlinksOnce) {
  ecallHandler.ecallModeActive = true;
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  micro.drain();
  operStatus("initializing");  // counts as active although the LED blinks
  EXPECT_EQ(std::vector<Bytes>({{1, 2}, {2, 1}}), micro.drain());
  EXPECT_TRUE(ecallHandler.bAssistAppActive && markerExists());
  EXPECT_EQ(Bytes({1, 1}), micro.next(seconds(5)));  // the blink ends in the emergency's green

  assistSignal("appStarted", "");
  EXPECT_EQ(std::vector<Bytes>({{2, 1}}), micro.drain());  // no second blink
  std::vector<fakeBus::Call> stops = fakeBus::requests(APP_MANAGER_SERVICE, "stopApp");
  ASSERT_EQ(1u, stops.size());
  EXPECT_EQ("stopApp", stops[0].context);
  Json::Value body;
  ASSERT_TRUE(jsonParse(stops[0].params.c_str(), body));
  EXPECT_EQ("{\"appId\":\"" + assistAppUUID.get() + "\"}\n", jsonWrite(body));

  operStatus("stopped");  // the LED is left to the emergency
  EXPECT_EQ(std::vector<Bytes>({{2, 0}}), micro.drain());
  EXPECT_FALSE(ecallHandler.bAssistAppActive || markerExists());
}

TEST_F(AssistAppTest, AssistStatusNeedsMonitoringAndTheNeverActiveTimeoutOnlyEndsAnIdleLed) {
  ecallHandler.orcMonitoringStarted = false;
  ecallHandler.sendAssistStatus();
  EXPECT_TRUE(micro.drain().empty());

  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  micro.drain();
  ecallHandler.bAssistAppActive = true;
  ecallHandler.onAssistNeverActiveTimeout();
  ecallHandler.bAssistAppActive = false;
  ecallHandler.ecallModeActive = true;
  ecallHandler.onAssistNeverActiveTimeout();
  EXPECT_TRUE(micro.drain().empty());
  ecallHandler.ecallModeActive = false;
  ecallHandler.onAssistNeverActiveTimeout();
  EXPECT_EQ(std::vector<Bytes>({{1, 0}}), micro.drain());
}

}  // namespace
