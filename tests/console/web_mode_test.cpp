#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "console/test_routines.h"
#include "console/web_mode.h"
#include "lte/lte_supervisor.h"
#include "lte/modem_discovery.h"
#include "lte/ntu.h"
#include "platform/clock.h"
#include "platform/sandbox_root.h"
#include "platform/shared_memory.h"
#include "sdk/lifecycle.h"
#include "sdk/resource_catalogue.h"
#include "sdk/web_requests.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"
#include "serial/environment_link.h"
#include "serial/serial_ports.h"
#include "sim/web_pages.h"
#include "tests/common/test_sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::console {
namespace {

using sim::gpio;

// Web mode's threads one pass at a time: the counter segment is the sandbox's own and another start clears it,
// output requests switch both 12 V lines and every relay, the PPP watchdog dials again and publishes the modem.
TEST(WebMode, CountersOutputRequestsAndThePppWatchdog) {
  const auto key = [](const char* root) { return platform::shared_memory_key_in(root, 1236); };
  EXPECT_TRUE(key("/") == 1236 && key("/tmp/a//b/") == key("/tmp/a/b") && key("/tmp/a/b") != key("/tmp/a/c"));
  test::TestSandbox box;
  sim::PortCounters seen{};
  std::string error;
  for (const std::vector<int>& expected : {std::vector{10, 9, 7}, std::vector{0, 0, 0}}) {
    DTUSHARE_init();  // the second time as another console's start
    if (expected[0] != 0) dtu_add(1, 10, 9), dtu_add(16, 0, 7), dtu_add(17, 5, 5);
    ASSERT_TRUE(sim::read_counters(box.root(), &seen, &error)) << error;
    EXPECT_EQ(std::vector({seen.sent[0], seen.received[0], seen.received[15]}), expected);
  }
  const struct { std::vector<std::string> files; int outputs; const char* lines; int relays; } cases[] = {  // lines: GPIO 8, 5
      {{"open", "close"}, 4, "xx", -1}, {{"close"}, 4, "00", 0}, {{"open"}, 0, "11", -1}, {{"open"}, 4, "11", 1}};  // -1: none
  for (const auto& c : cases) {
    serial::clear_env_info();
    box.write("/sys/class/gpio/gpio8/value", "x"), box.write("/sys/class/gpio/gpio5/value", "x");
    for (const std::string& f : c.files) box.write("/tmp/set_all_doao_" + f, "");
    sdk::STR_SYSTEM_RESOURCES_NUM.do_.store(c.outputs);
    aodo_listen_pass();
    EXPECT_EQ(std::string({gpio(box, 8), gpio(box, 5)}), c.lines) << c.files.size();
    for (int i = 0; i < 4; ++i)  // flag and value
      EXPECT_EQ(serial::STR_BSP_ENV_INFO.ucDoSetFlag[i] * 2 + serial::STR_BSP_ENV_INFO.ucDoSetValue[i], c.relays < 0 ? 0 : 2 + c.relays);
    for (const std::string& f : c.files) EXPECT_EQ(std::remove(box.path("/tmp/set_all_doao_" + f).c_str()) == 0, c.files.size() == 2);
  }
  // The LED chase lights run, alarm, net and LED 1 (GPIO 1, 18, 0, 4; lit at 0) in turn and puts them out in reverse.
  std::string chase;
  for (int line : {1, 18, 0, 4}) box.write("/sys/class/gpio/gpio" + std::to_string(line) + "/value", "1");
  for (int step = 0; step < 8; ++step) led_chase_step(step), chase += std::string({gpio(box, 1), gpio(box, 18), gpio(box, 0), gpio(box, 4), ' '});
  EXPECT_EQ(chase, "0111 0011 0001 0000 0001 0011 0111 1111 ");
  lte::ntu_set_text(lte::NtuText::cimi, "460011234567890"), lte::ntu_set_text(lte::NtuText::csq, "-71");
  PppWatch watch;
  for (int second = 1; second <= 61; ++second) {  // 61 s without an address
    lte::NTU.pppdstart.store(0), ppp0_listen_pass(watch);
    ASSERT_EQ(lte::NTU.pppdstart.load(), second == 61) << second;
  }
  lte::ntu_set_text(lte::NtuText::lteip, "10.64.12.34"), lte::NTU.pppdstart.store(0);
  for (int second = 0; second < 70; ++second) ppp0_listen_pass(watch);
  EXPECT_EQ(std::vector({lte::NTU.pppdstart.load(), lte::NTU.CardStat.load()}), std::vector({0, 1}));
  EXPECT_EQ(box.read("/tmp/NetModuleInfo"),
            "SIM 卡状态: 正常;SIM 卡ISMI号: 460011234567890;模块IMEI: ;模块信号强度:-71;模块网络IP:10.64.12.34;");
  // The modem pulled (its address cleared), back online for one second at 31 s: a minute offline in a row redials.
  for (int second = 1; second <= 92; ++second) {
    lte::ntu_set_text(lte::NtuText::lteip, second == 31 ? "10.64.12.34" : "");
    lte::NTU.pppdstart.store(0), ppp0_listen_pass(watch);
    ASSERT_EQ(lte::NTU.pppdstart.load(), second == 92) << second;
  }
}

// One round of the factory loopback on the main board's four ports (the boards silent): the odd
// ports send first and are read a second later, then the even ones; a port that hears anything
// but its own text prints the failure line of its phase. Ports 2 and 3 end in a person's terminal.
TEST(LoopbackTest, OddPortsFirstThenEvenOnesEachPhaseWithItsFailureLinesAndReport) {
  sim::RunningBoard unit{{"board 1 silent", "board 2 silent", "uart 2 terminal", "uart 3 terminal"}};
  support::SDK_LOG_PAR_INIT();
  serial::M_COM_INIT(), serial::BSP_BAU_INIT(), serial::FSU_COM_READ_THREAD_START(), sdk::BSP_Resource_CHECK();
  ASSERT_TRUE(DTUSHARE_init());
  const int second = sim::open_port(sim::terminal_of(unit.box, "uart 2 "), B9600);
  const int third = sim::open_port(sim::terminal_of(unit.box, "uart 3 "), B9600);
  sim::put(third, "hello");
  testing::internal::CaptureStdout();
  std::thread round(com_test_pass);
  EXPECT_EQ(sim::take(second, 10, 3), "IS COM 02\n");  // only after the odd ports' report
  sim::put(second, "IS COM 2\n");
  round.join();
  // The serial threads announce their start on their own time (late on a slow or sanitized build): not the round's.
  std::string said = testing::internal::GetCapturedStdout();
  for (const char* start : {"STUMP[", "fun-ENV_COM_SEND_THREAD="})
    for (size_t at; (at = said.find(start)) != std::string::npos;) said.erase(at, said.find('\n', at) + 1 - at);
  EXPECT_EQ(said,
            "串口资源 Local/Uart/3 收到数据异常:收到长度5 的数据: hello"
            "\r\n串口01 发送/接收计数 :  10/10\r\n串口02 发送/接收计数 :  0/0\r\n串口03 发送/接收计数 :  10/5\r\n串口04 发送/接收计数 :  0/0"
            "\r\n串口资源 Local/Uart/2 收到数据异常:收到长度9 的数据: IS COM 2\n\r\n"
            "串口01 发送/接收计数 :  10/10\r\n串口02 发送/接收计数 :  10/9\r\n串口03 发送/接收计数 :  10/5\r\n串口04 发送/接收计数 :  10/10\r\n");
  EXPECT_EQ(sim::take(third, 10, 0.1), "IS COM 03\n");
}

// /tmp is anyone's: whatever another user plants at a name the unit writes (a link to a file
// elsewhere, a link to nothing yet, a hard link, a file of their own) is never written through.
TEST(FilesUnderTmp, NothingPlantedAtANameTheUnitWritesIsFollowedOrWrittenThrough) {
  test::TestSandbox box;
  support::SDK_LOG_PAR_INIT();
  namespace fs = std::filesystem;
  fs::create_directories(box.path("/outside"));  // beside the sandbox's /tmp, not in it
  const unsigned char bytes[] = {0x7E, 0x31};
  sdk::WebRequestState state;
  PppWatch watch;
  const auto request = [&](const char* file) { return [&, file] { box.write(file, ""), sdk::web_request_pass(state); }; };
  enum Plant { kLink, kDanglingLink, kHardLink, kForeignFile, kFifo };
  const struct { const char* name; Plant plant; std::function<void()> write; } cases[] = {
      {lte::kGlobalpFile, kLink, [] { lte::WritetmpDATA(lte::kGlobalpFile, "cimi=1\r\n"); }},
      {lte::kGlobalpFile, kDanglingLink, [] { lte::ReadPar(lte::kGlobalpFile, "cimi"); }},  // made when missing
      {support::kLogFile, kLink, [] { support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "record"); }},
      {support::kLogFile, kDanglingLink, [] { support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "record"); }},
      {support::kLogFile, kHardLink, [] { support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "record"); }},
      {sdk::kComLog, kLink, [&] { support::BSP_SAVE_HEX_LOG("Local/Uart/1", bytes, 2, 0, 10, 1); }},
      {sdk::kComLog, kForeignFile, [&] { support::BSP_SAVE_HEX_LOG_Virtual("Local/Uart/9", bytes, 2, 1, 10, 1); }},
      {sdk::kDtuComLog, kHardLink, [&] { support::BSP_SAVE_DTU_HEX_LOG(bytes, 2); }},
      {sdk::kDtuComLog, kFifo, [&] { support::BSP_SAVE_DTU_HEX_LOG(bytes, 2); }},
      {"/tmp/sdkversion", kLink, [] { sdk::WriteSdkversion_to_file(); }},
      {sdk::kAidiAnswer, kLink, request(sdk::kReadAidiRequest)},
      {sdk::kGpsInfoAnswer, kDanglingLink, request(sdk::kReadGpsInfoRequest)},
      {sdk::kGpsDbAnswer, kLink, request(sdk::kReadGpsDbRequest)},
      {"/tmp/NetModuleInfo", kLink, [&] { ppp0_listen_pass(watch); }},
  };
  for (int i = 0; const auto& c : cases) {
    const std::string target = "/outside/" + std::to_string(i++);
    const fs::path name = box.path(c.name);
    if (c.plant != kDanglingLink) box.write(target, "precious");
    fs::remove(name);
    if (c.plant == kHardLink) fs::create_hard_link(box.path(target), name);
    ASSERT_TRUE(c.plant != kFifo || mkfifo(name.c_str(), 0666) == 0);
    if (c.plant == kLink || c.plant == kDanglingLink) fs::create_symlink(box.path(target), name);
    if (c.plant == kForeignFile) {
      if (geteuid() != 0) continue;  // only root can give a file to another user
      fs::copy_file(box.path(target), name);
      ASSERT_EQ(lchown(name.c_str(), 4321, 4321), 0);
    }
    c.write();
    EXPECT_EQ(c.plant == kDanglingLink ? std::to_string(box.exists(target)) : box.read(target), c.plant == kDanglingLink ? "0" : "precious")
        << c.name << " " << c.plant;
    struct stat st{};
    EXPECT_TRUE(lstat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1)
        << c.name << " " << c.plant;  // the unit's own file took the name
  }
  // Where the name cannot be taken (a folder stands there) the write fails and leaves no new file.
  fs::remove(box.path("/tmp/sdkversion")), fs::create_directories(box.path("/tmp/sdkversion/x"));
  EXPECT_EQ(sdk::WriteSdkversion_to_file(), -1);
  for (const auto& entry : fs::directory_iterator(box.path("/tmp"))) EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
}

// A segment of the key that is not the console's own (another size, open to every user, as anybody
// may plant one) is never used: made again when nobody holds it, else left alone, with one line.
TEST(WebMode, ACounterSegmentOfAnotherSizeOrModeIsMadeAgainOrLeftAlone) {
  test::TestSandbox box;
  const struct { std::size_t size; unsigned mode; bool held, foreign; } cases[] = {{16, 0600, false, false},
      {kDtuShareSize, 0666, false, false}, {kDtuShareSize, 0600, false, true}, {16, 0600, true, false}, {kDtuShareSize, 0666, true, false}};
  for (const auto& c : cases) {
    const std::string root = box.root() + "/unit" + std::to_string(&c - cases);  // a key of its own
    ASSERT_TRUE(platform::set_root(root.c_str()));
    const key_t key = platform::shared_memory_key(kDtuShareKey);
    const int planted = shmget(key, c.size, IPC_CREAT | static_cast<int>(c.mode));
    void* held = c.held ? shmat(planted, nullptr, 0) : nullptr;
    struct shmid_ds st {};
    st.shm_perm.uid = geteuid() + 1, st.shm_perm.gid = getegid(), st.shm_perm.mode = static_cast<unsigned short>(c.mode);
    ASSERT_TRUE(!c.foreign || shmctl(planted, IPC_SET, &st) == 0);  // another user's, made by us
    sim::PortCounters seen{};
    std::string error;
    EXPECT_EQ(sim::read_counters(root, &seen, &error), c.foreign) << error;  // it reads, but the console wants its own
    EXPECT_TRUE(c.foreign || error.find("no usable counter segment") != std::string::npos) << error;
    testing::internal::CaptureStderr();
    EXPECT_EQ(DTUSHARE_init(), !c.held);
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::count(line.begin(), line.end(), '\n') == 1 &&
                line.find(c.held ? "without counters" : "made again") != std::string::npos) << line;
    EXPECT_EQ(shmctl(shmget(key, 0, 0), IPC_STAT, &st), 0);
    EXPECT_EQ(std::pair(static_cast<std::size_t>(st.shm_segsz), st.shm_perm.mode & 0777u),
              c.held ? std::pair(c.size, c.mode) : std::pair(kDtuShareSize, 0600u));
    EXPECT_EQ(std::pair(dtu_attached(), sim::read_counters(root, &seen, &error)), std::pair(!c.held, !c.held));
    EXPECT_TRUE(c.held || st.shm_perm.uid == geteuid()) << st.shm_perm.uid;
    if (held != nullptr) shmdt(held);
    shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
  }
}

// The operator's items step a second at a time, for their number of passes: the sleeps are
// taken by the test instead of slept, and a routine that runs for ever is ended by the last.
std::vector<long> g_sleeps;
std::size_t g_sleep_limit = 0;
struct Enough {};
void take_sleep(long milliseconds) {
  if (milliseconds < 1000) return;  // the port driver's short waits for a write
  g_sleeps.push_back(milliseconds);
  if (g_sleeps.size() >= g_sleep_limit) throw Enough{};
}

TEST(OperatorItems, StepASecondAtATimeForTheirPasses) {
  test::TestSandbox box;
  sdk::PAR_SET_M_COM_EXIST_STATUS(1), sdk::PAR_SET_EXT_COM_EXIST_STATUS(1);
  sdk::PAR_SET_M_ENV_EXIST_STATUS(1), sdk::PAR_SET_EXT_ENV_EXIST_STATUS(1);
  char resources[1024];
  ASSERT_EQ(ReadFSUResource(resources, sizeof resources), 0);  // 12 ports, 16 AI, 16 DI, 4 DO
  platform::hand_sleeps_to_for_tests(take_sleep);
  const auto sleeps = [](void (*item)(), std::size_t limit) {
    g_sleeps.clear(), g_sleep_limit = limit;
    try {
      item();
    } catch (const Enough&) {
    }
    return g_sleeps;
  };
  const auto seconds = [](std::size_t n) { return std::vector<long>(n, 1000); };
  testing::internal::CaptureStdout();
  const std::vector<std::vector<long>> taken = {sleeps(DO_CONTROL, 100), sleeps(Read_Hardware_RTC, 100),
                                                sleeps(com_test_pass, 100), sleeps(AIDI_READ, 5000), sleeps(START_PPP0, 3)};
  platform::hand_sleeps_to_for_tests(nullptr);
  const std::string out = testing::internal::GetCapturedStdout();
  // Each relay on, then each off; five clock readings; the odd ports' phase, then the even ones';
  // 3000 input passes; the link report of a quarter of an hour, ended at its third second.
  EXPECT_EQ(taken, std::vector({seconds(8), seconds(5), seconds(2), seconds(3000), seconds(3)}));
  EXPECT_EQ(std::vector({sim::count(out, "set DO "), sim::count(out, "AI 16 电压型"), sim::count(out, "PPP0未拨号成功")}),
            std::vector({8, 3000, 2}));
}

}  // namespace
}  // namespace fsu::console
