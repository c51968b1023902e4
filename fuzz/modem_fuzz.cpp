// The modem's text on arbitrary bytes, three ways picked by the low two bits of byte 0:
//   0     the AT line layer: the stream in pieces (fuzz/pieces.h) appended to the line buffer,
//         every complete line taken out after each piece as readline does;
//   1     every query's reply parser (the tokenizer with them) on exact-size copies of a reply text:
//         what they store as IMSI and IMEI is digits, and the dial texts built from it and from
//         the raw bytes parse as JSON (nlohmann-json, strict about UTF-8);
//   2, 3  the key=value reader on file text, with the keys of /tmp/Globalp.ini and the text's
//         first line as keys: only identities are taken back, and the file written back from the
//         values is still three lines.
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/pieces.h"
#include "lte/at_channel.h"
#include "lte/lte_supervisor.h"
#include "lte/modem_discovery.h"
#include "lte/modem_queries.h"
#include "lte/ntu.h"
#include "sdk/dial_api.h"

namespace {

using namespace fsu::lte;

// A line lies inside the line area, is terminated there, is not empty (runs of CR and LF make no
// line) and holds no line end.
void check_line(const char* line) {
  const char* end = s_ATBuffer + kAtLineArea;
  require(line >= s_ATBuffer && line < end && line + strnlen(line, static_cast<std::size_t>(end - line) + 1) <= end &&
          std::strpbrk(line, "\r\n") == nullptr && *line != '\0');
}

void lines(const uint8_t* data, std::size_t size) {
  at_buffer_clear();
  for_each_piece(data, size, 0, [](const std::uint8_t* piece, std::int32_t n) {
    std::size_t done = 0;
    const auto total = static_cast<std::size_t>(n);
    do {
      done += at_buffer_append(reinterpret_cast<const char*>(piece) + done, total - done);
      while (const char* line = at_buffer_take_line()) check_line(line);
      if (s_ATBuffer[kAtLineArea] != '\0') __builtin_trap();
    } while (done < total);
  });
}

std::unique_ptr<char[]> copy(const uint8_t* data, std::size_t size) {
  auto text = std::make_unique<char[]>(size + 1);
  std::memcpy(text.get(), data, size);
  return text;
}

bool digits_only(const char* text) {
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return false;
  }
  return true;
}

void replies(const uint8_t* data, std::size_t size) {
  if (size >= kOutPutSize) return;
  ntu_clear();
  readCSQState(copy(data, size).get());
  ParseRegistrationState_GT9615(copy(data, size).get());
  creg_status(copy(data, size).get());
  cops_act(copy(data, size).get());
  hex2dec(copy(data, size).get());
  char cimi[kNtuTextSize], imei[kNtuTextSize] = {};
  if (parse_cimi(copy(data, size).get(), cimi) == 1) ntu_set_text(NtuText::cimi, cimi);
  if (parse_imei(copy(data, size).get(), imei) >= 0) ntu_set_text(NtuText::imei, imei);
  if (strnlen(cimi, kNtuTextSize) == kNtuTextSize || strnlen(imei, kNtuTextSize) == kNtuTextSize) __builtin_trap();

  // Whatever the modem sent, a stored identity is digits, and of an identity's length.
  NtuTexts texts = ntu_texts();
  require(digits_only(texts.cimi) && digits_only(texts.imei) && std::strlen(texts.cimi) <= 15 &&
          (texts.imei[0] == '\0' || std::strlen(texts.imei) == 15));
  // The texts are JSON for any bytes in any field: the raw reply stands in for the others.
  char raw[kNtuTextSize] = {};
  std::memcpy(raw, data, std::min(size, kNtuTextSize - 1));
  std::memcpy(texts.lteip, raw, kNtuTextSize);
  std::memcpy(texts.model, texts.lteip, kNtuTextSize);
  std::memcpy(texts.csq, texts.lteip, kNtuTextSize);
  char json[1024];
  if (fsu::sdk::build_static_info(texts, json, sizeof json) != 0 || !nlohmann::json::accept(json)) __builtin_trap();
  std::memcpy(texts.cimi, texts.lteip, kNtuTextSize);
  if (fsu::sdk::build_static_info(texts, json, sizeof json) != 0 || !nlohmann::json::accept(json)) __builtin_trap();
  require(fsu::sdk::build_dynamic_info(1, texts, 1, 1, 1, json, sizeof json) == 0 && nlohmann::json::accept(json));
}

void check_value(const char (&value)[100]) {
  if (strnlen(value, sizeof value) >= sizeof value || std::strpbrk(value, "\r\n") != nullptr) __builtin_trap();
}

void parameters(const uint8_t* data, std::size_t size) {
  const auto text = copy(data, size);
  const char* file = text.get();
  char values[4][100];
  const auto* eol = static_cast<const char*>(std::memchr(file, '\n', size));
  const std::string first_line = eol != nullptr && eol > file && eol - file <= 64 ? std::string(file, eol) : "cimi";
  int i = 0;
  for (const std::string& key : {std::string("cimi"), std::string("imei"), std::string("csq"), first_line}) {
    ReadPar_text(file, size, key.c_str(), values[i]);
    check_value(values[i++]);
  }
  // What a restart takes back from the file is an identity or nothing.
  require((!is_imsi(values[0]) || digits_only(values[0])) && (!is_imei(values[1]) || std::strlen(values[1]) == 15));
  char written[3 * 20 + 32];
  for (auto& value : values) value[19] = '\0';  // the record's fields hold 19 characters
  globalp_text(values[0], values[1], values[2], written, sizeof written);
  int lines = 0;
  for (const char* p = written; *p != '\0'; ++p) lines += *p == '\n';
  if (lines != 3) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto way = data[0] & 3;
  (way == 0 ? lines : way == 1 ? replies : parameters)(data + 1, size - 1);
  return 0;
}
