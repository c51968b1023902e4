// The sandbox switch: device paths land under the root, commands run with the sandbox's tools and
// never at all where a device tool has no stand-in, caller text cannot change a command.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <sys/stat.h>

#include "platform/caller_text.h"
#include "platform/command_runner.h"
#include "platform/sandbox_root.h"
#include "tests/common/test_sandbox.h"

namespace fsu::platform {
namespace {

std::string capture(const char* command, std::size_t size = 4096) {
  std::string out(size, '\0');
  out.resize(static_cast<std::size_t>(std::max(0L, capture_command(command, out.data(), size))));
  return out;
}

TEST(SandboxRoot, ResolvesDevicePathsUnderTheRootAndRefusesRootsAndTextsACommandLineCouldMisread) {
  fsu::test::TestSandbox box;
  EXPECT_STREQ(DevicePath("/tmp/sdklog.log").c_str(), (box.root() + "/tmp/sdklog.log").c_str());
  EXPECT_STREQ(DevicePath("relative/file").c_str(), "relative/file");
  char small[8];
  EXPECT_FALSE(resolve("/tmp/sdklog.log", small, sizeof small));
  EXPECT_STREQ(small, "");

  for (const std::string& bad : {std::string("/tmp/with space"), std::string("/tmp/x;reboot"),
                                 std::string(kMaxRootLength + 1, 'a')}) EXPECT_FALSE(set_root(bad.c_str())) << bad;
  EXPECT_STREQ(root(), box.root().c_str());  // the previous root stays
  ASSERT_TRUE(set_root("/"));
  EXPECT_FALSE(in_sandbox());
  EXPECT_STREQ(DevicePath("/tmp/x").c_str(), "/tmp/x");

  // Caller text that could change a command is refused.
  for (const char* bad : {"a'b", "a\"b", "a`b`", "$(x)", "a\\b", "a;b", "a&b", "a|b", "a<b", "a>b",
                          "(a)", "a\nb", "a\rb", "a\tb"}) {
    EXPECT_FALSE(caller_text_is_safe(bad, Blanks::kAllowed)) << bad;
  }
  EXPECT_FALSE(caller_text_is_safe(nullptr, Blanks::kAllowed) || caller_text_is_safe("/tmp/a b.gz", Blanks::kRefused));
  EXPECT_TRUE(caller_text_is_safe("2023-12-27 23:09:56", Blanks::kAllowed) &&
              caller_text_is_safe("/tmp/dt_sdk_upgrade.gz", Blanks::kRefused) && caller_text_is_safe("", Blanks::kRefused));
  for (const char* bad : {"", "-u", "*", "a b", "u;x", "u\n", "ü", "u23456789012345678901234567890123"})
    EXPECT_FALSE(caller_account_is_safe(bad)) << bad;
  EXPECT_TRUE(caller_account_is_safe("ftp.user-1") && caller_account_is_safe("_2345678901234567890123456789012"));
  EXPECT_FALSE(caller_account_is_safe(nullptr) || ShellWord(nullptr).ok() || ShellWord(std::string(300, '\'').c_str()).ok());
}

TEST(CommandRunner, RunsWithTheSandboxToolsOnlyAndCapturesBounded) {
  fsu::test::TestSandbox box;
  EXPECT_EQ(capture("echo $FSU_ROOT; command -v reboot"), box.root() + "\n" + box.root() + "/bin/reboot\n");
  EXPECT_EQ(run_command("reboot"), 0);
  EXPECT_NE(box.calls().find("reboot"), std::string::npos);
  EXPECT_EQ(run_commandf("exit %d", 3), 3 << 8);
  EXPECT_EQ(capture("yes | head -c 100000", 10), "y\ny\ny\ny\ny\n");
  EXPECT_EQ(capture("printf abc; exit 1"), "abc");
  EXPECT_EQ(capture("true"), "");
  // Any text stands as one word, unchanged.
  const std::string word = "it's $HOME `id` \"a  b\" \\ ;\n*";
  EXPECT_EQ(capture(("printf '[%s]' " + std::string(ShellWord(word.c_str()).c_str()) + " ''").c_str()), "[" + word + "][]");
  // The forms that skip the shell give what the shell gives; any other text still goes to it.
  const std::string file = DevicePath("/tmp/gpio").c_str(), dir = DevicePath("/tmp").c_str();
  for (const auto& [command, written] : {std::pair<std::string, std::string>{"echo 1 > " + file, "1\n"},
                                         {"echo  0 >" + file + " ", "0\n"}, {"echo -n 1 > " + file, "1"},
                                         {"echo $FSU_ROOT > " + file, box.root() + "\n"}, {"echo '*' > " + file, "*\n"}}) {
    EXPECT_EQ(run_command(command.c_str()), 0) << command;
    EXPECT_EQ(capture(("cat " + file).c_str()), written) << command;
  }
  EXPECT_EQ(run_command(("echo 1 > " + dir).c_str()), 2 << 8);  // a folder: the shell's failure
  EXPECT_EQ(capture("lsusb"), capture(("cat " + box.path("/sim/usb")).c_str()));
  EXPECT_EQ(run_command("ifconfig   ppp9"), 1 << 8);
  EXPECT_NE(box.calls().find("ifconfig ppp9"), std::string::npos);
  EXPECT_EQ(run_command("nosuchtool x"), 127 << 8);
  EXPECT_EQ(run_command(nullptr), -1);
  EXPECT_EQ(run_commandf("echo %s", std::string(kCommandSize, 'x').c_str()), -1);

  // Device tools without a stand-in never run, nor does anything once the tools are gone.
  ASSERT_EQ(::unlink(box.path("/bin/hwclock").c_str()), 0);
  const std::string marker = DevicePath("/tmp/ran").c_str();
  for (const std::string& refused : {"touch " + marker + "; hwclock -w", "touch " + marker + " && /sbin/reboot",
                                     std::string("/usr/bin/date -s '2001-01-01'")}) {
    EXPECT_EQ(run_command(refused.c_str()), -1) << refused;
  }
  EXPECT_FALSE(box.exists("/tmp/ran"));
  EXPECT_EQ(run_command(("touch " + marker).c_str()), 0);
  EXPECT_TRUE(box.exists("/tmp/ran"));
  ASSERT_EQ(::system(("rm -rf " + box.path("/bin") + " " + marker).c_str()), 0);
  EXPECT_EQ(run_command(("touch " + marker).c_str()) + capture_command("echo hi", nullptr, 0), -2);
  EXPECT_FALSE(box.exists("/tmp/ran"));
}

}  // namespace
}  // namespace fsu::platform
