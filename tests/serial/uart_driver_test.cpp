// The UART driver against a pseudo-terminal: settings as the other side sees them, refusals
// with their printed lines, reads that never block. Data bits and parity enable are checked on
// the termios record the driver builds, since a pseudo-terminal always reports CS8 and no PARENB.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/clock.h"
#include "serial/uart_driver.h"
#include "tests/common/pty_pair.h"
#include "tests/common/test_sandbox.h"

namespace fsu::serial {
namespace {

BSP_COM_PARAMS params(std::uint32_t baud, std::uint32_t data, std::uint32_t stop, std::uint32_t parity) {
  return BSP_COM_PARAMS{24, 0, baud, data, stop, parity};
}

// Runs `call` and returns what it printed.
template <typename Call>
std::string printed_by(Call call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

class UartDriverTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(BSP_ComCreate(0), 0u); }
  void TearDown() override { BSP_ComDestroy(0); }
  test::TestSandbox box_;
  test::PtyPair port_{box_.path("/dev/ttymxc1")};
};

TEST_F(UartDriverTest, AppliesTheLineSettingsAndMovesBytesWithoutWaiting) {
  const tcflag_t kShown = CSTOPB | PARODD;  // what a pseudo-terminal reports of the control flags
  const struct {
    BSP_COM_PARAMS p;
    speed_t speed;
    tcflag_t cflag;  // size, parity and stop bits of the record the driver builds
  } settings[] = {{params(9600, 5, 2, 1), B9600, CS5 | PARENB | PARODD | CSTOPB},
                  {params(300, 6, 1, 2), B300, CS6 | PARENB},
                  {params(115200, 7, 0, 0), B115200, CS7},
                  {params(19200, 8, 2, 0), B19200, CS8 | CSTOPB}};
  for (const auto& s : settings) {
    termios built{};
    ASSERT_EQ(build_termios(s.p, &built), 0u);
    EXPECT_EQ(built.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB), s.cflag);
    ASSERT_EQ(BSP_ComSetParams(0, &s.p), 0u);
    termios t = port_.settings();
    EXPECT_EQ(cfgetospeed(&t), s.speed);
    EXPECT_EQ(cfgetispeed(&t), s.speed);
    EXPECT_EQ(t.c_cflag & kShown, s.cflag & kShown);
    EXPECT_EQ(bool(t.c_iflag & INPCK), bool(s.cflag & PARENB));
  }
  std::uint8_t buf[64];
  std::uint32_t n = 99;
  EXPECT_EQ(BSP_ComRead(0, buf, sizeof buf, &n), 0u);  // nothing pending: at once, 0 bytes
  EXPECT_EQ(n, 0u);
  port_.send("hello");
  for (const double deadline = platform::monotonic_seconds() + 1; n == 0 && platform::monotonic_seconds() < deadline;) {
    platform::sleep_ms(5);
    BSP_ComRead(0, buf, sizeof buf, &n);
  }
  EXPECT_EQ(std::string(buf, buf + n), "hello");
  EXPECT_EQ(BSP_ComWrite(0, "abc", 3, &n), 0u);
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(port_.receive(3, 2.0), (std::vector<std::uint8_t>{'a', 'b', 'c'}));
  EXPECT_EQ(BSP_ComWrite(0, buf, 0, &n) + n, 0u);
  EXPECT_EQ(BSP_ComFlush(0), 0u);
}

TEST_F(UartDriverTest, RefusesUnsupportedParametersAndKeepsTheSettings) {
  const BSP_COM_PARAMS kept = params(19200, 8, 1, 0);
  ASSERT_EQ(BSP_ComSetParams(0, &kept), 0u);
  const struct {
    BSP_COM_PARAMS p;
    const char* message;
  } refused[] = {{params(14400, 8, 1, 0), "Unsupported nBaudrate 14400\n"},
                 {params(0, 8, 1, 0), "Unsupported nBaudrate 0\n"},
                 {params(9600, 8, 1, 3), "Unsupported parity 3\n"},
                 {params(9600, 9, 1, 0), "Unsupported data bits 9\n"},
                 {params(9600, 8, 3, 0), "Unsupported stop bits 3\n"},
                 {BSP_COM_PARAMS{20, 0, 9600, 8, 1, 0}, ""},
                 {BSP_COM_PARAMS{28, 0, 9600, 8, 1, 0}, ""}};
  for (const auto& r : refused) {
    const std::string out = printed_by([&] { EXPECT_EQ(BSP_ComSetParams(0, &r.p), BSP_COM_ERR_PARAM); });
    EXPECT_TRUE(out.starts_with(r.message) && (!*r.message || out.find("ErrNo:0x01020001.\n") != std::string::npos))
        << out;
  }
  EXPECT_NE(printed_by([] { EXPECT_EQ(BSP_ComSetParams(0, nullptr), BSP_COM_ERR_PARAM); }).find("x=NULL!\n"),
            std::string::npos);
  termios t = port_.settings();
  EXPECT_EQ(cfgetospeed(&t), B19200);
}

TEST_F(UartDriverTest, RefusesMissingSlotsAndDevicesAndReportsCapabilities) {
  std::uint8_t buf[8];
  std::uint32_t n = 0;
  const BSP_COM_PARAMS p = params(9600, 8, 1, 0);
  const std::string printed = printed_by([&] {
    for (std::uint32_t slot : {7u, 2u}) {  // slot 7 does not exist; no /dev/ttymxc3 in this sandbox
      const std::uint32_t err = slot == 7 ? BSP_COM_ERR_PARAM : BSP_COM_ERR_DEVICE;
      EXPECT_EQ(BSP_ComCreate(slot), err);
      EXPECT_EQ(BSP_ComSetParams(slot, &p), err);
      EXPECT_EQ(BSP_ComWrite(slot, buf, 1, &n), err);
      EXPECT_EQ(BSP_ComRead(slot, buf, 1, &n), err);
    }
    EXPECT_EQ(BSP_ComFlush(7), BSP_COM_ERR_PARAM);
  });
  EXPECT_NE(printed.find("BSP_ComCreate(2, /dev/ttymxc3) Failed !\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("ErrNo:0x01020004.\n"), std::string::npos);

  BSP_COM_CAPS caps{};
  caps.nSize = 28;
  EXPECT_EQ(BSP_ComGetCapbility(5, &caps), 0u);
  EXPECT_EQ(std::pair(caps.nMinBaudrate, caps.nMaxBaudrate), std::pair(600u, 115200u));
  caps.nSize = 24;
  EXPECT_EQ(BSP_ComGetCapbility(5, &caps), BSP_COM_ERR_PARAM);
}

}  // namespace
}  // namespace fsu::serial
