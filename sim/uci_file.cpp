#include "sim/uci_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fsu::sim {
namespace {

constexpr char kInvalid[] = "uci: Invalid argument\n";
constexpr char kNotFound[] = "uci: Entry not found\n";

bool is_name(std::string_view s) {
  if (s.empty() || s.size() > 64) return false;
  for (const char c : s) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

// One line of a file: [begin, end) without its line feed; `next` starts the following line.
struct Line {
  std::size_t begin;
  std::size_t end;
  std::size_t next;
};

std::vector<Line> split_lines(std::string_view text) {
  std::vector<Line> lines;
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t lf = text.find('\n', pos);
    const std::size_t end = lf == std::string_view::npos ? text.size() : lf;
    const std::size_t next = lf == std::string_view::npos ? text.size() : lf + 1;
    lines.push_back({pos, end, next});
    pos = next;
  }
  return lines;
}

// The first three words of a line; a word may stand in single or double quotes. A comment or
// blank line gives none.
std::vector<std::string> words_of(std::string_view line) {
  std::vector<std::string> words;
  std::size_t i = 0;
  while (words.size() < 3) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
    if (i >= line.size() || line[i] == '#') break;
    std::string word;
    if (line[i] == '\'' || line[i] == '"') {
      const char quote = line[i++];
      while (i < line.size() && line[i] != quote) word += line[i++];
      if (i < line.size()) ++i;
    } else {
      while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') word += line[i++];
    }
    words.push_back(std::move(word));
  }
  return words;
}

// Lines [first, last) of the named section, `first` being its "config" line.
struct SectionSpan {
  std::size_t first;
  std::size_t last;
  std::string type;
};

std::optional<SectionSpan> find_section(std::string_view text, const std::vector<Line>& lines,
                                        const std::string& section) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const auto w = words_of(text.substr(lines[i].begin, lines[i].end - lines[i].begin));
    if (w.size() < 3 || w[0] != "config" || w[2] != section) continue;
    std::size_t j = i + 1;
    while (j < lines.size()) {
      const auto next = words_of(text.substr(lines[j].begin, lines[j].end - lines[j].begin));
      if (!next.empty() && next[0] == "config") break;
      ++j;
    }
    return SectionSpan{i, j, w[1]};
  }
  return std::nullopt;
}

std::optional<std::size_t> find_option(std::string_view text, const std::vector<Line>& lines,
                                       const SectionSpan& span, const std::string& option) {
  for (std::size_t i = span.first + 1; i < span.last; ++i) {
    const auto w = words_of(text.substr(lines[i].begin, lines[i].end - lines[i].begin));
    if (w.size() >= 2 && w[0] == "option" && w[1] == option) return i;
  }
  return std::nullopt;
}

bool read_file(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
            static_cast<std::size_t>(st.st_size) <= kMaxUciFileSize;
  text->clear();
  char buf[4096];
  while (ok) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) {
      text->append(buf, static_cast<std::size_t>(n));
      ok = text->size() <= kMaxUciFileSize;
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      ok = false;
    }
  }
  close(fd);
  return ok;
}

// Replaces the file by way of a temporary file in the same folder, so that a reader sees
// either the old or the new text, never a part.
bool replace_file(const std::string& dir, const std::string& name, const std::string& text) {
  std::string tmp = dir + "/." + name + ".XXXXXX";
  const int fd = mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fchmod(fd, 0644) == 0;
  std::size_t done = 0;
  while (ok && done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      ok = false;
    }
  }
  ok = close(fd) == 0 && ok;
  ok = ok && rename(tmp.c_str(), (dir + "/" + name).c_str()) == 0;
  if (!ok) unlink(tmp.c_str());
  return ok;
}

// Serialises writers of one configuration folder (a read-modify-write must not lose another's
// change); the lock goes with the descriptor.
class FolderLock {
 public:
  explicit FolderLock(const std::string& dir)
      : fd_(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ >= 0) flock(fd_, LOCK_EX);
  }
  ~FolderLock() {
    if (fd_ >= 0) close(fd_);
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int fd_;
};

int uci_get(const std::string& config_dir, const char* arg, std::FILE* out, std::FILE* err) {
  UciKey key;
  if (!parse_uci_key(arg, &key)) {
    std::fputs(kInvalid, err);
    return 1;
  }
  std::string text;
  std::optional<std::string> value;
  if (read_file(config_dir + "/" + key.config, &text)) value = uci_lookup(text, key.section, key.option);
  if (!value) {
    std::fputs(kNotFound, err);
    return 1;
  }
  std::fprintf(out, "%s\n", value->c_str());
  return 0;
}

int uci_set(const std::string& config_dir, const char* arg, std::FILE* err) {
  const std::string_view assignment(arg);
  const std::size_t eq = assignment.find('=');
  UciKey key;
  if (eq == std::string_view::npos || !parse_uci_key(assignment.substr(0, eq), &key) ||
      key.option.empty()) {
    std::fputs(kInvalid, err);
    return 1;
  }
  const std::string value(assignment.substr(eq + 1));
  const FolderLock lock(config_dir);
  std::string text;
  if (!read_file(config_dir + "/" + key.config, &text) ||
      !uci_assign(&text, key.section, key.option, value) ||
      !replace_file(config_dir, key.config, text)) {
    std::fputs(kInvalid, err);
    return 1;
  }
  return 0;
}

}  // namespace

bool parse_uci_key(std::string_view text, UciKey* key) {
  const std::size_t dot1 = text.find('.');
  if (dot1 == std::string_view::npos) return false;
  const std::size_t dot2 = text.find('.', dot1 + 1);
  const std::string_view config = text.substr(0, dot1);
  const std::string_view section =
      text.substr(dot1 + 1, dot2 == std::string_view::npos ? std::string_view::npos : dot2 - dot1 - 1);
  const std::string_view option =
      dot2 == std::string_view::npos ? std::string_view() : text.substr(dot2 + 1);
  if (!is_name(config) || !is_name(section)) return false;
  if (dot2 != std::string_view::npos && !is_name(option)) return false;
  key->config = config;
  key->section = section;
  key->option = option;
  return true;
}

std::optional<std::string> uci_lookup(std::string_view file_text, const std::string& section,
                                      const std::string& option) {
  const auto lines = split_lines(file_text);
  const auto span = find_section(file_text, lines, section);
  if (!span) return std::nullopt;
  if (option.empty()) return span->type;
  const auto at = find_option(file_text, lines, *span, option);
  if (!at) return std::nullopt;
  auto words = words_of(file_text.substr(lines[*at].begin, lines[*at].end - lines[*at].begin));
  return words.size() >= 3 ? std::move(words[2]) : std::string();
}

bool uci_assign(std::string* file_text, const std::string& section, const std::string& option,
                const std::string& value) {
  if (value.find_first_of("'\n\r") != std::string::npos) return false;
  const std::string_view text(*file_text);
  const auto lines = split_lines(text);
  const auto span = find_section(text, lines, section);
  if (!span) return false;
  const std::string entry = "\toption " + option + " '" + value + "'";
  if (const auto at = find_option(text, lines, *span, option)) {
    file_text->replace(lines[*at].begin, lines[*at].end - lines[*at].begin, entry);
    return true;
  }
  // After the section's last non-blank line, so that a blank line between sections stays.
  std::size_t last = span->last - 1;
  while (last > span->first &&
         text.substr(lines[last].begin, lines[last].end - lines[last].begin)
                 .find_first_not_of(" \t\r") == std::string_view::npos) {
    --last;
  }
  const Line& after = lines[last];
  if (after.next == after.end) {  // the file ends without a line feed
    file_text->append("\n" + entry + "\n");
  } else {
    file_text->insert(after.next, entry + "\n");
  }
  return true;
}

int run_uci(const std::string& config_dir, int argc, const char* const* argv, std::FILE* out,
            std::FILE* err) {
  const std::string_view command = argc > 0 ? argv[0] : "";
  if (command == "get" && argc == 2) return uci_get(config_dir, argv[1], out, err);
  if (command == "set" && argc == 2) return uci_set(config_dir, argv[1], err);
  // Changes are written at once, so there is nothing left to commit.
  if (command == "commit" && argc <= 2) return 0;
  std::fputs("usage: uci get CONFIG.SECTION[.OPTION] | set CONFIG.SECTION.OPTION=VALUE | commit [CONFIG]\n",
             err);
  return 1;
}

}  // namespace fsu::sim
