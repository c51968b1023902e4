// Text that callers hand to public calls and that ends up inside a shell command line.
#pragma once

#include <cstddef>

namespace fsu::platform {

enum class Blanks { kRefused, kAllowed };

// True when `text` cannot change the command it is placed in: no quotes, backquote, '$',
// backslash, ';', '&', '|', '<', '>', parentheses, line breaks or other control characters,
// and no blanks unless the command quotes the text (Blanks::kAllowed). Null is refused.
bool caller_text_is_safe(const char* text, Blanks blanks);

// True when `path` names a file under the root and nothing else once quoted in a command: an
// absolute device path with no ".." step and no glob characters, safe as quoted text.
bool caller_path_is_safe(const char* path);

// True when `name` is a plain account name: 1 to 32 letters, digits, '_', '.' or '-', and
// not starting with '-' (so that no tool takes it for an option).
bool caller_account_is_safe(const char* name);

// `text` as one single-quoted shell word, each quote inside written as '\'' ("it's" becomes
// 'it'\''s'): whatever its bytes, the command receives it as one argument, unchanged.
constexpr std::size_t kShellWordSize = 1024;
class ShellWord {
 public:
  explicit ShellWord(const char* text);
  const char* c_str() const { return text_; }
  // False (and an empty word) for a null text or one whose quoted form does not fit.
  bool ok() const { return ok_; }

 private:
  char text_[kShellWordSize];
  bool ok_;
};

}  // namespace fsu::platform
