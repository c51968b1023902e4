// An application on the simulated board's serial port 2, with a person's terminal at its far end.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <regex>
#include <string>
#include <termios.h>
#include <unistd.h>

#include "platform/clock.h"
#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"

namespace fsu::test {
namespace {

TEST(SerialOnSimulator, APersonAtPortTwoSeesTheWritesAndAnswers) {
  TestSandbox box;
  ConsoleDriver app({fsusim_path(), "run", "--root", box.root(), "--terminal", "2", "--", FSU_TEST_UART_TALK,
                     "Local/Uart/2"},
                    ConsoleDriver::Mode::kTerminal);
  ASSERT_TRUE(app.wait_for("uart_talk: ready", 60)) << app.output();
  std::smatch m;
  const std::string out = app.output();
  ASSERT_TRUE(std::regex_search(out, m, std::regex("Local/Uart/2 terminal: (/dev/pts/[0-9]+)"))) << out;

  const int person = open(m[1].str().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(person, 0);
  termios raw{};
  tcgetattr(person, &raw);
  cfmakeraw(&raw);
  tcsetattr(person, TCSANOW, &raw);
  std::string seen;
  const double deadline = platform::monotonic_seconds() + 10;
  while (seen.find("from sdk\n") == std::string::npos && platform::monotonic_seconds() < deadline) {
    char buf[256];
    const ssize_t n = read(person, buf, sizeof buf);  // raw, VMIN 1: waits for bytes
    if (n > 0) seen.append(buf, static_cast<std::size_t>(n));
  }
  EXPECT_EQ(seen, "from sdk\n");
  const std::string typed = "from person, bye\n";
  ASSERT_EQ(write(person, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
  EXPECT_TRUE(app.wait_for("uart_talk: got [from person, bye", 20)) << app.output();
  EXPECT_EQ(app.wait_exit(20), 0);
  close(person);
}

}  // namespace
}  // namespace fsu::test
