// The resource catalogue: every name with its id, exact matching only, the counts the exist
// flags give, and the bounded resource list.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <tuple>

#include "fsusdk.h"
#include "sdk/resource_catalogue.h"
#include "tests/common/test_sandbox.h"

namespace fsu::sdk {
namespace {

TEST(ResourceCatalogue, EveryNameHasItsIdAndOnlyExactNamesAreKnown) {
  for (const auto& [prefix, base, count] : {std::tuple{"Local/Uart/", 0, 16}, {"Local/AI/", 100, 32},
                                            {"Local/DI/", 200, 32}, {"Local/DO/", 300, 8},
                                            {"Local/Bat/", 400, 4}, {"Local/Led/", 508, 14}}) {
    for (int n = 1; n <= count; ++n) EXPECT_EQ(READ_resourceName((prefix + std::to_string(n)).c_str()), base + n);
  }
  int id = 501;
  for (const char* led : {"run", "power", "alarm", "net", "update", "extend1", "extend2", "extend3"})
    EXPECT_EQ(READ_resourceName((std::string("Local/Led/") + led).c_str()), id++) << led;
  EXPECT_EQ(RESOURCES_LIST.size(), 114u);
  for (const char* name : {"Local/Uart/17", "Local/Uart/0", "Local/Uart/01", "local/uart/1", "Local/Led/15",
                           "Local/Led/Run", " Local/Uart/1", "Local/Uart/1 ", "Local/AI/", "", "Local/Bat/5"}) {
    EXPECT_EQ(READ_resourceName(name), kNoResource) << name;
  }
  EXPECT_EQ(READ_resourceName(nullptr), kNoResource);
}

TEST(ResourceCatalogue, CountsListAliasAndStateFollowTheExistFlags) {
  fsu::test::TestSandbox box;
  char buf[1024];
  // Flags in order: main-board serial ports, extension-board serial ports, main and extension
  // environment board; only the value 1 means present.
  for (const auto& [flags, com, ai, di, dos] : {std::tuple{std::array{0, 0, 0, 0}, 4, 0, 0, 0},
                                                {std::array{1, 2, 0, 1}, 8, 8, 0, 0},
                                                {std::array{1, 1, 1, 1}, 12, 16, 16, 4}}) {
    PAR_SET_M_COM_EXIST_STATUS(flags[0]), PAR_SET_EXT_COM_EXIST_STATUS(flags[1]);
    PAR_SET_M_ENV_EXIST_STATUS(flags[2]), PAR_SET_EXT_ENV_EXIST_STATUS(flags[3]);
    ASSERT_EQ(ReadFSUResource(buf, sizeof buf), 0);
    EXPECT_EQ(std::tuple(sdk_read_com_num(), sdk_read_ai_num(), sdk_read_di_num(), sdk_read_do_num()),
              std::tuple(com, ai, di, dos));
    std::string list;
    for (const auto& [kind, count] : {std::pair{"Uart", com}, {"AI", ai}, {"DI", di}, {"DO", dos}, {"Led", 14}}) {
      for (int n = 1; n <= count; ++n) list += std::string(",\"Local/") + kind + "/" + std::to_string(n) + "\"";
    }
    EXPECT_EQ(buf, "[" + list.substr(1) + "]");
  }
  EXPECT_EQ(std::strlen(buf) + 1, 868u);

  char small[100];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(ReadFSUResource(small, 64), -1);  // cut, terminated, never past the size
  EXPECT_EQ(std::strlen(small) + (small[64] == 'x'), 64u);
  EXPECT_EQ(ReadFSUResource(nullptr, 1024) + ReadFSUResource(buf, 0), -2);

  // The alias is the name itself, cut to the size; every state is 0.
  EXPECT_EQ(std::to_string(ReadResourceAlias("Local/DO/2", buf, sizeof buf)) + buf, "0Local/DO/2");
  EXPECT_EQ(std::to_string(ReadResourceAlias("Local/Led/extend1", buf, 5)) + buf, "-1Loca");
  int state = 7;
  EXPECT_EQ(GetResourceState("anything", &state), 0);
  EXPECT_EQ(state + GetResourceState(nullptr, nullptr), -1);
}

}  // namespace
}  // namespace fsu::sdk
