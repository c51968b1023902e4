// The sandbox maker: what the SDK finds in a fresh root, what a refresh keeps, and that
// neither making nor removing a sandbox reaches outside its root.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "sim/sandbox.h"
#include "sim/uci_file.h"
#include "tests/common/test_sandbox.h"

namespace fsu::sim {
namespace {

using fsu::test::TestSandbox;

mode_t mode_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

TEST(Sandbox, HoldsWhatTheSdkNeeds) {
  TestSandbox box;
  EXPECT_EQ(box.read("/etc/config/dtm"), "config dtm 'sys'\n\toption pcas '2'\n");
  EXPECT_EQ(uci_lookup(box.read("/etc/config/network"), "ppp0", "device"), "/dev/ttyUSB2");
  EXPECT_TRUE(uci_lookup(box.read("/etc/config/network"), "lan", "ipaddr").has_value());
  for (const char* config : {"Device", "EnvironmentPar", "monitor", "ks"}) {
    EXPECT_NE(box.read(std::string("/etc/config/") + config).find("\toption "), std::string::npos) << config;
  }
  for (const char* folder : {"/tmp", "/dev", "/var", "/product/app/bin"}) {
    EXPECT_TRUE(S_ISDIR(mode_of(box.path(folder)))) << folder;
  }
  EXPECT_EQ(box.read("/sys/class/gpio/export"), "");
  EXPECT_EQ(box.read("/sys/class/gpio/unexport"), "");
  for (const int line : kBoardGpioLines) {
    const std::string gpio = "/sys/class/gpio/gpio" + std::to_string(line);
    EXPECT_EQ(box.read(gpio + "/direction"), "in\n");
    EXPECT_EQ(box.read(gpio + "/value"), "0\n");
    EXPECT_EQ(box.read(gpio + "/edge"), "none\n");
  }
  for (const char* tool : {"killall", "reboot", "kvupgrade", "user.sh", "hwclock", "date", "uci", "lsusb",
                           "lte.sh", "ifconfig", "pppd"}) {
    EXPECT_EQ(mode_of(box.path("/bin/") + tool) & 07777, 0755u) << tool;
  }
  EXPECT_EQ(box.calls(), "");
  // Modem discovery reads only the first 256 bytes of what lsusb prints.
  EXPECT_LT(box.read("/sim/usb").find("2c7c:0125"), 256u - 9u);
}

TEST(Sandbox, RefreshKeepsConfigurationAndRewritesTools) {
  TestSandbox box;
  box.write("/etc/config/dtm", "config dtm 'sys'\n\toption pcas '1'\n");
  box.write("/bin/reboot", "broken");
  box.write("/sim/calls.log", "reboot\n");
  std::string error;
  ASSERT_TRUE(make_sandbox(box.root(), fsu::test::fsusim_path(), &error)) << error;
  EXPECT_EQ(box.read("/etc/config/dtm"), "config dtm 'sys'\n\toption pcas '1'\n");
  EXPECT_EQ(box.read("/bin/reboot").rfind("#!/bin/sh\n", 0), 0u);
  EXPECT_EQ(box.calls(), "reboot\n");
}

TEST(Sandbox, NeverWritesOrRemovesOutsideItsRoot) {
  TestSandbox box;
  std::string outside = box.root() + ".outside.XXXXXX";
  ASSERT_NE(mkdtemp(outside.data()), nullptr);
  std::string error;

  // A folder of the tree that is a link elsewhere is refused, and nothing lands there.
  std::string other = box.root() + ".other.XXXXXX";
  ASSERT_NE(mkdtemp(other.data()), nullptr);
  ASSERT_EQ(symlink(outside.c_str(), (other + "/etc").c_str()), 0);
  EXPECT_FALSE(make_sandbox(other, fsu::test::fsusim_path(), &error));
  EXPECT_NE(error.find("etc"), std::string::npos) << error;
  EXPECT_EQ(access((outside + "/config").c_str(), F_OK), -1);

  box.write("/tmp/x", "x");
  const std::string keep = outside + "/keep";
  ASSERT_EQ(system(("touch " + keep).c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), box.path("/tmp/link").c_str()), 0);
  ASSERT_TRUE(remove_sandbox(box.root()));
  EXPECT_EQ(access(box.root().c_str(), F_OK), -1);
  EXPECT_EQ(access(keep.c_str(), F_OK), 0);

  // Only trees that look like a sandbox are removed at all.
  EXPECT_FALSE(remove_sandbox("/"));
  EXPECT_FALSE(remove_sandbox(""));
  EXPECT_FALSE(remove_sandbox(outside));
  EXPECT_EQ(access(keep.c_str(), F_OK), 0);
  ASSERT_EQ(system(("rm -rf " + outside + " " + other).c_str()), 0);
  ASSERT_TRUE(make_sandbox(box.root(), fsu::test::fsusim_path(), &error)) << error;  // for the destructor
}

TEST(UciFile, SetsOptionsInTheLayoutTheReaderUnderstands) {
  std::string text = "config a 'one'\n\toption x '1'\n\nconfig a 'two'\n\toption y '2'\n";
  ASSERT_TRUE(uci_assign(&text, "one", "y", "new value"));
  ASSERT_TRUE(uci_assign(&text, "two", "y", "/dev/ttyUSB3"));
  EXPECT_EQ(text, "config a 'one'\n\toption x '1'\n\toption y 'new value'\n\nconfig a 'two'\n\toption y '/dev/ttyUSB3'\n");
  EXPECT_EQ(uci_lookup(text, "one", "y"), "new value");
  EXPECT_EQ(uci_lookup(text, "two", "x"), std::nullopt);  // stands only in another section
  EXPECT_EQ(uci_lookup(text, "two", ""), "a");

  std::string unterminated = "config a 'one'\n\toption x '1'";
  ASSERT_TRUE(uci_assign(&unterminated, "one", "z", "3"));
  EXPECT_EQ(unterminated, "config a 'one'\n\toption x '1'\n\toption z '3'\n");

  const std::string before = text;
  EXPECT_FALSE(uci_assign(&text, "three", "x", "1"));
  EXPECT_FALSE(uci_assign(&text, "one", "x", "it's"));
  EXPECT_FALSE(uci_assign(&text, "one", "x", "two\nlines"));
  EXPECT_EQ(text, before);

  UciKey key;
  EXPECT_TRUE(parse_uci_key("network.ppp0.device", &key));
  EXPECT_EQ(key.option, "device");
  for (const char* bad : {"../../etc/passwd.x.y", "dtm", "dtm..pcas", "dtm.sys.", "a/b.c.d", ".sys.pcas"}) {
    EXPECT_FALSE(parse_uci_key(bad, &key)) << bad;
  }
}

}  // namespace
}  // namespace fsu::sim
