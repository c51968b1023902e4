// The front panel's page and its assets (sim/panel/), carried inside fsusim, so the panel works
// with no network and no files beside the program.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace fsu::sim {

struct EmbeddedFile {
  const char* name;  // the file's name in sim/panel/, such as "panel.js"
  const unsigned char* bytes;
  std::size_t size;
};

extern const EmbeddedFile kEmbeddedFiles[];
extern const std::size_t kEmbeddedFileCount;

// The content of the asset named `name`, or nullopt.
inline std::optional<std::string_view> panel_asset(std::string_view name) {
  for (std::size_t i = 0; i < kEmbeddedFileCount; ++i) {
    if (name == kEmbeddedFiles[i].name) {
      return std::string_view(reinterpret_cast<const char*>(kEmbeddedFiles[i].bytes), kEmbeddedFiles[i].size);
    }
  }
  return std::nullopt;
}

}  // namespace fsu::sim
