// The wireless dial and system calls: requests posted to the LTE supervisor, the modem's
// static and dynamic JSON texts, the clock and the FTP accounts. The JSON texts are built by
// pure functions of the values, so that they can be checked byte for byte.
#pragma once

#include <cstddef>

#include "lte/ntu.h"

namespace fsu::sdk {

// The carrier text for an IMSI (by its first five characters).
void carrier_text(const char* cimi, char (&out)[16]);

// The static and dynamic texts into buf (terminated, never past size). Values are written as
// they are, with '"', '\' and control characters escaped. 0, or -1 when the text was cut.
int build_static_info(const lte::NtuTexts& texts, char* buf, std::size_t size);
int build_dynamic_info(int card_stat, const lte::NtuTexts& texts, int position_mode, double longitude,
                       double latitude, char* buf, std::size_t size);

}  // namespace fsu::sdk
