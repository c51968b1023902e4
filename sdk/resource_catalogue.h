// The catalogue of resource names and ids, the board exist flags that the board links set,
// and the resource counts derived from them. Depends on nothing but the log, so any layer
// (the board links included) may include it.
#pragma once

#include <array>
#include <atomic>

namespace fsu::sdk {

constexpr int kResourceRows = 114;
constexpr int kNoResource = 523;  // the id of no resource: every failed lookup yields it

struct ResourceRow {
  int id;
  char name[20];
};

// The 114 rows in order: Uart 1-16 (ids 1-16), AI 1-32 (101-132), DI 1-32 (201-232),
// DO 1-8 (301-308), Bat 1-4 (401-404), the 22 LEDs (501-522).
extern const std::array<ResourceRow, kResourceRows> RESOURCES_LIST;

// Id of a resource name (exact, case-sensitive); kNoResource for null or unknown names.
int READ_resourceName(const char* name);

// Board exist flags, in order: main-board serial ports, extension-board serial ports, main
// environment board, extension environment board. 1 means present.
extern std::atomic<int> BSP_BOARD_HARDWARE_RESOURCES[4];
void BOARD_HARDWARE_RESOURCES_INIT();
void PAR_SET_M_COM_EXIST_STATUS(int value);
void PAR_SET_EXT_COM_EXIST_STATUS(int value);
void PAR_SET_M_ENV_EXIST_STATUS(int value);
void PAR_SET_EXT_ENV_EXIST_STATUS(int value);

// Resource counts as last derived from the exist flags.
struct STR_SYSTEM_RESOURCES_NUM_T {
  std::atomic<int> com;
  std::atomic<int> unused;  // always 0
  std::atomic<int> ai;
  std::atomic<int> di;
  std::atomic<int> do_;
  std::atomic<int> ao;  // always 0
};
extern STR_SYSTEM_RESOURCES_NUM_T STR_SYSTEM_RESOURCES_NUM;

// Recomputes the counts from the exist flags, prints and logs "COM=..;AI=..;DI=..,AO=..,DO=..".
void BSP_Resource_CHECK();
int sdk_read_com_num();
int sdk_read_ai_num();
int sdk_read_di_num();
int sdk_read_do_num();

}  // namespace fsu::sdk
