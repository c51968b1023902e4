#include "lte/modem_discovery.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/command_runner.h"
#include "platform/console_output.h"
#include "platform/safe_file.h"
#include "platform/sandbox_root.h"
#include "support/file_helpers.h"
#include "support/thread_buffer.h"

namespace fsu::lte {

const LteModel ltemm[ltemnum] = {
    {"ZTE3630", "19d2:1509", "ttyUSB2", "/dev/ttyUSB1"},
    {"N720CA04", "2949:8243", "ttyUSB1", "/dev/ttyUSB3"},
    {"gprs", "0001:0001", "ttyS6", "/dev/ttyS6"},
    {"ZTE3630c3b", "19d2:1476", "ttyUSB2", "/dev/ttyUSB1"},
    {"N720CA05", "05c6:8241", "ttyUSB2", "/dev/ttyUSB0"},
    {"N720CA61s2", "2949:8247", "ttyUSB0", "/dev/ttyUSB2"},
    {"ZTE3630", "19d2:1432", "ttyUSB2", "/dev/ttyUSB1"},
    {"ZTE3630tty_GW", "0001:0001", "ttyS6", "/dev/ttyS6"},
    {"DTM8909", "1d9f:9c05", "ttyUSB1", "/dev/ttyUSB3"},
    {"EC20", "2c7c:0125", "/dev/ttyUSB2", "/dev/ttyUSB3"},
    {"M820", "2c7c:6026", "/dev/ttyUSB3", "/dev/ttyUSB3"},
    {"M820", "2c7c:6002", "/dev/ttyUSB3", "/dev/ttyUSB3"},
    {"M820", "2c7c:6005", "/dev/ttyUSB3", "/dev/ttyUSB3"},
    {"M620", "1286:4e3c", "/dev/ttyUSB4", "/dev/ttyUSB3"},
    {"M820", "05c6:9025", "/dev/ttyUSB2", "/dev/ttyUSB3"},
    {"M820", "2949:8700", "/dev/ttyUSB7", "/dev/ttyUSB5"},
    {"N58", "2949:7402", "/dev/ttyUSB4", "/dev/ttyUSB2"},
    {"EC20", "2c7c:0904", "/dev/ttyUSB2", "/dev/ttyUSB2"},
};

namespace {

constexpr std::size_t kCapture = 256;
constexpr std::size_t kCmdreadMax = 4096;
constexpr long kReadParWindow = 64 * 1024;
constexpr char kNewIdFile[] = "/sys/bus/usb-serial/drivers/option1/new_id";

struct NewId {
  int row;
  const char* ids;
};
constexpr NewId kNewIds[] = {{5, "0x05c6 0x8241"},  {10, "0x2c7c 0x0125"}, {11, "0x2c7c 0x6026"},
                             {12, "0x2c7c 0x6002"}, {13, "0x2c7c 0x6005"}, {14, "0x1286 0x4e3c"},
                             {15, "0x05c6 0x9025"}, {16, "0x2949 0x8700"}, {17, "0x2949 0x7402"},
                             {18, "0x2c7c 0x0904"}};

// Runs the command up to six times until it starts; the output (terminated) in `capture`.
bool capture_uci(const char* command, char (&capture)[kCapture + 1]) {
  std::memset(capture, 0, sizeof capture);
  for (int attempt = 0; attempt < 6; ++attempt) {
    const long n = platform::capture_command(command, capture, kCapture);
    if (n >= 0) {
      capture[n] = '\0';
      return std::strstr(capture, "Entry") == nullptr;
    }
    fsu::platform::sdk_printf("error:%s!\n", (std::string("open cmderror:") + std::strerror(errno)).c_str());
  }
  return false;
}

thread_local support::ThreadBuffer<100> result_buffer;
thread_local support::ThreadBuffer<16> netaddr_buffer;

}  // namespace

const char* ltemm_new_id(int row) {
  for (const NewId& entry : kNewIds) {
    if (entry.row == row) return entry.ids;
  }
  return nullptr;
}

int ltemm_row_in(const char* lsusb_output) {
  if (lsusb_output == nullptr) return 0;
  for (int row = 1; row <= ltemnum; ++row) {
    if (std::strstr(lsusb_output, ltemm[row - 1].usb_id) != nullptr) return row;
  }
  return 0;
}

int readusb() {
  char listing[kCapture + 1] = {};
  uci_read("lsusb", listing);
  const int row = ltemm_row_in(listing);
  if (row == 0) return 0;
  const LteModel& modem = ltemm[row - 1];
  if (row != NTU.mode_id.load()) {
    NTU.mode_id.store(row);
    ntu_set_text(NtuText::atdev, modem.at_device);
    ntu_set_text(NtuText::model, modem.model);
    char command[platform::kCommandSize];
    std::snprintf(command, sizeof command, "uci set network.ppp0.device=%s", modem.data_device);
    uciread(command, nullptr);
    uciread("uci commit", nullptr);
    if (const char* ids = ltemm_new_id(row)) {
      std::snprintf(command, sizeof command, "echo \"%s\"> %s", ids, platform::DevicePath(kNewIdFile).c_str());
      uciread(command, nullptr);
    }
    return 1;
  }
  ntu_set_text(NtuText::atdev, modem.at_device);
  return 1;
}

void uci_read(const char* command, char* out) {
  char capture[kCapture + 1];
  if (!capture_uci(command, capture)) return;
  if (out != nullptr) std::memcpy(out, capture, sizeof capture);
}

void uciread(const char* command, char* out) {
  char capture[kCapture + 1];
  if (!capture_uci(command, capture)) return;
  for (std::size_t n = std::strlen(capture); n > 0 && std::strchr(" \r\n", capture[n - 1]) != nullptr; --n) {
    capture[n - 1] = '\0';
  }
  if (out != nullptr) std::memcpy(out, capture, sizeof capture);
}

char* cmdread(const char* command, char* out, std::size_t size) {
  if (out == nullptr || size == 0) return out;
  const long n = platform::capture_command(command, out, std::min(kCmdreadMax, size - 1));
  if (n < 0) {
    out[0] = '\0';
    return out;
  }
  out[n] = '\0';
  if (std::strstr(out, "Entry") != nullptr) out[0] = '\0';
  return out;
}

int read_ethip(const char* ifname, char (&field)[kNtuTextSize]) {
  if (!platform::in_sandbox()) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      std::memset(field, 0, sizeof field);
      ifreq request{};
      std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", ifname);
      const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      auto& netaddr = netaddr_buffer.text();
      std::memset(netaddr, 0, sizeof netaddr);
      if (fd >= 0 && ioctl(fd, SIOCGIFADDR, &request) == 0) {
        const auto* address = reinterpret_cast<const sockaddr_in*>(&request.ifr_addr);
        inet_ntop(AF_INET, &address->sin_addr, netaddr, sizeof netaddr);
        close(fd);
        std::snprintf(field, sizeof field, "%s", netaddr);
        return 1;
      }
      const int error = errno;
      if (fd >= 0) close(fd);
      if (error == ENODEV) {
        read_ethip1(ifname, field);
        return field[0] != '\0' ? 1 : 0;
      }
    }
  }
  std::memset(field, 0, sizeof field);
  read_ethip1(ifname, field);
  return field[0] != '\0' ? 1 : 0;
}

int read_ethip1(const char* ifname, char (&field)[kNtuTextSize]) {
  char output[1024] = {};
  char command[platform::kCommandSize];
  std::snprintf(command, sizeof command, "ifconfig %s", ifname);
  cmdread(command, output, sizeof output);
  std::memset(field, 0, sizeof field);
  if (std::strlen(output) < 200) return -1;
  char* label = std::strstr(output, "inet addr:");
  if (label == nullptr) return -1;
  char* address = label + std::strlen("inet addr:");
  char* blank = std::strchr(address, ' ');
  if (blank == nullptr) return -1;
  *blank = '\0';
  const std::size_t length = std::strlen(address);
  if (length < 8 || length > 19) return -1;
  std::memcpy(field, address, length + 1);
  fsu::platform::sdk_printf("%s\n", field);
  return 1;
}

void ReadPar_text(const char* text, std::size_t size, const char* key, char (&out)[100]) {
  out[0] = '\0';
  if (text == nullptr || key == nullptr) return;
  const std::size_t key_length = std::strlen(key);
  const char* hit = static_cast<const char*>(memmem(text, size, key, key_length));
  if (hit == nullptr) return;
  std::size_t at = static_cast<std::size_t>(hit - text) + key_length + 1;  // the key and its "="
  std::size_t n = 0;
  for (; at < size && n < sizeof out - 1 && text[at] != '\r' && text[at] != '\n'; ++at) out[n++] = text[at];
  out[n] = '\0';
}

char* ReadPar(const char* path, const char* key) {
  auto& Resultbuf = result_buffer.text();
  Resultbuf[0] = '\0';
  const platform::DevicePath file(path);
  if (!file.ok()) return Resultbuf;
  if (access(file.c_str(), F_OK) != 0) {
    const int fd = platform::open_own_file(path, 0, 0700);  // never created through a link
    if (fd >= 0) close(fd);
    return Resultbuf;
  }
  const long size = support::FSU_get_file_size(path);
  if (size <= 0) return Resultbuf;
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Resultbuf;
  thread_local support::ThreadBuffer<kReadParWindow> contents_buffer;
  auto& contents = contents_buffer.text();
  const std::size_t want = static_cast<std::size_t>(std::min(size, kReadParWindow));
  std::size_t got = 0;
  while (got < want) {
    const ssize_t n = read(fd, contents + got, want - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  close(fd);
  ReadPar_text(contents, got, key, Resultbuf);
  return Resultbuf;
}

int WritetmpDATA(const char* path, const char* text) {
  // A new file renamed over the name: a link planted there is replaced, not written through.
  const std::size_t n = text != nullptr ? std::strlen(text) : 0;
  return platform::replace_file(path, text, n, 0700) == 0 ? 1 : -1;
}

}  // namespace fsu::lte
