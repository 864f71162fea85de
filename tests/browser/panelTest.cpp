// The car's panel in a real browser (panel.cjs) beside the service: what the
// browser did reached the car as the console's commands.
#include <gtest/gtest.h>

#include "support/e2eHarness.h"
#include "support/testSupport.h"

TEST(Panel, CallMadeHeldAnsweredAndHungUpInChromium) {
  testSupport::E2eOptions options;
  options.timeScale = 0.05;
  options.simArgs = {"--panel", "0"};
  options.simCommands = {"set answer manual"};
  testSupport::E2eHarness car(options);
  const Json::Value panel = car.waitForRecord([](const Json::Value& r) { return r["kind"] == "panel"; });
  ASSERT_TRUE(panel.isObject()) << "the car did not say where its panel is";

  const testSupport::Outcome browser =
      testSupport::run({"/usr/bin/node", PANEL_SCRIPT, panel["url"].asString(), ECALL_BUILD_DIR "/browser"},
                       {"NODE_PATH=" ECALL_BUILD_DIR "/browser/node_modules"}, std::chrono::seconds(240));
  ASSERT_EQ(browser.exitCode, 0) << browser.out << browser.err << "\n(scripts/setup installs chromium and playwright-core)";

  std::vector<std::string> fromPanel;
  for (const Json::Value& r : car.records("command"))
    if (r["from"] == "panel") fromPanel.push_back(r["line"].asString() + " => " + r["reply"].asString());
  EXPECT_TRUE(testSupport::containsInOrder(
      fromPanel, {"button ecall press => ok E_CALL_BtnStat::1", "button ecall release => ok E_CALL_BtnStat::0",
                  "psap answer => ok operator answered", "button assist press => ok U_CALL_BtnStat::1",
                  "psap hangup => ok operator hung up"}))
      << testing::PrintToString(fromPanel);
  EXPECT_TRUE(testSupport::containsInOrder(car.emergencyLogMessages(), {"ecallBtn = 1", "Calling 911", "End emergency mode"}))
      << testing::PrintToString(car.emergencyLogMessages());
}
