#include "support/config_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/common/test_sandbox.h"

namespace fsu::support {
namespace {

const char* const kDtm =
    "\nconfig dtm 'sys'\n"
    "\toption pcas_sdk '99999'\n"
    "\toption pcas '2'\n"
    "\toption plain 7\n"
    "\toption open 'unterminated\n"
    "config dtm 'net'\n"
    "\toption apn 'cmnet'\n";

class ConfigReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox_.write("/etc/config/dtm", kDtm);
    sandbox_.write("/etc/config/Device", "config device 'info'\n\toption model 'FSU'\n");
    sandbox_.write("/etc/config/network",
                   "config interface 'ppp0'\n\toption device '/dev/ttyUSB2'\n");
    sandbox_.write("/etc/config/system", "config system 'main'\n\toption hostname 'fsu'\n");
    sdkuci_free();
  }

  test::TestSandbox sandbox_;
};

TEST_F(ConfigReaderTest, BothReadersFindOptionsOfTheNamedSectionOnly) {
  const std::string name50(50, 'n');
  const std::pair<std::string, const char*> cases[] = {
      {"uci get dtm.sys.pcas", "2"}, {"uci get dtm.sys.pcas_sdk", "99999"},
      {"uci get dtm.net.apn", "cmnet"}, {"uci get network.ppp0.device", "/dev/ttyUSB2"},
      // Names match whole: the section's in quotes, the option's with a blank each side.
      {"uci get dtm.sy.pcas", ""}, {"uci get dtm.ys.pcas", ""}, {"uci get dtm.sys.cas", ""},
      {"uci get dtm.sys.apn", ""},    // stands in a later section
      {"uci get dtm.sys.plain", ""},  // value without quotes
      {"uci get dtm.sys.open", ""},   // unterminated quote
      {"get dtm.sys.pcas", ""}, {"uci get dtm", ""}, {"uci get dtm.sys", ""},
      {"uci get ..pcas", ""}, {"uci get /etc/config/dtm.sys.pcas", ""},
      {"uci get dtm.sys." + name50, ""}, {"uci get " + name50 + ".a.b", ""}};
  for (auto* read : {&sdkuci_get_ram, &sdkuci_get_flash}) {
    for (const auto& [cmd, value] : cases) EXPECT_STREQ(read(cmd.c_str()), value) << cmd;
  }
  EXPECT_STREQ(sdkuci_get_ram("uci get system.main.hostname"), "");  // not one of the cached six
  EXPECT_STREQ(sdkuci_get_flash("uci get system.main.hostname"), "fsu");
}

TEST_F(ConfigReaderTest, CacheKeepsOldValuesUntilFreedAndStopsAtAnUnreadableFile) {
  EXPECT_STREQ(sdkuci_get_ram("uci get dtm.sys.pcas"), "2");
  sandbox_.write("/etc/config/dtm", "config dtm 'sys'\n\toption pcas '1'\n");
  EXPECT_STREQ(sdkuci_get_ram("uci get dtm.sys.pcas"), "2");
  EXPECT_STREQ(sdkuci_get_flash("uci get dtm.sys.pcas"), "1");
  sdkuci_free();
  EXPECT_STREQ(sdkuci_get_ram("uci get dtm.sys.pcas"), "1");

  std::filesystem::remove(sandbox_.path("/etc/config/dtm"));
  std::filesystem::create_directory(sandbox_.path("/etc/config/dtm"));  // opens, cannot be read
  sdkuci_free();
  EXPECT_STREQ(sdkuci_get_ram("uci get Device.info.model"), "FSU");
  EXPECT_STREQ(sdkuci_get_ram("uci get network.ppp0.device"), "");  // read after dtm
  std::filesystem::remove(sandbox_.path("/etc/config/dtm"));
  sandbox_.write("/etc/config/dtm", std::string(1024 * 1024 + 1, ' ') + kDtm);  // too large
  sdkuci_free();
  EXPECT_STREQ(sdkuci_get_ram("uci get network.ppp0.device"), "");
  EXPECT_STREQ(sdkuci_get_flash("uci get dtm.sys.pcas"), "");
}

TEST_F(ConfigReaderTest, CutNamesAndValuesAndTheConfigBoundary) {
  char config[kUciNameSize], section[kUciNameSize], option[kUciNameSize];
  const std::string option49 = "c." + std::string(47, 'n');
  EXPECT_TRUE(fill_string(("uci get a.b." + option49).c_str(), config, section, option));
  EXPECT_EQ(std::string(option), option49);  // the rest of the text, at most 49 characters
  EXPECT_TRUE(fill_string("  uci get a.b.c", config, section, option));  // names from the ninth character on
  EXPECT_EQ(std::string(config) + "|" + section + "|" + option, "t a|b|c");

  // NUL bytes before the section; a value longer than the result is cut.
  std::string text = std::string("x\0y", 3) + "config s 'k'\n\toption v '" + std::string(150, 'v');
  text += "'";
  char value[kUciValueSize];
  EXPECT_TRUE(uci_get_para(text.data(), text.size(), "k", "v", value));
  EXPECT_EQ(std::string(value), std::string(99, 'v'));
  EXPECT_FALSE(uci_get_para(text.data(), text.size() - 1, "k", "v", value));  // quote cut off
  text = "config s 'k'\n\toption v ''\n";  // cut before the value: nothing is read past the length
  EXPECT_FALSE(uci_get_para(text.data(), text.find("''"), "k", "v", value));

  // The word "config" anywhere between the section and the option ends the section for the
  // reader, also inside a value: the device's files never hold it there.
  text = "config dtm 'sys'\n\toption note 'see config file'\n\toption pcas '2'\n";
  EXPECT_FALSE(uci_get_para(text.data(), text.size(), "sys", "pcas", value));
  EXPECT_TRUE(uci_get_para(text.data(), text.size(), "sys", "note", value));
  EXPECT_STREQ(value, "see config file");
}

TEST_F(ConfigReaderTest, CacheIsSafeAcrossThreadsAndDirectoriesAreListed) {
  const auto reader = [] {
    for (int i = 0; i < 200; ++i) {
      EXPECT_STREQ(sdkuci_get_ram("uci get dtm.sys.pcas"), "2");
      if (i % 10 == 0) sdkuci_free();
    }
  };
  std::jthread a(reader), b(reader), c(reader), d(reader);
  // Directory entries are listed meanwhile.
  const std::string names = sdkls("/etc/config") ? sdkls("/etc/config") : "";
  for (const char* name : {"..\n", "dtm\n", "system\n"}) EXPECT_NE(names.find(name), names.npos);
  testing::internal::CaptureStdout();
  EXPECT_EQ(sdkls("/etc/none"), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "can't open /etc/none\n");
}

}  // namespace
}  // namespace fsu::support
