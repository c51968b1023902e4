// How people and tests change a running board: command lines appended to sim/control, taken
// in order by the board, which runs each through a table of the commands its models offer and
// acknowledges progress in sim/control.done.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fsu::sim {

// Commands by their first word ("uart 2 terminal"). Each model adds the commands it serves.
class CommandTable {
 public:
  // Gets the words after the command's own; returns "" when applied, else why it was not.
  using Handler = std::function<std::string(std::span<const std::string_view> args)>;

  // `usage` shows the command's form in error messages ("uart N loopback|terminal|silent").
  void add(std::string word, std::string usage, Handler handler);
  // Runs one line: words are separated by blanks or tabs. Returns "" when it was applied,
  // else the reason, which names the line.
  std::string run(std::string_view line) const;

 private:
  struct Command {
    std::string word;
    std::string usage;
    Handler handler;
  };
  std::vector<Command> commands_;
};

// The line as it may be quoted in a message: control characters shown as '?', cut short.
std::string quoted_line(std::string_view line);

// The board's side of sim/control and sim/control.done.
class ControlFile {
 public:
  // Longest piece taken as one line; a longer line is taken in pieces of this size.
  static constexpr std::size_t kMaxLine = 4096;

  ControlFile(std::string path, std::string done_path);

  // Empties the control file and acknowledges nothing yet, so that lines meant for an
  // earlier board are never replayed.
  bool reset(std::string* error);
  // Takes the complete lines that came since the last call, each with the byte offset where it
  // starts, in order; a bounded amount per call. A file that was emptied or replaced is read
  // again from its start. Returns how many lines were taken.
  std::size_t take(const std::function<void(std::string_view line, std::uint64_t offset)>& apply);
  // Writes "LINES OFFSET": the lines taken so far and the offset up to which the file is done.
  bool acknowledge();

 private:
  std::string path_;
  std::string done_path_;
  std::uint64_t offset_ = 0;
  std::uint64_t lines_ = 0;
  std::uint64_t inode_ = 0;
};

// Writes `text` as the whole content of `path`, atomically (a new file renamed over it).
bool replace_file(const std::string& path, std::string_view text);

}  // namespace fsu::sim
