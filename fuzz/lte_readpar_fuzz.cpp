// The modem's key=value reader on arbitrary file text, with the keys of /tmp/Globalp.ini and the
// input's first line as a key: a value is terminated inside its 100-byte buffer and holds no
// line end, so that the file written back from it keeps its three lines.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "lte/lte_supervisor.h"
#include "lte/modem_discovery.h"

namespace {

void check(const char (&value)[100]) {
  if (strnlen(value, sizeof value) >= sizeof value) __builtin_trap();
  if (std::strpbrk(value, "\r\n") != nullptr) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  auto text = std::make_unique<char[]>(size + 1);
  std::memcpy(text.get(), data, size);
  const char* file = text.get();
  char cimi[100];
  char imei[100];
  char csq[100];
  fsu::lte::ReadPar_text(file, size, "cimi", cimi);
  fsu::lte::ReadPar_text(file, size, "imei", imei);
  fsu::lte::ReadPar_text(file, size, "csq", csq);
  check(cimi);
  check(imei);
  check(csq);
  const auto* eol = static_cast<const char*>(std::memchr(file, '\n', size));
  if (eol != nullptr && eol > file && eol - file <= 64) {
    char value[100];
    fsu::lte::ReadPar_text(file, size, std::string(file, static_cast<std::size_t>(eol - file)).c_str(), value);
    check(value);
  }
  char written[3 * 20 + 32];
  cimi[19] = imei[19] = csq[19] = '\0';  // the record's fields hold 19 characters
  fsu::lte::globalp_text(cimi, imei, csq, written, sizeof written);
  int lines = 0;
  for (const char* p = written; *p != '\0'; ++p) lines += *p == '\n';
  if (lines != 3) __builtin_trap();
  return 0;
}
