// The simulated `uci` tool: reads and writes the configuration files of a sandbox in the
// layout the SDK's configuration reader understands ("config TYPE 'NAME'" lines, each followed
// by "\toption NAME 'VALUE'" lines).
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace fsu::sim {

// Configuration files larger than this are treated as unreadable.
inline constexpr std::size_t kMaxUciFileSize = 1 << 20;

// "config.section.option" (option may be empty for "config.section").
struct UciKey {
  std::string config;
  std::string section;
  std::string option;
};

// Splits "c.s.o" or "c.s"; false for empty or unusual names (anything but letters, digits,
// '_' and '-'), so that a name can never leave the configuration folder.
bool parse_uci_key(std::string_view text, UciKey* key);

// The value of `option` in section `section` of the file text, or the section's type when
// `option` is empty; nullopt when not found.
std::optional<std::string> uci_lookup(std::string_view file_text, const std::string& section,
                                      const std::string& option);

// Sets `option` of `section` to `value` in the file text: the option's line is replaced, or a
// new "\toption NAME 'VALUE'" line goes after the section's last line. False, leaving the text
// unchanged, when the section is missing or the value holds a quote or line break.
bool uci_assign(std::string* file_text, const std::string& section, const std::string& option,
                const std::string& value);

// Runs the tool on the files of `config_dir` with the arguments after "uci" ("get c.s.o",
// "set c.s.o=v", "commit [c]"). Answers go to `out`, complaints to `err`; returns the exit code.
int run_uci(const std::string& config_dir, int argc, const char* const* argv, std::FILE* out,
            std::FILE* err);

}  // namespace fsu::sim
