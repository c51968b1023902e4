// Capture files on arbitrary bytes: a file parses whole, every play on a port a capture may
// name, in order and with its bytes, or it is refused with a line of the file and no plays.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "sim/capture_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto capture = fsu::sim::parse_capture(text, &error);
  if (!capture) {
    if (!error.starts_with("line ")) std::abort();
    return 0;
  }
  double last = 0;
  std::size_t bytes = 0;
  for (const fsu::sim::CapturePlay& play : capture->plays) {
    if (!fsu::sim::known_capture_port(play.port) || play.bytes.empty() || play.at < last) std::abort();
    last = play.at;
    bytes += play.bytes.size();
  }
  // A sentence gains at most its CR LF; a byte of a hex log takes at least two characters.
  if (bytes > 2 * size + 2) std::abort();
  return 0;
}
