// Positioning mode: PositionMode is 1 GPS, 2 BeiDou, 0 or 3 both, 99999 off.
#pragma once

namespace fsu::gps {

// PositionMode, or 0 when positioning is switched off (99999).
int Read_PositionMode();

}  // namespace fsu::gps
