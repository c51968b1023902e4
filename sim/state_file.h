// sim/state: the running board as text for people and tests, one line per thing, each line
// opening with what it is about ("uart 2 ...", "led run ..."). Every model adds a section of
// its own lines. The file is rewritten atomically when its text changes, at most a few times a
// second unless a change must show at once.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace fsu::sim {

class StateFile {
 public:
  // Shortest time between two rewrites that are not forced.
  static constexpr double kMinInterval = 0.2;

  using Section = std::function<void(std::string& out)>;

  explicit StateFile(std::string path);

  void add_section(Section section);
  // The sections' lines in the order they were added.
  std::string render() const;
  // Looks at monotonic time `now` whether the text changed, when the last look is at least
  // kMinInterval old or `force` is set, and rewrites the file if it did.
  void update(double now, bool force);
  // Replaces the file's content with `text` (the board's last words when it goes down).
  void write(const std::string& text);

 private:
  std::string path_;
  std::vector<Section> sections_;
  std::string written_;
  double checked_at_ = -1e9;
};

}  // namespace fsu::sim
