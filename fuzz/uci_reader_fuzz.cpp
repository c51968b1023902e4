// The uci reader on arbitrary text: the input's first line is the command ("uci get c.s.o"),
// the rest is the text of the configuration file that the named option is looked up in.
// Buffers have exactly the sizes the interface promises, so any overrun is caught.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "support/config_reader.h"

namespace {

using fsu::support::kUciNameSize;
using fsu::support::kUciValueSize;

bool terminated(const char* text, std::size_t size) { return strnlen(text, size) < size; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const auto* input = reinterpret_cast<const char*>(data);
  const auto* eol = static_cast<const char*>(std::memchr(input, '\n', size));
  const std::size_t command_length = eol != nullptr ? static_cast<std::size_t>(eol - input) : size;
  const std::string command(input, command_length);  // stops at an embedded NUL, as a caller's would

  // The file text is not terminated: the reader must keep to the length it is given.
  const std::size_t text_length = eol != nullptr ? size - command_length - 1 : 0;
  auto text = std::make_unique<char[]>(text_length);
  if (text_length > 0) std::memcpy(text.get(), eol + 1, text_length);

  auto config = std::make_unique<char[]>(kUciNameSize);
  auto section = std::make_unique<char[]>(kUciNameSize);
  auto option = std::make_unique<char[]>(kUciNameSize);
  auto value = std::make_unique<char[]>(kUciValueSize);

  const bool named = fsu::support::fill_string(command.c_str(), config.get(), section.get(), option.get());
  if (!terminated(config.get(), kUciNameSize) || !terminated(section.get(), kUciNameSize) ||
      !terminated(option.get(), kUciNameSize)) {
    __builtin_trap();
  }
  if (!named) {
    std::strcpy(section.get(), "sys");
    std::strcpy(option.get(), "pcas");
  }
  const bool found = fsu::support::uci_get_para(text.get(), text_length, section.get(), option.get(), value.get());
  if (!terminated(value.get(), kUciValueSize) || (!found && value[0] != '\0')) __builtin_trap();
  return 0;
}
