// Scenario files and the report's text on arbitrary bytes. A file loads whole, within the
// bounds a run relies on, or is refused with a line of the file and nothing kept; any bytes
// (the application's output) become XML text with no markup and no byte XML cannot carry.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "sim/scenario/junit.h"
#include "sim/scenario/scenario.h"

namespace {

using namespace fsu::sim::scenario;

bool within(const Step& step, int lines) {
  return step.line >= 1 && step.line <= lines && step.text.size() <= kMaxText && step.timeout > 0 &&
         step.timeout <= kLongestDuration && step.seconds >= 0 && step.seconds <= kLongestDuration &&
         (step.kind != Kind::kWriteUart || (step.port >= 1 && step.port <= 12 && !step.text.empty())) &&
         step.code >= 0 && step.code <= 255;
}

// No markup character, no control byte but a tab or a line feed, and '&' only as an entity.
bool plain_xml(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const std::string_view rest = text.substr(i, 6);
    const bool entity = rest.starts_with("&amp;") || rest.starts_with("&lt;") || rest.starts_with("&gt;") ||
                        rest.starts_with("&quot;") || rest.starts_with("&apos;") || rest.starts_with("&#13;");
    if ((c == '&' && !entity) || std::string_view("<>\"'").find(static_cast<char>(c)) != std::string_view::npos ||
        (c < 0x20 && c != '\t' && c != '\n')) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const int lines = 1 + static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  Scenario scenario;
  std::string error;
  if (load_scenario(text, "f.yaml", &scenario, &error)) {
    if (scenario.steps.empty() || scenario.steps.size() > kMaxSteps) __builtin_trap();
    for (const Step& step : scenario.steps) {
      if (!within(step, lines)) __builtin_trap();
    }
  } else {
    const int line = error.starts_with("f.yaml:") ? std::atoi(error.c_str() + 7) : 0;
    if (line < 1 || line > lines || !scenario.steps.empty()) __builtin_trap();
  }
  if (!plain_xml(xml_text(text))) __builtin_trap();
  return 0;
}
