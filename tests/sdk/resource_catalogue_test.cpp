#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "fsusdk.h"
#include "sdk/resource_catalogue.h"
#include "tests/common/test_sandbox.h"

namespace fsu::sdk {
namespace {

void set_flags(int m_com, int ext_com, int m_env, int ext_env) {
  PAR_SET_M_COM_EXIST_STATUS(m_com);
  PAR_SET_EXT_COM_EXIST_STATUS(ext_com);
  PAR_SET_M_ENV_EXIST_STATUS(m_env);
  PAR_SET_EXT_ENV_EXIST_STATUS(ext_env);
}

TEST(ResourceCatalogue, EveryNameHasItsId) {
  std::set<int> ids;
  const struct {
    const char* prefix;
    int base, count;
  } kinds[] = {{"Local/Uart/", 0, 16}, {"Local/AI/", 100, 32}, {"Local/DI/", 200, 32},
               {"Local/DO/", 300, 8}, {"Local/Bat/", 400, 4}};
  for (const auto& k : kinds) {
    for (int n = 1; n <= k.count; ++n) {
      const std::string name = k.prefix + std::to_string(n);
      EXPECT_EQ(READ_resourceName(name.c_str()), k.base + n) << name;
      ids.insert(k.base + n);
    }
  }
  const char* leds[] = {"run", "power", "alarm", "net", "update", "extend1", "extend2", "extend3"};
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(READ_resourceName((std::string("Local/Led/") + leds[i]).c_str()), 501 + i);
    ids.insert(501 + i);
  }
  for (int n = 1; n <= 14; ++n) {
    EXPECT_EQ(READ_resourceName(("Local/Led/" + std::to_string(n)).c_str()), 508 + n);
    ids.insert(508 + n);
  }
  EXPECT_EQ(ids.size(), 114u);
  EXPECT_EQ(RESOURCES_LIST.front().id, 1);
  EXPECT_EQ(RESOURCES_LIST.back().id, 522);
}

TEST(ResourceCatalogue, UnknownNamesYieldNoResource) {
  for (const char* name : {"Local/Uart/17", "Local/Uart/0", "Local/Uart/01", "local/uart/1", "Local/UART/1",
                           "Local/Led/15", "Local/Led/Run", " Local/Uart/1", "Local/Uart/1 ", "Local/AI/",
                           "", "Local/Bat/5"}) {
    EXPECT_EQ(READ_resourceName(name), kNoResource) << name;
  }
  EXPECT_EQ(READ_resourceName(nullptr), kNoResource);
}

TEST(ResourceCatalogue, CountsFollowTheExistFlags) {
  fsu::test::TestSandbox box;
  BOARD_HARDWARE_RESOURCES_INIT();
  BSP_Resource_CHECK();
  EXPECT_EQ(sdk_read_com_num(), 4);
  EXPECT_EQ(sdk_read_ai_num() + sdk_read_di_num() + sdk_read_do_num(), 0);

  set_flags(1, 1, 1, 1);
  BSP_Resource_CHECK();
  EXPECT_EQ(sdk_read_com_num(), 12);
  EXPECT_EQ(sdk_read_ai_num(), 16);
  EXPECT_EQ(sdk_read_di_num(), 16);
  EXPECT_EQ(sdk_read_do_num(), 4);

  set_flags(1, 2, 0, 1);  // only the value 1 means present
  BSP_Resource_CHECK();
  EXPECT_EQ(sdk_read_com_num(), 8);
  EXPECT_EQ(sdk_read_ai_num(), 8);
  EXPECT_EQ(sdk_read_di_num(), 0);
  EXPECT_EQ(sdk_read_do_num(), 0);
}

std::string expected_list(int com, int ai, int di, int dos) {
  std::string s;
  for (int n = 1; n <= com; ++n) s += (n == 1 ? "[\"Local/Uart/" : ",\"Local/Uart/") + std::to_string(n) + "\"";
  for (int n = 1; n <= ai; ++n) s += ",\"Local/AI/" + std::to_string(n) + "\"";
  for (int n = 1; n <= di; ++n) s += ",\"Local/DI/" + std::to_string(n) + "\"";
  for (int n = 1; n <= dos; ++n) s += ",\"Local/DO/" + std::to_string(n) + "\"";
  for (int n = 1; n <= 14; ++n) s += ",\"Local/Led/" + std::to_string(n) + "\"";
  return s + "]";
}

TEST(ResourceCatalogue, ResourceListForTheLeastAndTheFullestBoard) {
  fsu::test::TestSandbox box;
  char buf[1024];
  BOARD_HARDWARE_RESOURCES_INIT();
  ASSERT_EQ(ReadFSUResource(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), expected_list(4, 0, 0, 0));

  set_flags(1, 1, 1, 1);
  ASSERT_EQ(ReadFSUResource(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), expected_list(12, 16, 16, 4));
  EXPECT_EQ(std::strlen(buf) + 1, 868u);

  char small[100];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(ReadFSUResource(small, 64), -1);  // cut, terminated, never past the size
  EXPECT_EQ(std::strlen(small), 63u);
  EXPECT_EQ(small[64], 'x');
  EXPECT_EQ(ReadFSUResource(nullptr, 1024), -1);
  EXPECT_EQ(ReadFSUResource(buf, 0), -1);
}

TEST(ResourceCatalogue, AliasAndState) {
  fsu::test::TestSandbox box;
  char alias[32];
  EXPECT_EQ(ReadResourceAlias("Local/DO/2", alias, sizeof alias), 0);
  EXPECT_STREQ(alias, "Local/DO/2");
  EXPECT_EQ(ReadResourceAlias("Local/Led/extend1", alias, 5), -1);
  EXPECT_STREQ(alias, "Loca");
  int state = 7;
  EXPECT_EQ(GetResourceState("anything", &state), 0);
  EXPECT_EQ(state, 0);
  EXPECT_EQ(GetResourceState(nullptr, nullptr), -1);
}

}  // namespace
}  // namespace fsu::sdk
