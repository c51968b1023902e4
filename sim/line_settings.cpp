#include "sim/line_settings.h"

namespace fsu::sim {
namespace {

struct Speed {
  speed_t code;
  unsigned baud;
};

constexpr Speed kSpeeds[] = {
    {B50, 50},         {B75, 75},         {B110, 110},       {B134, 134},       {B150, 150},
    {B200, 200},       {B300, 300},       {B600, 600},       {B1200, 1200},     {B1800, 1800},
    {B2400, 2400},     {B4800, 4800},     {B9600, 9600},     {B19200, 19200},   {B38400, 38400},
    {B57600, 57600},   {B115200, 115200}, {B230400, 230400}, {B460800, 460800}, {B500000, 500000},
    {B576000, 576000}, {B921600, 921600}, {B1000000, 1000000}};

}  // namespace

std::string LineSettings::format() const {
  return std::to_string(data_bits) + parity + std::to_string(stop_bits);
}

LineSettings line_settings(const termios& tio) {
  LineSettings out;
  const speed_t speed = cfgetospeed(&tio);
  for (const Speed& known : kSpeeds) {
    if (known.code == speed) out.baud = known.baud;
  }
  switch (tio.c_cflag & CSIZE) {
    case CS5: out.data_bits = 5; break;
    case CS6: out.data_bits = 6; break;
    case CS7: out.data_bits = 7; break;
    default: out.data_bits = 8; break;
  }
  if ((tio.c_cflag & PARENB) != 0) out.parity = (tio.c_cflag & PARODD) != 0 ? 'O' : 'E';
  out.stop_bits = (tio.c_cflag & CSTOPB) != 0 ? 2 : 1;
  return out;
}

}  // namespace fsu::sim
