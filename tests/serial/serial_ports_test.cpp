// The UART driver, the sixteen serial resources and the board links against pseudo-terminals
// standing in for the seven UARTs (/dev/ttymxc5 and 6 are the links to boards 1 and 2).
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>

#include <cstdio>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "fsusdk.h"
#include "sdk/resource_catalogue.h"
#include "sdk/uart_api.h"
#include "serial/environment_link.h"
#include "serial/extension_link.h"
#include "serial/frame_codec.h"
#include "serial/receive_buffers.h"
#include "serial/serial_ports.h"
#include "serial/uart_driver.h"
#include "sim/environment_board.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::serial {
namespace {

std::string frame(std::uint8_t command, const std::string& data) {
  std::string out(data.size() + kLinkOverhead, '\0');
  build_link_frame(command, reinterpret_cast<const std::uint8_t*>(data.data()), data.size(),
                   reinterpret_cast<std::uint8_t*>(out.data()), out.size());
  return out;
}

// A whole answer of the environment board with every input closed.
std::string closed_answer() {
  sim::EnvironmentBoard board;
  for (int n = 1; n <= sim::EnvironmentBoard::kContacts; ++n) board.set_contact(n, true);
  return board.answer();
}

std::string record(int k) {
  const MCOM_RECV_INFO& r = LIST_MCOM_RECV_INFO[k];
  return std::string(r.aucData, r.aucData + r.nLen.load());
}

std::string flags() {  // the four exist flags, in order
  std::string out;
  for (auto& f : sdk::BSP_BOARD_HARDWARE_RESOURCES) out += std::to_string(f.load());
  return out;
}

std::vector<int> stored(const char* name) {
  int b = 0, d = 0, s = 0, p = 0;
  EXPECT_EQ(GetUartParam(name, &b, &d, &s, &p), 0) << name;
  return {b, d, s, p};
}

std::string printed_by(const auto& call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

// The serial start-up on seven pseudo-terminals: slots open, every resource at 9600 8N1.
class Serial : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int n = 1; n <= 7; ++n) ports_.push_back(std::make_unique<sim::FakeUart>(box_.path("/dev/ttymxc" + std::to_string(n))));
    support::SDK_LOG_PAR_INIT();
    printed_by([] { M_COM_INIT(), BSP_BAU_INIT(); });
    for (auto& p : ports_) p->drain();
    board2_.slot = 5;
  }
  void TearDown() override { for (std::uint32_t slot = 0; slot < 7; ++slot) BSP_ComDestroy(slot); }
  sim::FakeUart& uart(int n) { return *ports_[static_cast<std::size_t>(n - 1)]; }
  speed_t speed(int n) { const termios t = uart(n).settings(); return cfgetospeed(&t); }
  // Lets main-board reader k take what its UART holds, as its thread would each 100 ms.
  void reader_pass(int k) {
    for (int i = 0; i < 5; ++i, platform::sleep_ms(10)) m_com_read_pass(k);
  }
  static void feed(ExtReader& reader, const std::string& bytes) {
    ext_com_feed(reader, reinterpret_cast<const std::uint8_t*>(bytes.data()), static_cast<std::int32_t>(bytes.size()));
  }
  bool logged(const std::string& text) const { return box_.read("/tmp/sdklog.log").find(text) != std::string::npos; }

  test::TestSandbox box_;
  std::vector<std::unique_ptr<sim::FakeUart>> ports_;
  ExtReader board1_, board2_;
};

TEST_F(Serial, DriverAppliesTheLineSettingsOrRefusesThemAndMovesBytesWithoutWaiting) {
  // A pseudo-terminal always reports CS8 and no PARENB: those are checked on the driver's record.
  for (const auto& [p, speed_set, cflag] :
       {std::tuple{BSP_COM_PARAMS{24, 0, 9600, 5, 2, 1}, B9600, CS5 | PARENB | PARODD | CSTOPB},
        {BSP_COM_PARAMS{24, 0, 300, 6, 1, 2}, B300, CS6 | PARENB}, {BSP_COM_PARAMS{24, 0, 115200, 7, 0, 0}, B115200, CS7},
        {BSP_COM_PARAMS{24, 0, 19200, 8, 2, 0}, B19200, CS8 | CSTOPB}}) {
    termios built{};
    ASSERT_EQ(build_termios(p, &built), 0u);
    EXPECT_EQ(built.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB | CLOCAL), cflag | CLOCAL);
    ASSERT_EQ(BSP_ComSetParams(0, &p), 0u);
    const termios t = uart(1).settings();
    EXPECT_EQ(std::tuple(cfgetospeed(&t), cfgetispeed(&t), t.c_cflag & (CSTOPB | PARODD), bool(t.c_iflag & INPCK)),
              std::tuple(speed_set, speed_set, cflag & (CSTOPB | PARODD), bool(cflag & PARENB)));
  }
  for (const auto& [refused, message] :  // refused, and the port keeps 19200
       {std::pair{BSP_COM_PARAMS{24, 0, 14400, 8, 1, 0}, "Unsupported nBaudrate 14400\n"},
        {BSP_COM_PARAMS{24, 0, 0, 8, 1, 0}, "Unsupported nBaudrate 0\n"}, {BSP_COM_PARAMS{24, 0, 9600, 8, 1, 3}, "Unsupported parity 3\n"},
        {BSP_COM_PARAMS{24, 0, 9600, 9, 1, 0}, "Unsupported data bits 9\n"}, {BSP_COM_PARAMS{24, 0, 9600, 8, 3, 0}, "Unsupported stop bits 3\n"},
        {BSP_COM_PARAMS{20, 0, 9600, 8, 1, 0}, "ERROR: FILE:bsp_m_com, FUNCTION:BSP_ComSetParams, LINE:"},
        {BSP_COM_PARAMS{28, 0, 9600, 8, 1, 0}, ""}}) {
    const BSP_COM_PARAMS* p = &refused;
    const std::string out = printed_by([p] { EXPECT_EQ(BSP_ComSetParams(0, p), BSP_COM_ERR_PARAM); });
    EXPECT_TRUE(out.starts_with(message) && out.find("ErrNo:0x01020001.\n") != std::string::npos) << out;
  }
  EXPECT_NE(printed_by([] { EXPECT_EQ(BSP_ComSetParams(0, nullptr), BSP_COM_ERR_PARAM); })
                .find("ASSERT: FILE: bsp_m_com, FUNCTION:BSP_ComSetParams, LINE: "), std::string::npos);
  EXPECT_EQ(speed(1), B19200);

  std::uint8_t buf[64];
  std::uint32_t n = 99;
  EXPECT_TRUE(BSP_ComRead(0, buf, sizeof buf, &n) == 0 && n == 0);  // nothing pending: at once
  uart(1).send("hello");
  EXPECT_TRUE(sim::poll_until(3, [&] { return BSP_ComRead(0, buf, sizeof buf, &n) == 0 && n > 0; }));
  EXPECT_EQ(std::string(buf, buf + n), "hello");
  EXPECT_TRUE(BSP_ComWrite(0, "abc", 3, &n) == 0 && n == 3);
  EXPECT_EQ(uart(1).receive(3), "abc");
  EXPECT_TRUE(BSP_ComWrite(0, buf, 0, &n) == 0 && n == 0 && BSP_ComFlush(0) == 0);
}

TEST(UartDriver, RefusesMissingSlotsAndDevicesAndIsNeverTheControllingTerminalOfADaemon) {
  test::TestSandbox box;  // without devices
  std::uint8_t buf[8];
  std::uint32_t n = 0;
  const BSP_COM_PARAMS p = BSP_COM_PARAMS{24, 0, 9600, 8, 1, 0};
  const std::string printed = printed_by([&] {
    for (std::uint32_t slot : {7u, 2u}) {  // slot 7 does not exist, /dev/ttymxc3 is missing
      const std::uint32_t err = slot == 7 ? BSP_COM_ERR_PARAM : BSP_COM_ERR_DEVICE;
      EXPECT_EQ(std::tuple(BSP_ComCreate(slot), BSP_ComSetParams(slot, &p), BSP_ComWrite(slot, buf, 1, &n),
                           BSP_ComRead(slot, buf, 1, &n)),
                std::tuple(err, err, err, err));
    }
  });
  // A sandbox without its port devices is a simulated unit that is not running: said once, in
  // words, and the driver's errors about the missing port go to the log only.
  const std::size_t told = printed.find("SDK: the simulated unit in " + box.root() + " is not running (" + box.root() +
                                        "/dev/ttymxc3 is missing; fsusim up --root " + box.root() + " starts it)\n");
  EXPECT_TRUE(told != std::string::npos && printed.find("0x01020004", told) == std::string::npos) << printed;
  EXPECT_EQ(printed_by([&] {
    BSP_ComCreate(2);
    BSP_ComRead(2, buf, 1, &n);
  }), "");  // said once, then only logged

  auto line = std::make_unique<sim::FakeUart>(box.path("/dev/ttymxc1"));
  int opened[2], go[2];
  ASSERT_EQ(pipe(opened) + pipe(go), 0);
  const pid_t daemon = fork();
  if (daemon == 0) {  // a session of its own without a terminal, as services are started
    for (int fd = 3; fd < 1024; ++fd) if (fd != opened[1] && fd != go[0]) close(fd);
    setsid();
    char c = 0;
    _exit(BSP_ComCreate(0) == 0 && write(opened[1], "y", 1) == 1 && read(go[0], &c, 1) == 1 ? 0 : 2);
  }
  close(opened[1]);
  char c = 0;
  ASSERT_EQ(read(opened[0], &c, 1), 1);
  line.reset();  // the line hangs up
  ASSERT_EQ(write(go[1], "g", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
  EXPECT_EQ(status, 0);  // not killed by SIGHUP
}

TEST_F(Serial, LineParametersAreSetAtStartUpStoredAndAppliedWhereTheyCan) {
  for (int n = 1; n <= 16; ++n) EXPECT_EQ(stored(("Local/Uart/" + std::to_string(n)).c_str()), (std::vector<int>{9600, 8, 1, 0}));
  EXPECT_EQ(speed(5), B115200);  // the board links stay at 115200
  BSP_BAU_INIT();  // again, to watch the line-parameter frames of the boards' channels 0 to 3
  const std::string board1 = uart(5).receive(4 * 13), board2 = uart(6).receive(4 * 13);
  ASSERT_EQ(board1.size() + board2.size(), 104u);
  EXPECT_EQ(board1.substr(0, 13), frame(0x60, std::string("\x00\x00\x25\x80\x08\x01\x00", 7)));
  EXPECT_EQ(board2.substr(16, 1) + board2.substr(29, 1), "ba");  // records 9 and 10: board 2's channels 2 and 1

  EXPECT_EQ(SetUartParam("Local/Uart/2", 38400, 8, 0, 5), 0);  // parity 5 is even, stop 0 is one
  const termios t = uart(2).settings();
  EXPECT_EQ(std::tuple(speed(2), t.c_cflag & (PARODD | CSTOPB), bool(t.c_iflag & INPCK)), std::tuple(speed_t{B38400}, tcflag_t{0}, true));
  EXPECT_EQ(SetUartParam("Local/Uart/13", 1234, 5, 2, 1), 0);  // no line behind it: stored only
  EXPECT_EQ(stored("Local/Uart/13"), (std::vector<int>{1234, 5, 2, 1}));
  const std::string refused = printed_by([] { EXPECT_EQ(SetUartParam("Local/Uart/3", 14400, 8, 1, 0), 0); });
  EXPECT_NE(refused.find("Unsupported nBaudrate 14400"), std::string::npos);  // by the driver, kept stored
  EXPECT_EQ(std::pair(stored("Local/Uart/3")[0], speed(3)), std::pair(14400, speed_t{B9600}));
  EXPECT_EQ(SetUartParam("Local/Uart/10", 115200, 7, 2, 1), 0);  // board 2's channel 2
  EXPECT_EQ(uart(6).receive(13), frame(0x62, std::string("\x00\x01\xC2\x00\x07\x02\x01", 7)));

  int v = 0;
  EXPECT_EQ(SetUartParam("Local/Uart/17", 9600, 8, 1, 0) + SetUartParam(nullptr, 9600, 8, 1, 0), -2);
  EXPECT_EQ(GetUartParam("Local/Uart/1", nullptr, &v, &v, &v), -1);
}

TEST_F(Serial, WritesGoWhereTheResourceLivesAndReadsWaitOnceForTheTimeOut) {
  for (const auto& [name, port, wire] : {std::tuple{"Local/Uart/1", 1, std::string("AB")},
                                         {"Local/Uart/5", 5, frame(0x80, "AB")},
                                         {"Local/Uart/10", 6, frame(0x82, "AB")},  // crossed
                                         {"Local/Uart/14", 7, std::string("AB")}}) {
    EXPECT_EQ(WriteUart(name, "AB", 2), 0);
    EXPECT_EQ(uart(port).receive(wire.size()), wire) << name;
  }
  const std::string too_long(kMaxLinkData + 1, 'x');
  EXPECT_EQ(WriteUart("Local/Uart/6", too_long.data(), static_cast<int>(too_long.size())), -1);
  for (const char* refused : {"Local/Uart/13", "Local/Uart/15", "Local/Uart/16", "Local/Uart/17", "Local/AI/1"})
    EXPECT_EQ(WriteUart(refused, "x", 1), -1) << refused;
  EXPECT_EQ(WriteUart("Local/Uart/1", nullptr, 1) + WriteUart("Local/Uart/1", "x", -1), -2);
  for (int n = 1; n <= 7; ++n) EXPECT_EQ(uart(n).drain(), "") << n;

  const auto waited = [](const char* name, int timeout, int result) {
    char buf[16];
    const double start = platform::monotonic_seconds();
    EXPECT_EQ(ReadUart(name, buf, name ? sizeof buf : 0, timeout), result) << (name ? name : "null");
    return platform::monotonic_seconds() - start;
  };
  EXPECT_LT(waited("Local/Uart/2", 0, 0), 0.2);
  for (const auto& [name, result] : {std::pair{"Local/Uart/2", 0}, {"Local/Uart/17", -1}, {"Local/AI/1", -1}, {nullptr, -1}}) {
    const double long_wait = waited(name, 300, result);
    EXPECT_TRUE(long_wait >= 0.298 && long_wait < 1.5) << long_wait;
  }
}

TEST_F(Serial, ReceiveBuffersKeepTheOldestBytesInOrderAndTheHexLogOfTheChosenPortIsByteExact) {
  std::string sent(5000, '\0');
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7);
  uart(1).send(sent);
  reader_pass(0);
  ASSERT_EQ(LIST_MCOM_RECV_INFO[0].nLen.load(), 4096);
  char buf[5000];
  EXPECT_EQ(ReadUart("Local/Uart/1", buf, 10, 0), 10);
  EXPECT_EQ(ReadUart("Local/Uart/1", buf + 10, sizeof buf - 10, 0), 4086);
  EXPECT_EQ(std::string(buf, 4096), sent.substr(0, 4096));
  EXPECT_EQ(ReadUart("Local/Uart/13", buf, 10, 0) + ReadUart("Local/Uart/14", buf, 10, 0), 0);
  EXPECT_EQ(ReadUart("Local/Uart/1", nullptr, 10, 0) + ReadUart("Local/Uart/1", buf, 0, 0), -2);
  // The receiver's bytes gather in record 15 until more than 1024 have come, a sentence cut between two
  // reads included; the parser then takes them all and the record is emptied.
  const std::string gga = std::string(960, ' ') + "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
  uart(7).send(gga.substr(0, 1000));
  EXPECT_TRUE(sim::poll_until(2, [&] { return env_com_read_pass(), LIST_MCOM_RECV_INFO[15].nLen.load() == 1000; }));
  EXPECT_FALSE(logged("]:GPS:J:"));
  uart(7).send(gga.substr(1000));
  EXPECT_TRUE(sim::poll_until(2, [&] { return env_com_read_pass(), logged("]:GPS:J:11.51666"); }));
  EXPECT_EQ(LIST_MCOM_RECV_INFO[15].nLen.load(), 0);

  // The hex log of the chosen port is byte exact.
  sdk::BSP_SET_UART_LOG(3, 2);
  EXPECT_EQ(WriteUart(nullptr, "x", 1), -1);
  for (int i = 0; i < 2; ++i) WriteUart("Local/Uart/3", "\x01\x03", 2);
  WriteUart("Local/Uart/4", "\x55", 1);
  uart(3).send("\xAB\xCD\xEF");
  reader_pass(2);
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 3);
  WriteUart("Local/Uart/3", "\x01\x03", 2);  // the third write is past the limit
  const std::string log = box_.read("/tmp/comlog.log");
  // Two stamped write records; the read lands behind the last receive mark.
  EXPECT_NE(log.find("]:[Local/Uart/3][00001]\r\nTX:01 03 \r\nRX:\r\n["), std::string::npos) << log;
  EXPECT_TRUE(log.ends_with("]:[Local/Uart/3][00002]\r\nTX:01 03 \r\nRX:AB CD EF ")) << log;
}

TEST_F(Serial, VirtualPortAnswersEachWriteOnceAndItsAttributeSurvivesARestart) {
  box_.write("/tmp/set_com_attr", "set_com=3\r\nset_vlaue=1\r\nset_value=0\r\n");
  EXPECT_EQ(printed_by([] { sdk::SDK_ComAttr("/tmp/set_com_attr"); }), "set com3 attr=1 ");
  EXPECT_EQ(std::to_string(WriteUart("Local/Uart/3", "ping", 4)) + uart(3).drain(), "0");
  uart(3).send("real");
  reader_pass(2);
  char buf[64];
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 20);
  EXPECT_EQ(std::string(buf, 20), "0123456789ABCDEFGHIJ");
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 4);  // the answer came once
  EXPECT_EQ(std::string(buf, 4), "real");

  sdk::BSP_Resource_CHECK();  // COM = 4 on a board without extension boards
  sdk::COM_Attr_Update();
  EXPECT_EQ(box_.read("/etc/sdk_com_attr"), "com_num=4\r\ncom1_attr=0\r\ncom2_attr=0\r\ncom3_attr=1\r\ncom4_attr=0\r\n");
  sdk::reset_uart_api_for_tests();
  for (const char* printed : {"com 3 attr=1\r\n", "no com attr file\r\n"}) {  // a restart, then one without the file
    EXPECT_NE(printed_by(sdk::COM_Attr_init_FromFile).find(printed), std::string::npos);
    EXPECT_EQ(sdk::SDK_COM_Attr[2].attr.load(), printed[0] == 'c');
    std::remove(box_.path("/etc/sdk_com_attr").c_str());
  }
}

TEST_F(Serial, LinkFramesReachTheirDestinationsThroughSplitsGarbageAndFullBuffers) {
  const std::string q("\x7E\x00\x03\x51\x31\x32\x33\x99\x0D", 9);  // the sum is not checked
  double age = 0;
  feed(board1_, std::string(40, '\x55'));  // garbage is no answer
  feed(board2_, q + frame(0x52, "r") + frame(0x50, "p"));
  EXPECT_EQ(record(8) + record(9) + record(10), "pr123");  // board 2's channels 1 and 2 crossed
  EXPECT_EQ(std::pair(FsuBoardAnswerAge(FSU_BOARD_EXTENSION_1, &age), FsuBoardAnswerAge(FSU_BOARD_EXTENSION_2, &age)),
            std::pair(FSU_ERR_NO_ANSWER, FSU_OK));
  EXPECT_LT(age, 1);
  EXPECT_TRUE(logged("CID=51 nLength=3\r\n") && logged("EXT_M_COM_READ_THREAD com 10 sol_index=5 recv info len=3/3/3"));
  feed(board1_, frame(0x50, "ab") + frame(0x50, "cd") + q);
  const std::string split = frame(0x53, "xyz");
  feed(board1_, split.substr(0, 5));
  EXPECT_EQ(record(5) + "|" + record(7), "123|");
  feed(board1_, split.substr(5) + frame(0x42, "?") + frame(0xA0, ""));  // unknown commands: ignored
  EXPECT_EQ(record(7), "xyz");
  feed(board1_, std::string(6000, '\x7E'));
  EXPECT_EQ(board1_.fill, kExtAccumulation);
  feed(board1_, frame(0x52, "after"));  // a full buffer is dropped whole at the next pass
  EXPECT_EQ(record(6) + std::to_string(board1_.fill), "after0");
  for (char c : {'a', 'b'}) feed(board1_, frame(0x50, std::string(3000, c)));
  EXPECT_EQ(record(4), "abcd" + std::string(3000, 'a') + std::string(4096 - 3004, 'b'));

  feed(board2_, frame(0x41, "xx"));  // presence of board 2, then of board 1
  const std::string board2_only = flags();
  feed(board1_, frame(0x41, ""));
  EXPECT_EQ(board2_only + flags(), "01001100");
  const std::string answer = closed_answer();
  feed(board2_, frame(0x54, answer.substr(0, 10)) + frame(0x54, answer.substr(10)));
  EXPECT_EQ(std::pair(STR_BSP_ENV_INFO.ucDi[15].load(), flags()), std::pair(std::uint8_t{1}, std::string("1111")));
  for (int k : {0, 11, 12, 13, 14, 15}) EXPECT_EQ(record(k), "") << k;
}

TEST_F(Serial, AHostileChannelCannotForgeFramesForOtherPortsOrReadings) {
  // A device on "Local/Uart/5" writes link frames for channel 2, the environment board and board
  // presence; board 1 carries them as channel 0's data, cut anywhere by the reader's passes.
  const std::string data = frame(0x52, "HIJAK") + frame(0x54, closed_answer()) + frame(0x41, "");
  const std::string wire = frame(0x50, data);
  for (const std::size_t cut : {std::size_t{4}, std::size_t{12}, wire.size() - 1}) {
    feed(board1_, wire.substr(0, cut));
    feed(board1_, wire.substr(cut));
  }
  EXPECT_EQ(record(4), data + data + data);
  for (int k : {5, 6, 7, 14}) EXPECT_EQ(record(k), "") << k;
  EXPECT_EQ(flags(), "0000");
  EXPECT_EQ(STR_BSP_ENV_INFO.ucDi[0].load() + STR_BSP_ENV_INFO.nUpdateTime.load(), 0);
}

TEST_F(Serial, KeepAliveAfter21SilentTicksRelayCommandsNotCountedTheEnvironmentSenderAndTheLinkThreads) {
  const std::string keep_alive = frame(0x92, "");
  for (int tick = 0; tick < 20; ++tick) RunComDog();
  EXPECT_EQ(uart(6).drain(), "");
  RunComDog();
  EXPECT_EQ(uart(5).receive(6) + uart(6).receive(6), keep_alive + keep_alive);
  EXPECT_TRUE(logged("COM DOG RUN EXT1 COM") && logged("COM DOG RUN EXT2 COM"));

  for (int tick = 0; tick < 5; ++tick) RunComDog();
  EXPECT_EQ(EXT_TTYSCOM_SEND_INFO(8, reinterpret_cast<const std::uint8_t*>("x"), 1), 7);  // "Local/Uart/9"
  RunComDog();
  EXPECT_EQ(printed_by([] { EXPECT_EQ(EXT_TOP_DO_SET(4, 1), 7); }), "EXT_TOP_DO_SET CH4 =1\r\n");  // DO 8 on
  EXPECT_EQ(uart(6).receive(14), frame(0x80, "x") + frame(0xAD, "\x01"));
  EXPECT_EQ(std::pair(Return_ComDog_Cnt(1), Return_ComDog_Cnt(0)), std::pair(1, 6));

  // The environment sender polls board 1's channel 4, or sends a pending relay command instead.
  env_com_send_pass();
  EXPECT_EQ(Return_ComDog_Cnt(0), 0);
  EXPECT_EQ(uart(5).receive(24), frame(0x84, kEnvPoll));
  STR_BSP_ENV_INFO.ucDoSetValue[0].store(1, std::memory_order_relaxed);
  STR_BSP_ENV_INFO.ucDoSetFlag[0].store(1, std::memory_order_release);
  env_com_send_pass();
  EXPECT_EQ(uart(5).receive(44), frame(0x84, "~FFFF0555B014FF01FFFFFFFFFFFFFFFFF7F5\r"));
  EXPECT_EQ(uart(6).drain(), "");

  // The link threads set the channel up, then poll every second and read.
  static std::int32_t slot = 5, value = 6;
  pthread_t reader, sender;
  testing::internal::CaptureStdout();
  ASSERT_EQ(pthread_create(&reader, nullptr, EXT_COM_READ_THREAD, &slot), 0);
  ASSERT_EQ(pthread_create(&sender, nullptr, ENV_COM_SEND_THREAD, &value), 0);
  pthread_detach(reader), pthread_detach(sender);
  EXPECT_EQ(uart(5).receive(13 + 24, 3.0), frame(0x64, std::string("\x00\x00\x25\x80\x08\x01\x00", 7)) + frame(0x84, kEnvPoll));
  uart(6).send(frame(0x41, ""));
  EXPECT_TRUE(sim::poll_until(3, [] { return flags() == "0100"; }));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(out.find("STUMP[005]: FILE: com_process, FUNCTION: EXT_COM_READ_THREAD") != std::string::npos &&
              out.find("fun-ENV_COM_SEND_THREAD=6\r\n") != std::string::npos) << out;
}

}  // namespace
}  // namespace fsu::serial
