// BSP_ReadPar on arbitrary file text: the input is written to a parameter file in a private
// sandbox root and read back with the keys the SDK's callers use, plus the input's first line
// as a key, so that keys standing anywhere in the file (also at its very end) are reached.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/sandbox_root.h"
#include "support/file_helpers.h"

namespace {

constexpr const char* kParFile = "/tmp/web_dtu_com";
constexpr std::size_t kResultSize = 10240;  // BSP_ReadPar's result buffer
constexpr std::size_t kMaxInputKey = 64;
constexpr const char* kKeys[] = {"com_num", "com1_attr", "set_com", "set_value", "com",
                                 "LineMAX", "WaitSec",   "iParity", "info",      "="};

std::string g_root;

void remove_root() {
  unlink((g_root + kParFile).c_str());
  rmdir((g_root + "/tmp").c_str());
  rmdir(g_root.c_str());
}

// A root of our own under $TMPDIR, holding only tmp/; removed when the fuzzer exits.
void make_root() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/fsufuzz.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  g_root = pattern;
  if (mkdir((g_root + "/tmp").c_str(), 0700) != 0 || !fsu::platform::set_root(g_root.c_str())) {
    std::abort();
  }
  std::atexit(remove_root);
}

void write_par_file(const uint8_t* data, std::size_t size) {
  const int fd = open((g_root + kParFile).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) std::abort();
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n <= 0) std::abort();
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  close(fd);
}

// The value must be a terminated text inside the result buffer.
void query(const char* key) {
  const char* value = fsu::support::BSP_ReadPar(kParFile, key);
  if (value != nullptr && strnlen(value, kResultSize) == kResultSize) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (g_root.empty()) make_root();
  write_par_file(data, size);
  for (const char* key : kKeys) query(key);

  const auto* text = reinterpret_cast<const char*>(data);
  const auto* eol = static_cast<const char*>(std::memchr(text, '\n', size));
  const std::size_t key_length = eol != nullptr ? static_cast<std::size_t>(eol - text) : 0;
  if (key_length > 0 && key_length <= kMaxInputKey && std::memchr(text, '\0', key_length) == nullptr) {
    query(std::string(text, key_length).c_str());
  }
  return 0;
}
