// Text that callers hand to public calls and that ends up inside a shell command line.
#pragma once

namespace fsu::platform {

enum class Blanks { kRefused, kAllowed };

// True when `text` cannot change the command it is placed in: no quotes, backquote, '$',
// backslash, ';', '&', '|', '<', '>', parentheses, line breaks or other control characters,
// and no blanks unless the command quotes the text (Blanks::kAllowed). Null is refused.
bool caller_text_is_safe(const char* text, Blanks blanks);

// True when `path` names a file under the root and nothing else once quoted in a command: an
// absolute device path with no ".." step and no glob characters, safe as quoted text.
bool caller_path_is_safe(const char* path);

}  // namespace fsu::platform
