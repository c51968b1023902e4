#include "sim/sandbox.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "sim/stand_in_tools.h"
#include "sim/web_pages.h"

namespace fsu::sim {
namespace {

constexpr const char* kFolders[] = {
    "tmp", "etc",         "etc/config",      "dev", "sys", "sys/class", "sys/class/gpio", "bin",
    "sys/bus", "sys/bus/usb-serial", "sys/bus/usb-serial/drivers", "sys/bus/usb-serial/drivers/option1",
    "sim", "product", "product/app", "product/app/bin", "var"};

struct FactoryFile {
  const char* path;
  std::string_view text;
};

// Factory configuration, in the uci layout that the SDK's configuration reader understands.
constexpr FactoryFile kFactoryFiles[] = {
    {"etc/config/dtm", "config dtm 'sys'\n\toption pcas '2'\n"},
    {"etc/config/Device",
     "config device 'info'\n"
     "\toption name 'FSU'\n"
     "\toption serial '000000000001'\n"
     "\toption hw_version 'V1.0'\n"
     "\toption sw_version '1.0.9'\n"},
    {"etc/config/EnvironmentPar",
     "config environment 'ai'\n"
     "\toption count '16'\n"
     "\toption period '1'\n"
     "\n"
     "config environment 'di'\n"
     "\toption count '16'\n"
     "\n"
     "config environment 'do'\n"
     "\toption count '8'\n"},
    {"etc/config/monitor",
     "config monitor 'server'\n"
     "\toption enable '0'\n"
     "\toption host '127.0.0.1'\n"
     "\toption port '9000'\n"
     "\toption interval '60'\n"},
    {"etc/config/network",
     "config interface 'lan'\n"
     "\toption ifname 'eth0'\n"
     "\toption proto 'static'\n"
     "\toption ipaddr '192.168.1.100'\n"
     "\toption netmask '255.255.255.0'\n"
     "\toption gateway '192.168.1.1'\n"
     "\n"
     "config interface 'ppp0'\n"
     "\toption device '/dev/ttyUSB2'\n"
     "\toption proto 'ppp'\n"
     "\toption apn 'cmnet'\n"
     "\toption auto '1'\n"},
    {"etc/config/ks",
     "config ks 'sys'\n"
     "\toption enable '0'\n"
     "\toption server '127.0.0.1'\n"
     "\toption port '502'\n"},
    {"sim/calls.log", ""},
    // What lsusb lists: the board's two root hubs and the LTE modem, well within the first
    // 256 bytes that modem discovery reads.
    {"sim/usb",
     "Bus 002 Device 001: ID 1d6b:0002 Linux Foundation 2.0 root hub\n"
     "Bus 001 Device 002: ID 2c7c:0125 Quectel Wireless Solutions Co., Ltd. EC25 LTE modem\n"
     "Bus 001 Device 001: ID 1d6b:0002 Linux Foundation 2.0 root hub\n"},
    {"sys/class/gpio/export", ""},
    {"sys/class/gpio/unexport", ""},
};

// Files of one exported line, as the kernel shows them right after the export.
constexpr FactoryFile kGpioLineFiles[] = {
    {"direction", "in\n"}, {"value", "0\n"}, {"edge", "none\n"}};

bool fail(std::string* error, const std::string& what) {
  if (error != nullptr) *error = what + ": " + std::strerror(errno);
  return false;
}

// A folder of the sandbox; an existing symbolic link is refused, so that nothing is ever
// written outside the root through one.
bool ensure_folder(const std::string& path, std::string* error) {
  if (mkdir(path.c_str(), 0755) == 0) return true;
  if (errno != EEXIST) return fail(error, "cannot create " + path);
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return fail(error, "cannot inspect " + path);
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return fail(error, path + " is not a folder");
  }
  return true;
}

// The root itself and any missing parents.
bool ensure_root(const std::string& root, std::string* error) {
  for (std::size_t slash = root.find('/', 1); slash != std::string::npos; slash = root.find('/', slash + 1)) {
    if (mkdir(root.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
      return fail(error, "cannot create " + root.substr(0, slash));
    }
  }
  // The root itself may be reached through a symbolic link: the caller chose it.
  struct stat st;
  if (mkdir(root.c_str(), 0755) != 0 && (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
    return fail(error, "cannot create " + root);
  }
  return true;
}

bool write_if_missing(const std::string& path, std::string_view text, std::string* error) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return errno == EEXIST ? true : fail(error, "cannot create " + path);
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok ? true : fail(error, "cannot write " + path);
}

std::string absolute(const std::string& dir) {
  std::string out;
  if (!dir.starts_with('/')) {
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) != nullptr) out = std::string(cwd) + "/";
  }
  out += dir;
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
  // A failure stops the walk; what is left is left.
  return remove(path) == 0 ? 0 : -1;
}

}  // namespace

bool make_sandbox(const std::string& root, const std::string& fsusim_path, std::string* error) {
  const std::string dir = absolute(root);
  if (root.empty() || dir == "/") {
    if (error != nullptr) *error = "a sandbox needs a root folder of its own, not '" + root + "'";
    return false;
  }
  if (!ensure_root(dir, error)) return false;
  for (const char* folder : kFolders) {
    if (!ensure_folder(dir + "/" + folder, error)) return false;
  }
  for (const FactoryFile& file : kFactoryFiles) {
    if (!write_if_missing(dir + "/" + file.path, file.text, error)) return false;
  }
  for (const int line : kBoardGpioLines) {
    const std::string gpio = dir + "/sys/class/gpio/gpio" + std::to_string(line);
    if (!ensure_folder(gpio, error)) return false;
    for (const FactoryFile& file : kGpioLineFiles) {
      if (!write_if_missing(gpio + "/" + file.path, file.text, error)) return false;
    }
  }
  return write_stand_in_tools(dir, fsusim_path, error);
}

bool remove_sandbox(const std::string& root) {
  const std::string dir = absolute(root);
  // Only a tree that make_sandbox made: never "/" or a folder without the simulator's sim/.
  struct stat st;
  if (root.empty() || dir == "/" || lstat((dir + "/sim").c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return false;
  }
  remove_counter_segment(dir);  // the console's segment of this root lives outside the tree
  return nftw(dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT) == 0;
}

}  // namespace fsu::sim
