// Start-up of the SDK and the small lifecycle services around it.
#pragma once

#include "fsusdk.h"

namespace fsu::sdk {

constexpr const char* kEdition = FSUSDK_EDITION;
constexpr const char* kVersion = FSUSDK_VERSION;
// Build date ("Dec 27 2023") and time ("23:09:56") of this SDK.
const char* build_date();
const char* build_time();

// Writes /tmp/sdkversion (a new file renamed in place); 0, or -1.
int WriteSdkversion_to_file();
// First call only: clears the board exist flags.
void SYSTEM_INIT();
// Reads the hardware clock once and sets the clock fault flag when it gives nothing.
void HW_RESOURCES_CHECK();
// 1 when the hardware clock is faulty.
int HW_RTC_IS_Err();

}  // namespace fsu::sdk
