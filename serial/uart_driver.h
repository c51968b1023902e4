// The main board's seven UARTs, addressed by slot 0 to 6 (/dev/ttymxc1 to /dev/ttymxc7).
// Ports are configured so that a read returns at once with whatever has arrived.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <termios.h>

namespace fsu::serial {

constexpr std::uint32_t BSP_COM_ERR_PARAM = 0x01020001;
constexpr std::uint32_t BSP_COM_ERR_IO = 0x01020002;
constexpr std::uint32_t BSP_COM_ERR_DEVICE = 0x01020004;

constexpr int kComSlots = 7;
extern const std::int32_t g_nComSlots;

struct BSP_COM_OBJ {
  char szPath[32];             // device path, resolved under the sandbox root when opened
  std::atomic<std::int32_t> nFd;  // -1 while the slot is not open
};
extern BSP_COM_OBJ g_stComObj[kComSlots];

// Entry s serialises writes to slot s (entries 0 to 6 are used).
extern std::mutex COM_WRITE_LOCK[16];

struct BSP_COM_PARAMS {
  std::uint32_t nSize;  // 24
  std::uint32_t nReserved;
  std::uint32_t nBaudrate;
  std::uint32_t nDataBits;  // 5 to 8
  std::uint32_t nStopBits;  // 0 or 1: one stop bit, 2: two
  std::uint32_t nParity;    // 0 none, 1 odd, 2 even
};
static_assert(sizeof(BSP_COM_PARAMS) == 24);

struct BSP_COM_CAPS {
  std::uint32_t nSize;  // 28
  std::uint32_t nReserved;
  std::uint32_t nMinBaudrate;
  std::uint32_t nMaxBaudrate;
  std::uint32_t nOther[3];
};
static_assert(sizeof(BSP_COM_CAPS) == 28);

std::uint32_t BSP_ComGetSlots();
std::uint32_t BSP_ComCreate(std::uint32_t slot);
std::uint32_t BSP_ComDestroy(std::uint32_t slot);
std::uint32_t BSP_ComGetCapbility(std::uint32_t slot, BSP_COM_CAPS* caps);
std::uint32_t BSP_ComSetParams(std::uint32_t slot, const BSP_COM_PARAMS* params);
// Writes all len bytes under the slot's write lock. A port that does not take them within the
// time its line needs for them (and for a full transmit buffer ahead of them) plus a second
// gives BSP_COM_ERR_IO: a far end that never reads cannot hold the lock for ever.
std::uint32_t BSP_ComWrite(std::uint32_t slot, const void* buf, std::uint32_t len, std::uint32_t* written);
std::uint32_t BSP_ComRead(std::uint32_t slot, void* buf, std::uint32_t len, std::uint32_t* nread);
std::uint32_t BSP_ComFlush(std::uint32_t slot);
// Writes to the positioning receiver's slot 6 without the write lock, logging each write.
std::uint32_t GPS_COM_WRITE(const void* buf, std::uint32_t len, std::uint32_t* written);

// The driver's ERROR and ASSERT lines name its module, bsp_m_com; the serial threads' start
// lines name theirs, com_process.
constexpr const char* kDriverModule = "bsp_m_com";
constexpr const char* kThreadModule = "com_process";
// The line a serial thread prints when it starts: "STUMP[%03d]: FILE: %s, FUNCTION: %s, LINE: %d.".
void print_stump(int index, const char* function, int line);
// The driver's error line for `code`, as the failing function at `line` prints it.
void print_error(const char* function, int line, std::uint32_t code);

// The termios record for a set of line parameters, built on top of `t` (raw mode, speed,
// parity, data bits, stop bits, VMIN = VTIME = 0). Prints the refusal message and returns
// BSP_COM_ERR_PARAM for a parameter outside the tables, else 0.
std::uint32_t build_termios(const BSP_COM_PARAMS& params, termios* t);

}  // namespace fsu::serial
