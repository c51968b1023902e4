#include "sim/control_client.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

#include "platform/clock.h"
#include "sim/board.h"

namespace fsu::sim {
namespace {

// The offset up to which the board has taken the control file (the second number of
// sim/control.done), or 0.
std::uint64_t done_offset(const std::string& root) {
  std::ifstream in(root + "/sim/control.done");
  std::uint64_t lines = 0;
  std::uint64_t offset = 0;
  return in >> lines >> offset ? offset : 0;
}

}  // namespace

bool send_control(const std::string& root, std::span<const std::string> lines, double timeout,
                  std::vector<std::string>* errors) {
  const std::size_t known = errors->size();
  const auto fail = [&](const std::string& why) {
    errors->push_back(why);
    return false;
  };
  std::string text;
  for (const std::string& line : lines) {
    if (line.find_first_of("\r\n") != std::string::npos) return fail("a control line holds a line break");
    text += line + "\n";
  }
  if (board_process(root) == 0) return fail("no board is up in " + root);
  const std::string path = root + "/sim/control";
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return fail("cannot open " + path + ": " + std::strerror(errno));
  // One append puts the lines in one piece; the descriptor's offset then tells where they end.
  const ssize_t n = write(fd, text.data(), text.size());
  const off_t end = lseek(fd, 0, SEEK_CUR);
  close(fd);
  if (n != static_cast<ssize_t>(text.size()) || end < n) return fail("cannot append to " + path);
  const std::uint64_t first = static_cast<std::uint64_t>(end - n);
  const std::uint64_t last = static_cast<std::uint64_t>(end);

  const double deadline = platform::monotonic_seconds() + timeout;
  while (done_offset(root) < last) {
    if (platform::monotonic_seconds() > deadline) return fail("the board did not take the lines in time");
    if (board_process(root) == 0) return fail("the board went down");
    platform::sleep_ms(10);
  }
  // The board has rewritten sim/state with its verdicts before it acknowledged the lines.
  std::ifstream state(root + "/sim/state");
  const std::string tag = "error at=";
  for (std::string line; std::getline(state, line);) {
    if (!line.starts_with(tag)) continue;
    std::uint64_t at = 0;
    const char* number = line.data() + tag.size();
    const auto [rest, ec] = std::from_chars(number, line.data() + line.size(), at);
    if (ec == std::errc() && at >= first && at < last && *rest == ' ') errors->emplace_back(rest + 1);
  }
  return errors->size() == known;
}

}  // namespace fsu::sim
