#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <unistd.h>

#include "sim/sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

TEST(Sandbox, HoldsWhatTheSdkNeedsARefreshKeepsTheConfigurationAndNothingLeavesTheRoot) {
  test::TestSandbox box;
  EXPECT_EQ(box.read("/sys/class/gpio/export"), "");
  for (const int line : kBoardGpioLines) {
    const std::string gpio = "/sys/class/gpio/gpio" + std::to_string(line);
    EXPECT_EQ(box.read(gpio + "/direction") + box.read(gpio + "/value") + box.read(gpio + "/edge"), "in\n0\nnone\n");
  }
  box.write("/etc/config/dtm", "config dtm 'sys'\n\toption pcas '1'\n");
  box.write("/bin/reboot", "broken");
  std::string error;
  ASSERT_TRUE(make_sandbox(box.root(), fsu::test::fsusim_path(), &error)) << error;
  EXPECT_EQ(box.read("/etc/config/dtm"), "config dtm 'sys'\n\toption pcas '1'\n");
  EXPECT_EQ(box.read("/bin/reboot").rfind("#!/bin/sh\n", 0), 0u);

  std::string outside = box.root() + ".outside.XXXXXX", other = box.root() + ".other.XXXXXX";
  ASSERT_TRUE(mkdtemp(outside.data()) != nullptr && mkdtemp(other.data()) != nullptr);
  ASSERT_EQ(symlink(outside.c_str(), (other + "/etc").c_str()), 0);  // a folder of the tree links elsewhere
  EXPECT_FALSE(make_sandbox(other, fsu::test::fsusim_path(), &error));
  EXPECT_NE(error.find("etc"), std::string::npos) << error;
  EXPECT_EQ(access((outside + "/config").c_str(), F_OK), -1);
  const std::string keep = outside + "/keep";
  ASSERT_EQ(system(("touch " + keep).c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), box.path("/tmp/link").c_str()), 0);
  ASSERT_TRUE(remove_sandbox(box.root()));
  EXPECT_EQ(access(box.root().c_str(), F_OK), -1);
  for (const std::string& root : {std::string("/"), std::string(), outside}) EXPECT_FALSE(remove_sandbox(root)) << root;
  EXPECT_EQ(access(keep.c_str(), F_OK), 0);
  ASSERT_EQ(system(("rm -rf " + outside + " " + other).c_str()), 0);
  ASSERT_TRUE(make_sandbox(box.root(), fsu::test::fsusim_path(), &error)) << error;  // for the destructor
}

TEST(StandIns, RecordTheirCommandLinesNeverTouchTheHostReachTheModemAndKeepUciFiles) {
  test::TestSandbox box;
  const std::time_t before = platform::seconds_now();
  EXPECT_EQ(capture("date -s '2001-01-01 00:00:00'; date --set=2001-01-01; date -us 2001-01-02"),
            "2001-01-01 00:00:00\n2001-01-01\n2001-01-02\n");
  for (const char* command : {"hwclock -w", "reboot", "killall /product/app/bin/fieldsvc", "kvupgrade -f >/dev/null 2>&1",
                              "user.sh add ftp secret /tmp"})
    EXPECT_EQ(capture(command + std::string("; echo $?")), "0\n") << command;
  EXPECT_GE(platform::seconds_now(), before);
  EXPECT_EQ(capture("date +%Y"), std::to_string(platform::local_time(platform::seconds_now()).tm_year + 1900) + "\n");
  EXPECT_EQ(box.calls(),
            "date -s 2001-01-01 00:00:00\ndate --set=2001-01-01\ndate -us 2001-01-02\nhwclock -w\nreboot\n"
            "killall /product/app/bin/fieldsvc\nkvupgrade -f\nuser.sh add ftp secret /tmp\ndate +%Y\n");
  EXPECT_TRUE(std::regex_match(capture("hwclock -r"),  // the device's own form
                               std::regex("(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z]{2} [ 123][0-9] [0-2][0-9]:[0-5][0-9]:"
                                          "[0-6][0-9] 2[0-9]{3}  0\\.000000 seconds\n")));
  EXPECT_EQ(capture("ifconfig ppp0 2>&1; echo $?"),
            "ifconfig: ppp0: error fetching interface information: Device not found\n1\n");
  EXPECT_EQ(exit_code("nohup  lte.sh; killall -9 pppd; killall fieldsvc"), 0);
  // reboot is counted by the board; the dial script and killall reach the modem
  EXPECT_EQ(box.read("/sim/control"), "reboot\nmodem dial\nmodem hangup\n");
  box.write("/sim/ppp0", "10.64.12.34\n");
  const std::string ppp0 = capture("ifconfig ppp0");
  EXPECT_NE(ppp0.find("inet addr:10.64.12.34  P-t-P:10.64.64.64  Mask:255.255.255.255\n"), std::string::npos);
  EXPECT_GE(ppp0.size(), 200u);  // the SDK takes shorter output for a missing interface
  EXPECT_NE(capture("ifconfig").find(ppp0), std::string::npos);
  box.write("/sim/ppp0", "10.1.2.3\n");
  EXPECT_NE(capture("ifconfig ppp0").find("inet addr:10.1.2.3  "), std::string::npos);

  // uci: get, set, commit and refusals
  EXPECT_EQ(capture("uci get dtm.sys.pcas"), "2\n");
  EXPECT_EQ(exit_code("uci set dtm.sys.pcas_sdk=99999;uci commit && uci set dtm.sys.pcas=3 && uci commit dtm && "
                      "uci set network.ppp0.device=/dev/ttyUSB3 && uci set network.lan.mtu=1400"), 0);
  EXPECT_EQ(capture("uci get dtm.sys.pcas_sdk; uci get network.ppp0.device; uci get network.lan.mtu"),
            "99999\n/dev/ttyUSB3\n1400\n");  // an option added inside the first of two sections
  EXPECT_EQ(box.read("/etc/config/dtm"), "config dtm 'sys'\n\toption pcas '3'\n\toption pcas_sdk '99999'\n");
  EXPECT_NE(box.calls().find("uci get dtm.sys.pcas\nuci set dtm.sys.pcas_sdk=99999\nuci commit\nuci set dtm.sys.pcas=3\n"), std::string::npos);
  const std::string dtm = box.read("/etc/config/dtm");
  EXPECT_EQ(capture("uci get dtm.sys.nothing 2>&1; echo $?"), "uci: Entry not found\n1\n");
  for (const char* bad : {"uci set nothing.sys.pcas=1", "uci set dtm.nosection.pcas=1", "uci set \"dtm.sys.pcas=it's\"",
                          "uci set dtm.sys.pcas", "uci get ../../../etc/passwd.x.y", "uci get dtm..pcas"})
    EXPECT_EQ(capture(std::string(bad) + " 2>&1; echo $?"), "uci: Invalid argument\n1\n") << bad;
  EXPECT_TRUE(!box.exists("/etc/config/nothing") && box.read("/etc/config/dtm") == dtm);
  EXPECT_NE(exit_code(std::string("env -u FSU_ROOT ") + test::fsusim_path() + " tool uci get dtm.sys.pcas"), 0);
}

}  // namespace
}  // namespace fsu::sim
