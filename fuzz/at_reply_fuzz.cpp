// The tokenizer and every query's reply parser on arbitrary reply text, each on its own exact-size
// copy, as the exchanges hand it over (a terminated text of at most 1023 bytes). What the parsers
// store in the modem record must stay within its fields, and the dial texts built from those
// fields must stay JSON: every quote inside a value escaped.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "lte/at_channel.h"
#include "lte/modem_queries.h"
#include "lte/ntu.h"
#include "sdk/dial_api.h"

namespace {

using namespace fsu::lte;

std::unique_ptr<char[]> copy(const uint8_t* data, std::size_t size) {
  auto text = std::make_unique<char[]>(size + 1);
  std::memcpy(text.get(), data, size);
  return text;
}

// Unescaped quotes in a JSON text: exactly the ones of its keys and values.
int bare_quotes(const char* json) {
  int quotes = 0;
  for (const char* p = json; *p != '\0'; ++p) {
    if (*p == '\\') {
      if (*++p == '\0') __builtin_trap();
    } else if (*p == '"') {
      ++quotes;
    }
  }
  return quotes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size >= kOutPutSize) return 0;
  ntu_clear();
  readCSQState(copy(data, size).get());
  ParseRegistrationState_GT9615(copy(data, size).get());
  creg_status(copy(data, size).get());
  cops_act(copy(data, size).get());
  hex2dec(copy(data, size).get());
  char cimi[kNtuTextSize];
  char imei[kNtuTextSize] = {};
  if (parse_cimi(copy(data, size).get(), cimi) == 1) ntu_set_text(NtuText::cimi, cimi);
  if (parse_imei(copy(data, size).get(), imei) >= 0) ntu_set_text(NtuText::imei, imei);
  if (strnlen(cimi, kNtuTextSize) == kNtuTextSize || strnlen(imei, kNtuTextSize) == kNtuTextSize) __builtin_trap();

  const auto tokens = copy(data, size);
  char* cursor = tokens.get();
  int value = 0;
  at_tok_start(&cursor);
  for (int i = 0; i < 8 && cursor != nullptr; ++i) {
    if (at_tok_nexthexint(&cursor, &value) < 0 && cursor != nullptr) nextTok(&cursor);
    if (cursor != nullptr && (cursor < tokens.get() || cursor > tokens.get() + size)) __builtin_trap();
  }

  NtuTexts texts = ntu_texts();
  std::memcpy(texts.lteip, texts.cimi, kNtuTextSize);
  char json[1024];
  if (fsu::sdk::build_static_info(texts, json, sizeof json) != 0 || bare_quotes(json) != 28) __builtin_trap();
  if (fsu::sdk::build_dynamic_info(1, texts, 1, 1, 1, json, sizeof json) != 0 || bare_quotes(json) != 28) {
    __builtin_trap();
  }
  return 0;
}
