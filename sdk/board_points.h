// The board points behind the point API: analogue and digital inputs, relay outputs,
// batteries and LEDs addressed by resource id, the LED lines, and the 12 V and calibration stubs.
#pragma once

#include <atomic>

namespace fsu::sdk {

constexpr int kNoGpio = 65535;

struct LedGpio {
  int id;
  int gpio;  // kNoGpio: the LED has no line
};
extern const LedGpio LED_GPIO_LIST[22];

// 1 once an application has driven an LED itself: the SDK's LED thread then leaves them alone.
extern std::atomic<int> SDK_LED_CONTROL_SELF_FG;

int Read_AI_VALUE_FromResourceName(int id, int type, float* value);
int Read_DI_VALUE_FromResourceName(int id, int* value);
int Read_Bat_VALUE_FromResourceName(int id, float* value);
int SetDOValue_FromResourceName(int id, int value);
int SetLEDValue_FromResourceName(int id, int value);

int SET_LED_STATUS(int id, int value);
int Read_GpioPin_FromRESOURCES(int id);
void LED_GPIO_INIT();

int SET_AO_12V_ONOFF(int channel, int on);
int SET_AO_12V_RESTART(int channel, int seconds);
int OFFSET_VALUE_INIT();
int AI_Calibration_Check();
void BSP_AIDI_INIT();
void BSP_BEEP_START();

}  // namespace fsu::sdk
