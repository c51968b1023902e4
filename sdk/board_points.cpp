#include "sdk/board_points.h"

#include <cstdio>
#include <mutex>

#include "board/gpio.h"
#include "fsusdk.h"
#include "platform/clock.h"
#include "platform/console_output.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/extension_link.h"
#include "support/sdk_log.h"

namespace fsu::sdk {
namespace {

using support::SDK_LOG_DEBUG;
using support::SDK_LOG_SYS;
using support::SDK_LOG_WRITE;

std::once_flag led_init_once;

}  // namespace

const LedGpio LED_GPIO_LIST[22] = {
    {501, 1},       {502, kNoGpio}, {503, 18},      {504, 0},       {505, kNoGpio}, {506, kNoGpio},
    {507, kNoGpio}, {508, kNoGpio}, {509, 4},       {510, kNoGpio}, {511, kNoGpio}, {512, kNoGpio},
    {513, kNoGpio}, {514, kNoGpio}, {515, kNoGpio}, {516, kNoGpio}, {517, kNoGpio}, {518, kNoGpio},
    {519, kNoGpio}, {520, kNoGpio}, {521, kNoGpio}, {522, kNoGpio}};

std::atomic<int> SDK_LED_CONTROL_SELF_FG{0};

int Read_GpioPin_FromRESOURCES(int id) {
  for (const LedGpio& row : LED_GPIO_LIST) {
    if (row.id == id) return row.gpio;
  }
  return kNoGpio;
}

void LED_GPIO_INIT() {
  for (const LedGpio& row : LED_GPIO_LIST) {
    if (row.gpio == kNoGpio) continue;
    fsu::platform::sdk_printf("LED_GPIO_INIT=%d\r\n", row.gpio);
    board::bsp_gpio_export(row.gpio);
    board::bsp_gpio_direction(row.gpio, 1);
    board::bsp_gpio_write(row.gpio, 1);  // dark: the LED lines are active low
  }
}

int SET_LED_STATUS(int id, int value) {
  std::call_once(led_init_once, LED_GPIO_INIT);
  const int gpio = Read_GpioPin_FromRESOURCES(id);
  if (gpio == kNoGpio) return kNoGpio;
  return board::bsp_gpio_write(gpio, value == 0 ? 1 : 0);
}

int SetLEDValue_FromResourceName(int id, int value) {
  SET_LED_STATUS(id, value);
  return -1;
}

int Read_AI_VALUE_FromResourceName(int id, int type, float* value) {
  if (id < 101 || id > 116 || value == nullptr) {
    SDK_LOG_WRITE(SDK_LOG_DEBUG, "Local/AI/ Resources error");
    return -1;
  }
  const int k = id - 100;
  if (k >= 9 && BSP_BOARD_HARDWARE_RESOURCES[1].load() == 1) {
    const auto& ext = serial::STR_BSP_EXT_ENV_INFO;
    *value = (type == 0 ? ext.fAiVolt : ext.fAiCurr)[k - 9].load(std::memory_order_relaxed);
  } else {
    const auto& env = serial::STR_BSP_ENV_INFO;
    *value = (type == 0 ? env.fAiVolt : env.fAiCurr)[k - 1].load(std::memory_order_relaxed);
  }
  return 0;
}

int Read_DI_VALUE_FromResourceName(int id, int* value) {
  if (value == nullptr) return -1;
  if (id >= 201 && id <= 216) {
    *value = serial::STR_BSP_ENV_INFO.ucDi[id - 201].load(std::memory_order_relaxed);
  } else if (id >= 217 && id <= 224) {
    *value = serial::STR_BSP_EXT_ENV_INFO.ucDi[id - 217].load(std::memory_order_relaxed);
  } else {
    return -1;
  }
  return 0;
}

int SetDOValue_FromResourceName(int id, int value) {
  if (id >= 301 && id <= 304) {
    auto& env = serial::STR_BSP_ENV_INFO;
    // The sender reads the flag with acquire: the value must be in place before it.
    env.ucDoSetValue[id - 301].store(static_cast<std::uint8_t>(value), std::memory_order_relaxed);
    env.ucDoSetFlag[id - 301].store(1, std::memory_order_release);
    if (id == 301) fsu::platform::sdk_printf("LOCAL_DO_1 set %d", value);
    return 0;
  }
  if (id >= 305 && id <= 308) {
    serial::EXT_TOP_DO_SET(id - 304, value);
    return 0;
  }
  return -1;
}

int Read_Bat_VALUE_FromResourceName(int, float*) { return -1; }

int SET_AO_12V_ONOFF(int, int) { return 0; }

int SET_AO_12V_RESTART(int channel, int seconds) {
  SDK_LOG_WRITE(SDK_LOG_SYS, "SET AO 12V RESTART CH=%d", channel);
  SET_AO_12V_ONOFF(channel, 0);
  platform::sleep_s(seconds);
  return SET_AO_12V_ONOFF(channel, 1);
}

int OFFSET_VALUE_INIT() { return 1; }
int AI_Calibration_Check() { return 1; }
void BSP_AIDI_INIT() {}
void BSP_BEEP_START() {}

}  // namespace fsu::sdk

using namespace fsu::sdk;
using fsu::support::SDK_LOG_DEBUG;
using fsu::support::LogText;
using fsu::support::SDK_LOG_WRITE;

extern "C" int GetAIValue(const char* name, int type, float* value) {
  const int result = Read_AI_VALUE_FromResourceName(READ_resourceName(name), type, value);
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "GetAIValue resourceName:%s type=%d,Value=%f;result=%d", LogText(name).c_str(), type,
                value ? static_cast<double>(*value) : 0.0, result);
  return result;
}

extern "C" int GetAIValue_String(const char* name, int type, char* text) {
  float value = 0;
  const int result = Read_AI_VALUE_FromResourceName(READ_resourceName(name), type, &value);
  if (text == nullptr) return -1;
  // A reading is at most a few volts or milliamperes: "%f" stays far below the 32 bytes asked of callers.
  std::snprintf(text, 32, "%f", static_cast<double>(value));
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "GetAIValue resourceName:%s type=%d,Value=%s;result=%d", LogText(name).c_str(), type,
                text, result);
  return result;
}

extern "C" int GetDIValue(const char* name, int* value) {
  const int result = Read_DI_VALUE_FromResourceName(READ_resourceName(name), value);
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "GetDIValue resourceName:%s,Value=%d", LogText(name).c_str(), value ? *value : 0);
  return result;
}

extern "C" int SetDOValue(const char* name, int value) {
  const int id = READ_resourceName(name);
  const int result = SetDOValue_FromResourceName(id, value);
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "SetDOValue resourceName:%s(%d),Value=%d", LogText(name).c_str(), id, value);
  return result;
}

extern "C" int GetBatValue(const char* name, float* value) {
  Read_Bat_VALUE_FromResourceName(READ_resourceName(name), value);
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "GetBatValue resourceName:%s,Value=%f", LogText(name).c_str(),
                value ? static_cast<double>(*value) : 0.0);
  return -1;
}

extern "C" int SetLEDValue(const char* name, int value) {
  SetLEDValue_FromResourceName(READ_resourceName(name), value);
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "SetLEDValue resourceName:%s,Value=%d", LogText(name).c_str(), value);
  SDK_LED_CONTROL_SELF_FG.store(1);
  return -1;
}
