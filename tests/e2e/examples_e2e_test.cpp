// The examples of examples/ on the simulated board, run as their users run them.
#include <gtest/gtest.h>

#include <string>

#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

TEST(Examples, UartEchoGetsItsLineBackThroughTheLoopbackPlug) {
  TestSandbox box;
  ConsoleDriver app({fsusim_path(), "run", "--root", box.root(), "--", FSU_TEST_UART_ECHO}, ConsoleDriver::Mode::kPipes);
  EXPECT_EQ(app.wait_exit(60), 0) << app.output();
  EXPECT_NE(app.output().find("uart_echo: sent 25 bytes, received 25 bytes: hello from Local/Uart/1\r\n"),
            std::string::npos)
      << app.output();
}

TEST(Examples, InputsRelaysSwitchesRelaysOfBothBoardsAndASecondProcessIsToldThePortsAreTaken) {
  TestSandbox box;
  ConsoleDriver app({fsusim_path(), "run", "--root", box.root(), "--", FSU_TEST_INPUTS_RELAYS},
                    ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(app.wait_for("inputs_relays: ready\n", 60)) << app.output();
  EXPECT_NE(app.output().find("\"Local/Uart/12\",\"Local/AI/1\""), std::string::npos) << app.output();
  {
    ConsoleDriver second({FSU_TEST_INPUTS_RELAYS}, ConsoleDriver::Mode::kPipes,
                         {"FSU_ROOT=" + box.root(), "PATH=" + box.root() + "/bin:/usr/bin:/bin"});
    EXPECT_TRUE(second.wait_for("SDK: /dev/ttymxc1 is taken by another SDK process;", 30)) << second.output();
    second.end_input();
    EXPECT_EQ(second.wait_exit(30), 0);
    EXPECT_EQ(second.output().find("is taken", second.output().find("is taken") + 1), std::string::npos);
  }
  app.send("do 1 1\ndo 5 1\nai 17\ndo 9 1\n");
  for (const char* relay : {"relay 1 ", "relay 5 "}) {
    EXPECT_TRUE(sim::poll_until(5, [&] { return sim::state_line(box, relay).find("state=on") != std::string::npos; }))
        << relay;
  }
  app.end_input();
  EXPECT_EQ(app.wait_exit(20), 0);
  EXPECT_NE(app.output().find("ai 17: no such input on this unit\ndo 9: no such output\n"), std::string::npos)
      << app.output();
}

TEST(Examples, WatchdogLeftUnfedRebootsTheUnit) {
  TestSandbox box;
  ConsoleDriver app({fsusim_path(), "run", "--root", box.root(), "--", FSU_TEST_WATCHDOG, "1000", "1"},
                    ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(app.wait_for("watchdog: no more feeding", 60)) << app.output();
  EXPECT_EQ(box.calls().find("reboot"), std::string::npos);  // not before it is due
  EXPECT_EQ(app.wait_exit(150), 0) << app.output();
  EXPECT_NE(box.calls().find("\nreboot\n"), std::string::npos) << box.calls();
  EXPECT_NE(box.read("/tmp/sdklog.log").find("soft dog start,ready reboot=1"), std::string::npos);
}

}  // namespace
}  // namespace fsu::test
