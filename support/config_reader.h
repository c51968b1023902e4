// Reads single values of the device's uci configuration files under /etc/config from the
// files themselves, given the "uci get config.section.option" command text a caller would run.
#pragma once

#include <cstddef>

namespace fsu::support {

constexpr std::size_t kUciNameSize = 50;    // names of up to 49 characters
constexpr std::size_t kUciValueSize = 100;  // values of up to 99 characters

// Configuration files above 1 MiB are treated as unreadable.
// Value through the six-file cache ("Device", "dtm", "EnvironmentPar", "monitor", "network",
// "ks"); empty text when not found. The result is a per-thread buffer, never null.
const char* sdkuci_get_ram(const char* command);
// Value read afresh from /etc/config/<config>, for any configuration name.
const char* sdkuci_get_flash(const char* command);
// Drops the cache; the next sdkuci_get_ram reloads the files.
void sdkuci_free();
// Loads the six files into the cache; a file that cannot be read leaves it and the files
// after it empty.
void ram_init();
// Splits "uci get c.s.o" into its names (each buffer kUciNameSize bytes): from the ninth
// character of the text (where the names stand when the text begins with "uci get "), the
// text up to the first '.', up to the next '.', and the rest. False (all names empty) when the
// text holds no "uci get " anywhere, a name is empty or longer than kUciNameSize - 1 characters.
bool fill_string(const char* command, char* config, char* section, char* option);
// Finds option `option` of section `section` in `text` of `length` bytes (NUL bytes allowed):
// the first "'section'", then the first " option " behind it with no "config" in between (that
// would be a later section), then the value in single quotes on that line. Writes the value into
// `value` (kUciValueSize bytes, cut at 99 characters, empty when not found). True when found.
bool uci_get_para(const char* text, std::size_t length, const char* section, const char* option,
                  char* value);
// Names of the entries of a directory, one per line, in a per-thread 10,000-byte buffer;
// null (after "can't open %s\n") when the directory cannot be opened.
const char* sdkls(const char* dir);

}  // namespace fsu::support
