#include "sim/unit_registry.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sim/board.h"
#include "sim/control.h"

namespace fsu::sim {
namespace {

constexpr std::size_t kNoteSize = 1024;  // a root is at most 200 characters
constexpr int kMaxNotes = 4096;

bool private_folder(const std::string& dir) {
  mkdir(dir.c_str(), 0700);
  struct stat st{};
  return lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == getuid() && (st.st_mode & 077) == 0;
}

std::string note_of(pid_t pid) {
  const std::string folder = registry_folder();
  return folder.empty() ? std::string() : folder + "/" + std::to_string(pid);
}

// The root a note names (its first line, when it is an absolute path; else "") and the unit's
// number ("unit K" on its second line; 0 when there is none).
std::string read_note(const std::string& path, int* number) {
  *number = 0;
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return {};
  char text[kNoteSize];
  const ssize_t n = read(fd, text, sizeof text);
  close(fd);
  if (n <= 0) return {};
  std::string root(text, static_cast<std::size_t>(n));
  const std::size_t end = root.find('\n');
  if (end != std::string::npos && root.compare(end + 1, 5, "unit ") == 0) {
    const std::string digits = root.substr(end + 6, root.find('\n', end + 1) - end - 6);
    if (!digits.empty() && digits.size() <= 6 && digits.find_first_not_of("0123456789") == std::string::npos) {
      *number = std::atoi(digits.c_str());
    }
  }
  root = root.substr(0, end);
  return root.starts_with("/") && root.find('\0') == std::string::npos ? root : std::string();
}

}  // namespace

std::string registry_folder() {
  if (const char* dir = std::getenv("FSUSIM_RUNTIME_DIR"); dir != nullptr && *dir == '/') {
    return private_folder(dir) ? dir : std::string();
  }
  if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir != nullptr && *dir == '/') {
    const std::string folder = std::string(dir) + "/fsusim";
    if (private_folder(folder)) return folder;
  }
  const std::string folder = "/tmp/fsusim-" + std::to_string(getuid());
  return private_folder(folder) ? folder : std::string();
}

bool register_unit(pid_t pid, const std::string& root, int number) {
  const std::string note = note_of(pid);
  return !note.empty() && replace_file(note, root + "\n" + (number > 0 ? "unit " + std::to_string(number) + "\n" : ""));
}

void unregister_unit(pid_t pid) {
  const std::string note = note_of(pid);
  if (!note.empty()) unlink(note.c_str());
}

std::vector<RunningUnit> running_units() {
  std::vector<RunningUnit> units;
  const std::string folder = registry_folder();
  DIR* dir = folder.empty() ? nullptr : opendir(folder.c_str());
  if (dir == nullptr) return units;
  int seen = 0;
  while (const dirent* entry = readdir(dir)) {
    if (++seen > kMaxNotes) break;
    const std::string name = entry->d_name;
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos || name.size() > 9) continue;
    const pid_t pid = static_cast<pid_t>(std::atol(name.c_str()));
    const std::string path = folder + "/" + name;
    int number = 0;
    const std::string root = read_note(path, &number);
    if (pid > 0 && !root.empty() && board_process(root) == pid) {
      units.push_back({pid, root, number});
    } else {
      unlink(path.c_str());
    }
  }
  closedir(dir);
  std::sort(units.begin(), units.end(), [](const RunningUnit& a, const RunningUnit& b) {
    return a.number != b.number ? a.number < b.number : a.root < b.root;
  });
  return units;
}

}  // namespace fsu::sim
