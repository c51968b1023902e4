// The serial example on the simulated board: its line comes back through the loopback plug of
// port 1, and a person at the terminal of port 2 sees it and answers.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/common/console_driver.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

TEST(SerialOnSimulator, UartEchoGetsItsLineBackThroughTheLoopbackPlugAndAPersonAtPortTwoSeesItAndAnswers) {
  TestSandbox box;
  ConsoleDriver app({fsusim_path(), "run", "--root", box.root(), "--", "env", "FSU_CLOCK_RATE=2", FSU_TEST_UART_ECHO},
                    ConsoleDriver::Mode::kPipes);  // the SDK's start-up waits take half the time
  EXPECT_EQ(app.wait_exit(60), 0) << app.output();
  EXPECT_NE(app.output().find("uart_echo: sent 25 bytes, received 25 bytes: hello from Local/Uart/1\r\n"), std::string::npos)
      << app.output();

  ConsoleDriver at_two({fsusim_path(), "run", "--root", box.root(), "--terminal", "2", "--", "env", "FSU_CLOCK_RATE=2", FSU_TEST_UART_ECHO,
                        "Local/Uart/2"},
                       ConsoleDriver::Mode::kTerminal);
  ASSERT_TRUE(at_two.wait_for("Local/Uart/2 terminal: /dev/pts/", 10)) << at_two.output();
  std::smatch m;
  const std::string out = at_two.output();
  ASSERT_TRUE(std::regex_search(out, m, std::regex("terminal: (/dev/pts/[0-9]+)"))) << out;
  const int person = sim::open_port(m[1].str(), B115200);
  EXPECT_EQ(sim::take(person, 25, 30), "hello from Local/Uart/2\r\n");
  sim::put(person, "HELLO FROM A PERSON, BYE\n");
  EXPECT_TRUE(at_two.wait_for("received 25 bytes: HELLO FROM A PERSON, BYE", 10)) << at_two.output();
  EXPECT_EQ(at_two.wait_exit(10), 1);  // not its own line
  close(person);
}

}  // namespace
}  // namespace fsu::test
