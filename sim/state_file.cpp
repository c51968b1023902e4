#include "sim/state_file.h"

#include "sim/control.h"

namespace fsu::sim {

StateFile::StateFile(std::string path) : path_(std::move(path)) {}

void StateFile::add_section(Section section) { sections_.push_back(std::move(section)); }

std::string StateFile::render() const {
  std::string out;
  for (const Section& section : sections_) section(out);
  return out;
}

void StateFile::update(double now, bool force) {
  if (!force && now - checked_at_ < kMinInterval) return;
  checked_at_ = now;
  const std::string text = render();
  if (text != written_) write(text);
}

void StateFile::write(const std::string& text) {
  // After a failed write the text still differs, so the next update tries again.
  if (replace_file(path_, text)) written_ = text;
}

}  // namespace fsu::sim
