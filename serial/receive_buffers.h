// The receive buffers of the sixteen serial resources ("Local/Uart/1" to "Local/Uart/16" use
// index 0 to 15), filled by the reader threads and drained by the applications, and the line
// parameters stored for each resource.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace fsu::serial {

constexpr int kSerialResources = 16;
constexpr std::int32_t kRecvCapacity = 4096;

struct MCOM_RECV_INFO {
  std::uint8_t aucData[kRecvCapacity];  // oldest byte first
  std::atomic<std::int32_t> nLen;       // valid bytes at the front
};
extern MCOM_RECV_INFO LIST_MCOM_RECV_INFO[kSerialResources];
// Entry k guards record k.
extern std::mutex M_COM_READ_LOCK[kSerialResources];

// Line parameters of each resource, exactly as last passed to SetUartParam.
struct BauPar {
  std::atomic<std::int32_t> iBaudRate;
  std::atomic<std::int32_t> iDataSize;
  std::atomic<std::int32_t> iStopBit;
  std::atomic<std::int32_t> iParity;
};
extern BauPar STR_BauPar[kSerialResources];

// Appends what fits of n bytes to record k; the caller holds M_COM_READ_LOCK[k]. Returns the
// number of bytes kept (a full buffer keeps its oldest bytes).
std::int32_t append_locked(int k, const std::uint8_t* data, std::int32_t n);

// Moves up to max bytes from the front of record k to dest; the bytes taken.
std::int32_t SDK_Read_COM(int k, std::uint8_t* dest, std::int32_t max);

}  // namespace fsu::serial
