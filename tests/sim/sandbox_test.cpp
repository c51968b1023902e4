// The sandbox maker: what the SDK finds in a fresh root, what a refresh keeps, that neither
// making nor removing a sandbox reaches outside its root, and the uci file layout.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "sim/sandbox.h"
#include "sim/uci_file.h"
#include "tests/common/test_sandbox.h"

namespace fsu::sim {
namespace {

using fsu::test::TestSandbox;

TEST(Sandbox, HoldsWhatTheSdkNeedsAndARefreshKeepsTheConfiguration) {
  TestSandbox box;
  EXPECT_EQ(box.read("/sys/class/gpio/export"), "");
  for (const int line : kBoardGpioLines) {
    const std::string gpio = "/sys/class/gpio/gpio" + std::to_string(line);
    EXPECT_EQ(box.read(gpio + "/direction") + box.read(gpio + "/value") + box.read(gpio + "/edge"), "in\n0\nnone\n");
  }
  // Modem discovery reads only the first 256 bytes of what lsusb prints.
  EXPECT_LT(box.read("/sim/usb").find("2c7c:0125"), 256u - 9u);

  box.write("/etc/config/dtm", "config dtm 'sys'\n\toption pcas '1'\n");
  box.write("/bin/reboot", "broken");
  std::string error;
  ASSERT_TRUE(make_sandbox(box.root(), fsu::test::fsusim_path(), &error)) << error;
  EXPECT_EQ(box.read("/etc/config/dtm"), "config dtm 'sys'\n\toption pcas '1'\n");
  EXPECT_EQ(box.read("/bin/reboot").rfind("#!/bin/sh\n", 0), 0u);
}

TEST(Sandbox, NeverWritesOrRemovesOutsideItsRoot) {
  TestSandbox box;
  std::string outside = box.root() + ".outside.XXXXXX";
  std::string other = box.root() + ".other.XXXXXX";
  ASSERT_NE(mkdtemp(outside.data()), nullptr);
  ASSERT_NE(mkdtemp(other.data()), nullptr);
  std::string error;

  // A folder of the tree that is a link elsewhere is refused, and nothing lands there.
  ASSERT_EQ(symlink(outside.c_str(), (other + "/etc").c_str()), 0);
  EXPECT_FALSE(make_sandbox(other, fsu::test::fsusim_path(), &error));
  EXPECT_NE(error.find("etc"), std::string::npos) << error;
  EXPECT_EQ(access((outside + "/config").c_str(), F_OK), -1);

  const std::string keep = outside + "/keep";
  ASSERT_EQ(system(("touch " + keep).c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), box.path("/tmp/link").c_str()), 0);
  ASSERT_TRUE(remove_sandbox(box.root()));
  EXPECT_EQ(access(box.root().c_str(), F_OK), -1);
  EXPECT_EQ(access(keep.c_str(), F_OK), 0);

  // Only trees that look like a sandbox are removed at all.
  for (const std::string& root : {std::string("/"), std::string(), outside}) EXPECT_FALSE(remove_sandbox(root)) << root;
  EXPECT_EQ(access(keep.c_str(), F_OK), 0);
  ASSERT_EQ(system(("rm -rf " + outside + " " + other).c_str()), 0);
  ASSERT_TRUE(make_sandbox(box.root(), fsu::test::fsusim_path(), &error)) << error;  // for the destructor
}

TEST(UciFile, SetsOptionsInsideTheirSectionAndRefusesWhatItCannotWrite) {
  std::string text = "config a 'one'\n\toption x '1'\n\nconfig a 'two'\n\toption y '2'\n";
  ASSERT_TRUE(uci_assign(&text, "one", "y", "new value"));
  ASSERT_TRUE(uci_assign(&text, "two", "y", "/dev/ttyUSB3"));
  EXPECT_EQ(text, "config a 'one'\n\toption x '1'\n\toption y 'new value'\n\nconfig a 'two'\n\toption y '/dev/ttyUSB3'\n");
  EXPECT_EQ(uci_lookup(text, "two", "x"), std::nullopt);  // stands only in another section

  std::string unterminated = "config a 'one'\n\toption x '1'";
  ASSERT_TRUE(uci_assign(&unterminated, "one", "z", "3"));
  EXPECT_EQ(unterminated, "config a 'one'\n\toption x '1'\n\toption z '3'\n");

  const std::string before = text;
  EXPECT_FALSE(uci_assign(&text, "three", "x", "1"));
  EXPECT_FALSE(uci_assign(&text, "one", "x", "two\nlines"));
  EXPECT_EQ(text, before);
}

}  // namespace
}  // namespace fsu::sim
