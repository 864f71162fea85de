// The Assist application: its identifier, its reported life, and what the
// mirror LED, the marker file and the restraint controller see of it.
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
  assistSignal("operStatus", "");
  EXPECT_FALSE(ecallHandler.bAssistAppActive.load());
  EXPECT_TRUE(micro.drain().empty());

  // Nor does an error report of Assist itself.
  operStatus("initializing");
  micro.drain();
  assistSignal("appStopped", ",\"errorCode\":3");
  EXPECT_TRUE(ecallHandler.bAssistAppActive && markerExists());
  EXPECT_TRUE(micro.drain().empty());
}

// A paused Assist counts as running; its end hangs up a call still up.
TEST_F(AssistAppTest, PausedCountsAsRunningAndTheEndHangsUpACallStillUp) {
  platform::setTimeScale(1.0);  // the never-active timer still runs when looked at
  createProcessorTimers(qnx::ChannelCreate(0));
  operStatus("initializing");
  EXPECT_TRUE(ecallHandler.bAssistAppActive && markerExists() && isRunningAssistTimeoutTimer());
  assistSignal("appPaused", "");
  EXPECT_FALSE(isRunningAssistTimeoutTimer());

  ecallHandler.curCallState.set("CALL_STATE_ACTIVE");
  operStatus("stopped");
  EXPECT_FALSE(ecallHandler.bAssistAppActive || markerExists());
  ecallHandler.curCallState.set("CALL_STATE_IDLE");
  assistSignal("appStopped", ",\"errorCode\":0");
  EXPECT_EQ(1u, fakeBus::requests(EMBEDDED_PHONE_SERVICE, "endActiveCall").size());
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
