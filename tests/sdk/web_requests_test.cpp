#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fsusdk.h"
#include "lte/ntu.h"
#include "sdk/resource_catalogue.h"
#include "sdk/web_requests.h"
#include "serial/serial_ports.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sdk {
namespace {

sim::FakeUart* g_port = nullptr;
long g_slept = -1;

// The port command's wait: the device on UART 1 answers "AB" meanwhile and the reader takes it.
void answer_meanwhile(long seconds) {
  g_slept = seconds;
  g_port->send("AB");
  for (int i = 0; i < 5; ++i, platform::sleep_ms(10)) serial::m_com_read_pass(0);
}

TEST(WebRequests, APassAnswersEveryRequestKeepsTheValuesOfMissingKeysAndTheSimReportsInOrder) {
  test::TestSandbox box;
  sim::FakeUart port(box.path("/dev/ttymxc1"));
  g_port = &port;
  support::SDK_LOG_PAR_INIT(), serial::M_COM_INIT(), web_request_setup();  // no boards: 4 ports, no inputs
  WebRequestState state{.sleep = answer_meanwhile};
  const std::vector<std::string> requests = {kSetComAttrRequest, kReadAidiRequest, kReadGpsInfoRequest,
                                             kReadGpsDbRequest,  kLogSaveRequest,  kDtuComRequest};
  for (const std::string& r : requests) box.write(r, "");
  box.write(kSetComAttrRequest, "set_com=2;set_value=1");
  box.write(kLogSaveRequest, "com=1\r\nLineMAX=500000\r\n");
  box.write(kDtuComRequest, "com=1\r\nWaitSec=30\r\niBaudRate=19200\r\niDataSize=8\r\niStopBit=1\r\niParity=0\r\ninfo=7E3130");
  box.write(kAidiAnswer, "an answer of an earlier request");
  web_request_pass(state);
  for (const std::string& r : requests) EXPECT_FALSE(box.exists(r)) << r;
  EXPECT_TRUE(port.receive(3, 1) == "\x7E\x31\x30" && g_slept == 10);
  EXPECT_TRUE(box.read(kAidiAnswer).starts_with("环境板通信异常") && box.read(kGpsDbAnswer) == ";;SIM网络检测中...");
  EXPECT_EQ(box.read(kDtuComLog), "41 42 ");
  EXPECT_TRUE(box.read(kComLog).ends_with("[Local/Uart/1][00001]\r\nTX:7E 31 30 \r\nRX:41 42 "));
  const auto logged = [&](const char* record) { return box.read("/tmp/sdklog.log").find(record) != std::string::npos; };
  EXPECT_TRUE(logged("]:监听串口1日志100000") && logged("]:串口1测试2,(30,19200,8,1,0,~10,3,AB)"));
  // Requests that leave keys out take the last values; a port beyond 16 answers nothing.
  box.write(kLogSaveRequest, "com=2"), box.write(kDtuComRequest, "info=313");
  web_request_pass(state);
  EXPECT_EQ(port.receive(2, 1), "\x31");
  box.write(kDtuComRequest, "info=");  // nothing to send: the port is only read
  web_request_pass(state);
  EXPECT_EQ(box.read(kDtuComLog), "41 42 ");
  // Numbers beyond an int hold at its ends.
  box.write(kDtuComRequest, "com=99999999999\r\ninfo=" + std::string(1 << 20, '7') + "\r\nWaitSec=-99999999999");
  web_request_pass(state);
  EXPECT_FALSE(box.exists(kDtuComRequest) || box.exists(kDtuComLog));
  EXPECT_TRUE(logged("]:监听串口2日志100000") && logged("]:串口2147483647测试-1,(-2147483648,19200,8,1,0,"));
  for (std::uint32_t slot = 0; slot < 7; ++slot) serial::BSP_ComDestroy(slot);
  // The SIM report takes the first condition that holds.
  const struct { int siminfo, simstat, srvstat, srvdomain; const char* text; } rows[] = {
      {0, 0, 101, 1, "SIM网络检测中..."}, {1, 0, 101, 1, "卡状态无效,请重新插拔SIM卡"}, {1, 255, 1, 1, "卡不存在或需要PIN码,请重新插拔SIM卡"},
      {1, 1, 1, 1, "有限制服务,卡可能停机"}, {1, 1, 101, 0, "已注册1,归属地网络,SIM卡网络正常"}, {1, 1, 106, 0, "CREG其他状态"},
      {1, 1, 104, 0, "注册被拒绝,卡可能停机,请检查SIM卡是否正常"}, {1, 1, 199, 0, "CREG其他状态"}, {1, 1, 0, 1, "SIM卡无服务"},
      {1, 1, 100, 1, "网络未注册,ME 当前未搜索要注册的运营商"}, {1, 1, 102, 1, "未注册,ME 正在搜索要注册的运营商"},
      {1, 1, 103, 1, "注册被拒绝,卡可能停机,请检查SIM卡是否正常"}, {1, 1, 105, 0, "已注册，漫游网络,SIM卡网络正常"},
      {1, 1, 200, 1, "SIM卡正常"}, {1, 1, 200, 0, "卡无服务"}};
  char buf[kSimReportSize];
  for (const auto& r : rows) {
    lte::NTU.siminfo.store(r.siminfo), lte::NTU.simstat.store(r.simstat), lte::NTU.srvstat.store(r.srvstat), lte::NTU.srvdomain.store(r.srvdomain);
    EXPECT_EQ(std::to_string(BSP_GET_SIM_INFO(buf)) + buf, std::string("0;;") + r.text) << r.srvstat;
  }
  EXPECT_EQ(std::vector({web_wait_seconds(9), web_wait_seconds(10), web_wait_seconds(30)}), std::vector({9, 10, 10}));
}

}  // namespace
}  // namespace fsu::sdk
