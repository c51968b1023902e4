#include "sim/control.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fsu::sim {
namespace {

constexpr std::size_t kQuotedLength = 80;
// Bytes read per call of take(): the service loop stays responsive whatever is appended.
constexpr int kChunksPerTake = 16;

std::vector<std::string_view> words_of(std::string_view line) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    const std::size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) words.push_back(line.substr(start, i - start));
  }
  return words;
}

}  // namespace

void CommandTable::add(std::string word, std::string usage, Handler handler) {
  commands_.push_back({std::move(word), std::move(usage), std::move(handler)});
}

std::string CommandTable::run(std::string_view line) const {
  const std::vector<std::string_view> words = words_of(line);
  const std::string quoted = "\"" + quoted_line(line) + "\": ";
  if (words.empty()) return quoted + "no command";
  for (const Command& command : commands_) {
    if (command.word != words[0]) continue;
    const std::string error = command.handler(std::span(words).subspan(1));
    return error.empty() ? error : quoted + error + "; usage: " + command.usage;
  }
  std::string known;
  for (const Command& command : commands_) known += (known.empty() ? "" : ", ") + command.word;
  return quoted + "unknown command (commands: " + known + ")";
}

std::string quoted_line(std::string_view line) {
  std::string out;
  for (const char c : line.substr(0, kQuotedLength)) {
    const auto byte = static_cast<unsigned char>(c);
    out += byte < 0x20 || byte == 0x7f ? '?' : c;
  }
  if (line.size() > kQuotedLength) out += "...";
  return out;
}

ControlFile::ControlFile(std::string path, std::string done_path)
    : path_(std::move(path)), done_path_(std::move(done_path)) {}

bool ControlFile::reset(std::string* error) {
  const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  struct stat st{};
  if (fd < 0 || fstat(fd, &st) != 0) {
    if (error != nullptr) *error = "cannot create " + path_ + ": " + std::strerror(errno);
    if (fd >= 0) close(fd);
    return false;
  }
  close(fd);
  inode_ = st.st_ino;
  offset_ = lines_ = 0;
  if (!acknowledge()) {
    if (error != nullptr) *error = "cannot write " + done_path_ + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

std::size_t ControlFile::take(const std::function<void(std::string_view, std::uint64_t)>& apply) {
  const int fd = open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return 0;
  struct stat st{};
  if (fstat(fd, &st) != 0) {
    close(fd);
    return 0;
  }
  if (st.st_ino != inode_ || static_cast<std::uint64_t>(st.st_size) < offset_) {
    inode_ = st.st_ino;
    offset_ = 0;
  }
  std::size_t taken = 0;
  char buf[kMaxLine];
  for (int chunk = 0; chunk < kChunksPerTake && offset_ < static_cast<std::uint64_t>(st.st_size); ++chunk) {
    const ssize_t n = pread(fd, buf, sizeof buf, static_cast<off_t>(offset_));
    if (n <= 0) break;
    const std::string_view text(buf, static_cast<std::size_t>(n));
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', start)) {
      apply(text.substr(start, end - start), offset_ + start);
      ++taken;
      start = end + 1;
    }
    if (start == 0 && text.size() == sizeof buf) {
      apply(text, offset_);
      ++taken;
      start = text.size();
    }
    offset_ += start;
    // The rest of a short read is a line still being written.
    if (start < text.size() && text.size() < sizeof buf) break;
  }
  close(fd);
  lines_ += taken;
  return taken;
}

bool ControlFile::acknowledge() {
  return replace_file(done_path_, std::to_string(lines_) + " " + std::to_string(offset_) + "\n");
}

bool replace_file(const std::string& path, std::string_view text) {
  const std::string tmp = path + ".new";
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (close(fd) != 0 || !written || rename(tmp.c_str(), path.c_str()) != 0) {
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

}  // namespace fsu::sim
