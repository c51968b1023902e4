// BSP_ReadPar on arbitrary file text: the input is written to a parameter file in a private
// sandbox root and read back with the keys the SDK's callers use, plus the input's first line
// as a key, so that keys standing anywhere in the file (also at its very end) are reached.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
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

// A root of our own under $TMPDIR, holding only tmp/; removed when the fuzzer exits.
void make_root() {
  g_root = (std::filesystem::temp_directory_path() / "fsufuzz.XXXXXX").string();
  if (mkdtemp(g_root.data()) == nullptr || !std::filesystem::create_directory(g_root + "/tmp") ||
      !fsu::platform::set_root(g_root.c_str())) {
    std::abort();
  }
  std::atexit([] { std::filesystem::remove_all(g_root); });
}

// The value must be a terminated text inside the result buffer.
void query(const char* key) {
  const char* value = fsu::support::BSP_ReadPar(kParFile, key);
  if (value != nullptr && strnlen(value, kResultSize) == kResultSize) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (g_root.empty()) make_root();
  const auto* text = reinterpret_cast<const char*>(data);
  if (!std::ofstream(g_root + kParFile, std::ios::binary | std::ios::trunc).write(text, static_cast<std::streamsize>(size))) {
    std::abort();
  }
  for (const char* key : kKeys) query(key);

  const auto* eol = static_cast<const char*>(std::memchr(text, '\n', size));
  const std::size_t key_length = eol != nullptr ? static_cast<std::size_t>(eol - text) : 0;
  if (key_length > 0 && key_length <= kMaxInputKey && std::memchr(text, '\0', key_length) == nullptr) {
    query(std::string(text, key_length).c_str());
  }
  return 0;
}
