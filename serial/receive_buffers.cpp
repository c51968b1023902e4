#include "serial/receive_buffers.h"

#include <cstring>

#include "support/sdk_log.h"

namespace fsu::serial {

MCOM_RECV_INFO LIST_MCOM_RECV_INFO[kSerialResources];
std::mutex M_COM_READ_LOCK[kSerialResources];
BauPar STR_BauPar[kSerialResources];

std::int32_t append_locked(int k, const std::uint8_t* data, std::int32_t n) {
  MCOM_RECV_INFO& rec = LIST_MCOM_RECV_INFO[k];
  const std::int32_t len = rec.nLen.load(std::memory_order_relaxed);
  std::int32_t take = kRecvCapacity - len;
  if (n < take) take = n;
  if (take <= 0) return 0;
  std::memcpy(rec.aucData + len, data, static_cast<std::size_t>(take));
  rec.nLen.store(len + take, std::memory_order_relaxed);
  return take;
}

std::int32_t SDK_Read_COM(int k, std::uint8_t* dest, std::int32_t max) {
  if (k < 0 || k >= kSerialResources || dest == nullptr || max <= 0) return 0;
  MCOM_RECV_INFO& rec = LIST_MCOM_RECV_INFO[k];
  if (rec.nLen.load(std::memory_order_relaxed) == 0) return 0;
  std::lock_guard<std::mutex> lock(M_COM_READ_LOCK[k]);
  const std::int32_t len = rec.nLen.load(std::memory_order_relaxed);
  const std::int32_t n = len < max ? len : max;
  std::memcpy(dest, rec.aucData, static_cast<std::size_t>(n));
  std::memmove(rec.aucData, rec.aucData + n, static_cast<std::size_t>(len - n));
  rec.nLen.store(len - n, std::memory_order_relaxed);
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "SDK_Read_COM com %d recv info len=%d/%d/%d", k, n, max, len - n);
  return n;
}

}  // namespace fsu::serial
