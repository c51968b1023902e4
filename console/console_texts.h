// The console's texts: the Chinese of the device's console, shown by default exactly as it
// stands, and an English rendering of each, chosen with `benchkit --english` or FSU_LANG=en.
// Both renderings live in one table, so that a text cannot be changed in one and forgotten in
// the other.
#pragma once

#include <cstddef>

namespace fsu::console {

struct ConsoleText {
  const char* chinese;  // the console's own text, the table's key
  const char* english;  // the same with the same printf conversions and line ends
};

extern const ConsoleText kConsoleTexts[];
extern const std::size_t kConsoleTextCount;

// English from now on (true), or the original texts.
void use_english(bool english);
// FSU_LANG=en in the environment.
bool english_asked_by_environment();

// The text to show for `chinese`: itself, or its English rendering while English is chosen.
const char* tr(const char* chinese);

}  // namespace fsu::console
