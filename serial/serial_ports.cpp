#include "serial/serial_ports.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <pthread.h>

#include "gps/gps_record.h"
#include "gps/nmea_reader.h"
#include "platform/clock.h"
#include "serial/environment_link.h"
#include "serial/extension_link.h"
#include "serial/receive_buffers.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"

namespace fsu::serial {
namespace {

constexpr long kReaderPassMs = 100;

std::atomic<int> m_com_init_done{0};
std::atomic<int> threads_started{0};
pthread_t thread_COM[16];
std::int32_t COM_INDEX_VALUE[16];

std::int32_t read_slot(std::uint32_t slot, std::uint8_t* buf, std::uint32_t size) {
  std::uint32_t n = 0;
  if (BSP_ComRead(slot, buf, size, &n) != 0) return 0;
  return static_cast<std::int32_t>(n);
}

}  // namespace

void M_COM_INIT() {
  if (m_com_init_done.exchange(1) == 1) return;
  for (std::uint32_t slot = 0; slot < static_cast<std::uint32_t>(kComSlots); ++slot) {
    BSP_ComCreate(slot);
    M_BAU_SET_COM(slot, 115200, 8, 1, 0);
  }
}

std::uint8_t M_BAU_SET_COM(std::uint32_t slot, int baud, int data_bits, int stop_bits, int parity) {
  if (slot > 7) return 255;
  BSP_COM_PARAMS p{};
  p.nSize = sizeof p;
  p.nBaudrate = static_cast<std::uint32_t>(baud);
  p.nDataBits = static_cast<std::uint32_t>(data_bits);
  p.nStopBits = stop_bits == 1 ? 0 : stop_bits == 2 ? 2 : 1;
  p.nParity = parity == 0 ? 0 : parity == 1 ? 1 : 2;
  const std::uint32_t rc = BSP_ComSetParams(slot, &p);
  if (rc != 0) print_error(__func__, __LINE__, rc);
  return static_cast<std::uint8_t>(rc & 0xFF);
}

int COM_BAU_INIT(int k) {
  if (k < 0 || k > 15) return -1;
  const BauPar& p = STR_BauPar[k];
  const int baud = p.iBaudRate.load(), data = p.iDataSize.load(), stop = p.iStopBit.load(),
            parity = p.iParity.load();
  if (k <= 3) {
    M_BAU_SET_COM(static_cast<std::uint32_t>(k), baud, data, stop, parity);
  } else if (k <= 11) {
    EXT_TTYSCOM_SET_BAU(k, baud, data, stop, parity);
  } else if (k == 13) {
    M_BAU_SET_COM(6, baud, data, stop, parity);
  }
  return 0;
}

void BSP_BAU_INIT() {
  for (int k = 0; k < kSerialResources; ++k) {
    STR_BauPar[k].iBaudRate.store(9600);
    STR_BauPar[k].iDataSize.store(8);
    STR_BauPar[k].iStopBit.store(1);
    STR_BauPar[k].iParity.store(0);
    COM_BAU_INIT(k);
  }
}

void m_com_read_pass(int k) {
  std::uint8_t buf[kRecvCapacity];
  const std::int32_t n = read_slot(static_cast<std::uint32_t>(k), buf, sizeof buf);
  if (n <= 0) return;
  std::lock_guard<std::mutex> lock(M_COM_READ_LOCK[k]);
  append_locked(k, buf, n);
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "M_COM_READ_THREAD com %d recv info len=%d", k,
                         LIST_MCOM_RECV_INFO[k].nLen.load(std::memory_order_relaxed));
}

void env_com_read_pass() {
  std::uint8_t buf[kRecvCapacity];
  const std::int32_t n = read_slot(6, buf, sizeof buf);
  if (n <= 0) return;
  {
    // The batch is handed over and cleared under the record's lock, so that an application
    // reading "Local/Uart/16" never races the parser for the same bytes.
    std::lock_guard<std::mutex> lock(M_COM_READ_LOCK[15]);
    MCOM_RECV_INFO& record = LIST_MCOM_RECV_INFO[15];
    append_locked(15, buf, n);
    if (gps::BSP_GPS_READ(reinterpret_cast<const char*>(record.aucData), record.nLen.load()) != 0) return;
    std::memset(record.aucData, 0, sizeof record.aucData);
    record.nLen.store(0);
  }
  const gps::GpsFix fix = gps::gps_fix();
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "GPS:J:%f;W:%f", fix.longitude, fix.latitude);
}

void* M_COM_READ_THREAD(void* arg) {
  const int k = *static_cast<std::int32_t*>(arg);
  if (k > 3) return nullptr;
  print_stump(k, __func__, __LINE__);
  {
    std::lock_guard<std::mutex> lock(M_COM_READ_LOCK[k]);
    LIST_MCOM_RECV_INFO[k].nLen.store(0);
  }
  for (;;) {
    platform::sleep_ms(kReaderPassMs);
    m_com_read_pass(k);
  }
}

void* ENV_COM_READ_THREAD(void* arg) {
  print_stump(*static_cast<std::int32_t*>(arg), __func__, __LINE__);
  M_BAU_SET_COM(6, 9600, 8, 1, 0);
  clear_env_info();
  for (;;) {
    platform::sleep_ms(kReaderPassMs);
    env_com_read_pass();
  }
}

void FSU_COM_READ_THREAD_START() {
  if (threads_started.exchange(1) == 1) return;
  struct Start {
    int entry;
    void* (*routine)(void*);
    std::int32_t value;
  };
  const Start starts[] = {{0, M_COM_READ_THREAD, 0}, {1, M_COM_READ_THREAD, 1}, {2, M_COM_READ_THREAD, 2},
                          {3, M_COM_READ_THREAD, 3}, {4, EXT_COM_READ_THREAD, 4}, {5, EXT_COM_READ_THREAD, 5},
                          {6, ENV_COM_READ_THREAD, 6}, {7, ENV_COM_SEND_THREAD, 6}};
  for (const Start& s : starts) {
    COM_INDEX_VALUE[s.entry] = s.value;
    pthread_create(&thread_COM[s.entry], nullptr, s.routine, &COM_INDEX_VALUE[s.entry]);
  }
}

int ReadUart_FromResourceName(int id, std::uint8_t* buf, int max, int /*wait_ms*/) {
  if (id < 1 || id > kSerialResources) return -1;
  return SDK_Read_COM(id - 1, buf, max);
}

int WriteUart_FromResourceName(int id, const std::uint8_t* buf, int len) {
  std::uint32_t written = 0;
  if (id >= 1 && id <= 4) {
    BSP_ComWrite(static_cast<std::uint32_t>(id - 1), buf, static_cast<std::uint32_t>(len), &written);
    return 0;
  }
  if (id >= 5 && id <= 12) {
    support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "SDK_Read_COM com %d send len=%d", id - 1, len);
    EXT_TTYSCOM_SEND_INFO(id - 1, buf, len);
    return 0;
  }
  if (id == 14) {
    BSP_ComWrite(6, buf, static_cast<std::uint32_t>(len), &written);
    return 0;
  }
  return -1;
}

int SetUartParam_FromResourceName(int id, int baud, int data_bits, int stop_bits, int parity) {
  if (id < 1 || id > kSerialResources) return -1;
  BauPar& p = STR_BauPar[id - 1];
  p.iBaudRate.store(baud);
  p.iDataSize.store(data_bits);
  p.iStopBit.store(stop_bits);
  p.iParity.store(parity);
  return COM_BAU_INIT(id - 1);
}

int GetUartParam_FromResourceName(int id, int* baud, int* data_bits, int* stop_bits, int* parity) {
  if (id < 1 || id > kSerialResources || !baud || !data_bits || !stop_bits || !parity) return -1;
  const BauPar& p = STR_BauPar[id - 1];
  *baud = p.iBaudRate.load();
  *data_bits = p.iDataSize.load();
  *stop_bits = p.iStopBit.load();
  *parity = p.iParity.load();
  return 0;
}

}  // namespace fsu::serial
