// The AT channel against a pseudo-terminal standing in for the modem's AT port.
#include <gtest/gtest.h>

#include <string>
#include <sys/ioctl.h>
#include <termios.h>

#include "lte/at_channel.h"
#include "lte/ntu.h"
#include "platform/clock.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::lte {
namespace {

struct AtPort : ::testing::Test {
  AtPort() : modem(box.path("/dev/ttyUSB3")) {
    support::SDK_LOG_PAR_INIT();
    ntu_clear();
    EXPECT_EQ(at_port_open("/dev/ttyUSB3"), 0);
  }
  ~AtPort() override { at_port_close(); }
  // An exchange's result; `took` keeps the seconds it took.
  int exchange(const char* command, const char* prefix, int lines = 2) {
    const double start = platform::monotonic_seconds();
    const int result = write_wait_read(command, prefix, out_put, sizeof out_put, lines, 1);
    took = platform::monotonic_seconds() - start;
    return result;
  }
  double took = 0;
  test::TestSandbox box;
  sim::FakeUart modem;
};

TEST_F(AtPort, LinesErrorsTimeOutsOverlongLinesAndAClosedPort) {
  modem.send("\r\n+csq: 24,99\r\n\r\nok\r\n> ");
  EXPECT_EQ(write_wait_read("AT+CSQ", "+CSQ", out_put, sizeof out_put, 2, 1), kAtOk);
  EXPECT_STREQ(out_put, "+CSQ: 24,99");  // in capitals
  EXPECT_EQ(modem.receive(7, 1), "AT+CSQ\r");
  const double start = platform::monotonic_seconds();
  EXPECT_STREQ(readline(0), "ok");  // already buffered: no read, no wait
  EXPECT_LT(platform::monotonic_seconds() - start, 0.05);
  EXPECT_STREQ(readline(5), "> ");  // the input prompt has no line end
  modem.send(std::string("\r\nO\0K\r\n", 7));  // a NUL byte does not hide the line end behind it
  EXPECT_EQ(exchange("", "OK"), kAtOk);
  EXPECT_LT(took, 0.5);
  // An overlong line is dropped, and appends stop at the destination.
  modem.send(std::string(8192, 'x') + "\r\nOK\r\n");
  EXPECT_EQ(exchange("", "OK", 8), kAtOk);
  EXPECT_NE(box.read("/tmp/sdklog.log").find("tERROR: Input line exceeded buffer"), std::string::npos);
  char out[24] = {};
  out[23] = '#';
  modem.send("\r\n" + std::string(100, 'a') + "\r\nOK\r\n");
  EXPECT_EQ(write_wait_readcimi("AT+CGSN", "OK", out, 16, 4, 1), kAtOk);
  EXPECT_EQ(std::string(out), std::string(15, 'A'));
  EXPECT_EQ(out[23], '#');
  modem.send("\r\n+CSQ: ERROR\r\n");
  EXPECT_EQ(exchange("AT+CSQ", "+CSQ"), kAtOk);  // the prefix is tested first
  modem.send("\r\n+CME ERROR: 10\r\n");
  EXPECT_EQ(exchange("AT+CIMI", "+CIMI"), kAtError);
  EXPECT_EQ(exchange("AT", "OK"), kAtTimeout);  // silent: three waits of 11 ticks
  EXPECT_TRUE(took > 3.2 && took < 6) << took;
  EXPECT_EQ(NTU.attimeout.load(), 1);
  EXPECT_NE(box.read("/tmp/sdklog.log").find("no data At time out"), std::string::npos);
  at_port_close();
  EXPECT_EQ(writeline("AT"), -1);
  EXPECT_EQ(write_wait_read1("AT", "OK", out_put, sizeof out_put, 2, 1), kAtWriteFailed);
}

TEST_F(AtPort, NoiseWithXoffAndALateReplyQueuedWhileClosedReachNoLaterExchange) {
  at_port_close();
  // The port as the USB serial driver leaves it: XON/XOFF and CR translation on. The modem's
  // bytes (hostile as any device's) stop the port's output with one 0x13 unless it is opened
  // without them; the late reply must not become the answer to the next command.
  termios tio = modem.settings();
  tio.c_iflag |= IXON | ICRNL;
  tcsetattr(modem.pty.master(), TCSANOW, &tio);
  const std::string queued = std::string("\x13\xff\x00\x13noise", 10) + "\r\n866123456789012\r\n\r\nOK\r\n";
  modem.send(queued);
  ASSERT_TRUE(sim::poll_until(2, [&] {
    int waiting = 0;
    return ioctl(modem.pty.slave(), FIONREAD, &waiting) == 0 && waiting == static_cast<int>(queued.size()) - 2;
  }));
  ASSERT_EQ(at_port_open("/dev/ttyUSB3"), 0);
  modem.send("\r\n460001234567890\r\nOK\r\n");
  out_put[0] = '\0';
  EXPECT_EQ(write_wait_read1("AT+CIMI", "OK", out_put, sizeof out_put, 2, 1), kAtOk);
  EXPECT_EQ(modem.receive(8, 1), "AT+CIMI\r");
  EXPECT_STREQ(out_put, "460001234567890OK");
  modem.send(std::string("\x13", 1));  // while the port is open, too
  EXPECT_EQ(writeline("AT"), 0);
  EXPECT_EQ(modem.receive(3, 1), "AT\r");
}

}  // namespace
}  // namespace fsu::lte
