#include "sdk/resource_catalogue.h"

#include <cstdio>
#include <cstring>

#include "fsusdk.h"
#include "platform/console_output.h"
#include "support/bounded_text.h"
#include "support/sdk_log.h"

namespace fsu::sdk {
namespace {

using support::SDK_LOG_SYS;
using support::SDK_LOG_WRITE;

constexpr const char* kLedNames[] = {
    "run", "power", "alarm", "net", "update", "extend1", "extend2", "extend3",
    "1",   "2",     "3",     "4",   "5",      "6",       "7",       "8",
    "9",   "10",    "11",    "12",  "13",     "14"};

constexpr ResourceRow make_row(int id, const char* prefix, const char* suffix, int number) {
  ResourceRow row{id, {}};
  int pos = 0;
  for (const char* p = prefix; *p; ++p) row.name[pos++] = *p;
  for (const char* p = suffix; *p; ++p) row.name[pos++] = *p;
  if (number > 0) {
    if (number >= 10) row.name[pos++] = static_cast<char>('0' + number / 10);
    row.name[pos++] = static_cast<char>('0' + number % 10);
  }
  return row;
}

constexpr std::array<ResourceRow, kResourceRows> make_list() {
  std::array<ResourceRow, kResourceRows> rows{};
  int r = 0;
  struct Kind {
    const char* prefix;
    int base;
    int count;
  };
  constexpr Kind kinds[] = {{"Local/Uart/", 0, 16}, {"Local/AI/", 100, 32}, {"Local/DI/", 200, 32},
                            {"Local/DO/", 300, 8},  {"Local/Bat/", 400, 4}};
  for (const Kind& k : kinds) {
    for (int n = 1; n <= k.count; ++n) rows[r++] = make_row(k.base + n, k.prefix, "", n);
  }
  for (int i = 0; i < 22; ++i) rows[r++] = make_row(501 + i, "Local/Led/", kLedNames[i], 0);
  return rows;
}

}  // namespace

constinit const std::array<ResourceRow, kResourceRows> RESOURCES_LIST = make_list();

std::atomic<int> BSP_BOARD_HARDWARE_RESOURCES[4];
STR_SYSTEM_RESOURCES_NUM_T STR_SYSTEM_RESOURCES_NUM;

int READ_resourceName(const char* name) {
  if (name == nullptr) return kNoResource;
  for (const ResourceRow& row : RESOURCES_LIST) {
    if (std::strcmp(row.name, name) == 0) return row.id;
  }
  return kNoResource;
}

void BOARD_HARDWARE_RESOURCES_INIT() {
  for (auto& flag : BSP_BOARD_HARDWARE_RESOURCES) flag.store(0, std::memory_order_relaxed);
}

void PAR_SET_M_COM_EXIST_STATUS(int value) { BSP_BOARD_HARDWARE_RESOURCES[0].store(value); }
void PAR_SET_EXT_COM_EXIST_STATUS(int value) { BSP_BOARD_HARDWARE_RESOURCES[1].store(value); }
void PAR_SET_M_ENV_EXIST_STATUS(int value) { BSP_BOARD_HARDWARE_RESOURCES[2].store(value); }
void PAR_SET_EXT_ENV_EXIST_STATUS(int value) { BSP_BOARD_HARDWARE_RESOURCES[3].store(value); }

void BSP_Resource_CHECK() {
  auto present = [](int i) { return BSP_BOARD_HARDWARE_RESOURCES[i].load() == 1; };
  const int com = 4 + (present(0) ? 4 : 0) + (present(1) ? 4 : 0);
  int ai = present(2) ? 8 : 0;
  const int di = present(2) ? 16 : 0;
  const int dos = present(2) ? 4 : 0;
  if (present(3)) ai += 8;
  auto& n = STR_SYSTEM_RESOURCES_NUM;
  n.com.store(com);
  n.unused.store(0);
  n.ai.store(ai);
  n.di.store(di);
  n.do_.store(dos);
  n.ao.store(0);
  SDK_LOG_WRITE(SDK_LOG_SYS, "COM=%d;AI=%d;DI=%d,AO=%d,DO=%d", com, ai, di, 0, dos);
  fsu::platform::sdk_printf("COM=%d;AI=%d;DI=%d,AO=%d,DO=%d", com, ai, di, 0, dos);
}

int sdk_read_com_num() { return STR_SYSTEM_RESOURCES_NUM.com.load(); }
int sdk_read_ai_num() { return STR_SYSTEM_RESOURCES_NUM.ai.load(); }
int sdk_read_di_num() { return STR_SYSTEM_RESOURCES_NUM.di.load(); }
int sdk_read_do_num() { return STR_SYSTEM_RESOURCES_NUM.do_.load(); }

}  // namespace fsu::sdk

using namespace fsu::sdk;
using fsu::support::BoundedText;
using fsu::support::SDK_LOG_SYS;
using fsu::support::LogText;
using fsu::support::SDK_LOG_WRITE;

extern "C" int ReadFSUResource(char* buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  std::memset(buf, 0, static_cast<std::size_t>(size));
  BSP_Resource_CHECK();
  BoundedText text(buf, static_cast<std::size_t>(size));
  const int com = sdk_read_com_num();
  for (int n = 1; n <= com; ++n) text.append(n == 1 ? "[\"Local/Uart/%d\"" : ",\"Local/Uart/%d\"", n);
  struct Group {
    const char* format;
    int count;
  };
  const Group groups[] = {{",\"Local/AI/%d\"", sdk_read_ai_num()},
                          {",\"Local/DI/%d\"", sdk_read_di_num()},
                          {",\"Local/DO/%d\"", sdk_read_do_num()},
                          {",\"Local/Led/%d\"", 14}};
  for (const Group& g : groups) {
    for (int n = 1; n <= g.count; ++n) text.append(g.format, n);
  }
  text.append("]");
  SDK_LOG_WRITE(SDK_LOG_SYS, "ReadFSUResource(%s)", buf);
  return text.fits() ? 0 : -1;
}

extern "C" int ReadResourceAlias(const char* name, char* alias, int size) {
  SDK_LOG_WRITE(SDK_LOG_SYS, "ReadResourceAlias(%s)", LogText(name).c_str());
  if (name == nullptr || alias == nullptr || size <= 0) return -1;
  BoundedText text(alias, static_cast<std::size_t>(size));
  text.append("%s", name);
  return text.fits() ? 0 : -1;
}

extern "C" int GetResourceState(const char* /*name*/, int* state) {
  if (state == nullptr) return -1;
  *state = 0;
  return 0;
}
