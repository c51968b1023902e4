// Traffic captures of a unit's serial ports, as a field engineer brings them back and as
// `fsusim record` writes them: the SDK's hex traffic log (/tmp/comlog.log: a header with the
// time, the port and a record number, "TX:" and what the unit sent, "RX:" and what the far end
// sent, every byte as "%02X "), or the positioning receiver's NMEA sentences as saved from its
// port, one a line, optionally behind a time prefix. Read whole before anything is played: a
// file that does not parse gives one line naming where and what, and no plays at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fsu::sim {

// The receiver's port in captures; the main board's UARTs 5 to 7 are "Local/Port/N", the
// SDK's serial resources "Local/Uart/1" to "Local/Uart/12".
inline constexpr char kReceiverPortName[] = "Local/Port/7";

// The largest capture read; a field log of the SDK holds at most 100000 records.
inline constexpr std::size_t kMaxCaptureBytes = 64u << 20;

// Bytes the far end of `port` sent, `at` seconds after the capture's first play.
struct CapturePlay {
  double at = 0;
  std::string port;
  std::vector<std::uint8_t> bytes;
};

struct Capture {
  bool nmea = false;  // a receiver's sentences rather than a hex log
  std::vector<CapturePlay> plays;  // in playing order, `at` never decreasing
};

// The plays of a capture, or nullopt with "line N: what is wrong" in `error`.
std::optional<Capture> parse_capture(std::string_view text, std::string* error);

// "Local/Uart/N" (N 1 to 12) or "Local/Port/N" (N 5 to 7): the port names a capture may hold.
bool known_capture_port(std::string_view name);

// The header that opens a record: "\r\n[YYYY-MM-DD hh:mm:ss.mmm]:[PORT][NNNNN]\r\nTX:", with the
// local time of `wall` (seconds since the epoch).
std::string record_header(double wall, std::string_view port, unsigned number);

// "%02X " for each byte, appended to `out`.
void append_hex(std::string& out, const std::uint8_t* bytes, std::size_t size);

}  // namespace fsu::sim
