// What a UART's termios record says about its line: speed and character format, and from
// them how fast bytes travel.
#pragma once

#include <string>
#include <termios.h>

namespace fsu::sim {

struct LineSettings {
  unsigned baud = 0;  // 0 when the speed is B0 or not a known rate: nothing moves
  int data_bits = 8;
  char parity = 'N';  // 'N', 'O' or 'E'
  int stop_bits = 1;

  // Start bit, data bits, parity bit and stop bits of one character on the wire.
  int bits_per_byte() const { return 1 + data_bits + (parity == 'N' ? 0 : 1) + stop_bits; }
  double bytes_per_second() const { return baud / static_cast<double>(bits_per_byte()); }
  // The usual short form, such as "8N1".
  std::string format() const;
};

// Reads the output speed and the character format from a termios record. A pseudo-terminal
// keeps the speed and CSTOPB but reports CS8 and a cleared PARENB whatever was set.
LineSettings line_settings(const termios& tio);

}  // namespace fsu::sim
