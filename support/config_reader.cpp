#include "support/config_reader.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/console_output.h"
#include "platform/sandbox_root.h"
#include "support/file_helpers.h"
#include "support/thread_buffer.h"

namespace fsu::support {
namespace {

// Configuration files are small; a larger one is treated as unreadable so memory stays bounded.
constexpr long kMaxConfigSize = 1024 * 1024;
constexpr std::size_t kListingSize = 10000;

struct CachedConfig {
  const char* name;
  const char* path;
  std::vector<char> text;  // the whole file; empty when unloaded or unreadable
};

std::mutex g_cache_mutex;  // guards g_cache and g_reload
bool g_reload = true;
CachedConfig g_cache[] = {
    {"Device", "/etc/config/Device", {}},
    {"dtm", "/etc/config/dtm", {}},
    {"EnvironmentPar", "/etc/config/EnvironmentPar", {}},
    {"monitor", "/etc/config/monitor", {}},
    {"network", "/etc/config/network", {}},
    {"ks", "/etc/config/ks", {}},
};

// Reads a whole configuration file; false when it is missing, too large or unreadable.
bool read_config(const char* path, std::vector<char>& out) {
  const long size = FSU_get_file_size(path);
  if (size < 0 || size > kMaxConfigSize) return false;
  const int fd = FSU_get_fd(path);
  if (fd < 0) return false;
  std::vector<char> text(static_cast<std::size_t>(size));
  std::size_t got = 0;
  bool ok = true;
  while (got < text.size()) {
    const ssize_t n = read(fd, text.data() + got, text.size() - got);
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;  // the file shrank since its size was taken
    got += static_cast<std::size_t>(n);
  }
  close(fd);
  if (!ok) return false;
  text.resize(got);
  out = std::move(text);
  return true;
}

void ram_init_locked() {
  bool ok = true;
  for (CachedConfig& config : g_cache) {
    config.text = std::vector<char>();
    // A file that cannot be read stops this pass: it and the files after it stay empty.
    if (ok) ok = read_config(config.path, config.text);
  }
}

// Copies characters up to `stop` (or the end of the text) into `out`; false when the name
// is empty or longer than kUciNameSize - 1.
bool take_name(const char*& p, char stop, char* out) {
  std::size_t n = 0;
  while (*p != '\0' && *p != stop) {
    if (n + 1 >= kUciNameSize) return false;
    out[n++] = *p++;
  }
  out[n] = '\0';
  return n > 0;
}

// True when the word "config" stands in [from, to): the option found behind it belongs to a
// later section.
bool section_starts_between(const char* from, const char* to) {
  return memmem(from, static_cast<std::size_t>(to - from), "config", 6) != nullptr;
}

}  // namespace

bool fill_string(const char* command, char* config, char* section, char* option) {
  if (config == nullptr || section == nullptr || option == nullptr) return false;
  config[0] = section[0] = option[0] = '\0';
  static constexpr char kGet[] = "uci get ";
  if (command == nullptr || std::strstr(command, kGet) == nullptr) return false;
  // The names start eight characters into the text, wherever "uci get " was found.
  const char* p = command + (sizeof kGet - 1);
  const bool ok = take_name(p, '.', config) && *p++ == '.' && take_name(p, '.', section) &&
                  *p++ == '.' && take_name(p, '\0', option);
  if (!ok) config[0] = section[0] = option[0] = '\0';
  return ok;
}

bool uci_get_para(const char* text, std::size_t length, const char* section, const char* option,
                  char* value) {
  if (value == nullptr) return false;
  value[0] = '\0';
  if (text == nullptr || section == nullptr || option == nullptr) return false;
  char quoted_section[kUciNameSize + 2];
  char spaced_option[kUciNameSize + 2];
  const int qn = std::snprintf(quoted_section, sizeof quoted_section, "'%s'", section);
  const int on = std::snprintf(spaced_option, sizeof spaced_option, " %s ", option);
  if (qn < 0 || static_cast<std::size_t>(qn) >= sizeof quoted_section || on < 0 ||
      static_cast<std::size_t>(on) >= sizeof spaced_option) {
    return false;
  }
  const char* end = text + length;
  const char* in_section = static_cast<const char*>(memmem(text, length, quoted_section, qn));
  if (in_section == nullptr) return false;
  const char* hit = static_cast<const char*>(
      memmem(in_section, static_cast<std::size_t>(end - in_section), spaced_option, on));
  if (hit == nullptr || section_starts_between(in_section, hit)) return false;

  // The value stands in single quotes on the option's own line.
  const char* p = hit + on;
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  if (p == end || *p != '\'') return false;
  const char* start = ++p;
  while (p < end && *p != '\'' && *p != '\n') ++p;
  if (p == end || *p != '\'') return false;
  std::size_t n = static_cast<std::size_t>(p - start);
  if (n > kUciValueSize - 1) n = kUciValueSize - 1;
  std::memcpy(value, start, n);
  value[n] = '\0';
  return true;
}

const char* sdkuci_get_ram(const char* command) {
  thread_local ThreadBuffer<kUciValueSize> result_buffer;
  auto& result = result_buffer.text();
  result[0] = '\0';
  char config[kUciNameSize], section[kUciNameSize], option[kUciNameSize];
  if (!fill_string(command, config, section, option)) return result;
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  if (g_reload) {
    g_reload = false;
    ram_init_locked();
  }
  for (const CachedConfig& cached : g_cache) {
    if (std::strcmp(cached.name, config) == 0) {
      uci_get_para(cached.text.data(), cached.text.size(), section, option, result);
      break;
    }
  }
  return result;
}

const char* sdkuci_get_flash(const char* command) {
  thread_local ThreadBuffer<kUciValueSize> result_buffer;
  auto& result = result_buffer.text();
  result[0] = '\0';
  char config[kUciNameSize], section[kUciNameSize], option[kUciNameSize];
  // A configuration name never leaves /etc/config.
  if (!fill_string(command, config, section, option) || std::strchr(config, '/') != nullptr) {
    return result;
  }
  char path[sizeof "/etc/config/" + kUciNameSize];
  const int n = std::snprintf(path, sizeof path, "/etc/config/%s", config);
  std::vector<char> text;
  if (n > 0 && read_config(path, text))
    uci_get_para(text.data(), text.size(), section, option, result);
  return result;
}

void sdkuci_free() {
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  for (CachedConfig& config : g_cache) config.text = std::vector<char>();
  g_reload = true;
}

void ram_init() {
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  ram_init_locked();
}

const char* sdkls(const char* dir) {
  thread_local ThreadBuffer<kListingSize> listing_buffer;
  auto& listing = listing_buffer.text();
  if (dir == nullptr) return nullptr;
  const platform::DevicePath resolved(dir);
  DIR* d = resolved.ok() ? opendir(resolved.c_str()) : nullptr;
  if (d == nullptr) {
    fsu::platform::sdk_printf("can't open %s\n", dir);
    return nullptr;
  }
  std::size_t used = 0;
  listing[0] = '\0';
  // Names that no longer fit are left out; the listing stays whole-lined and terminated.
  while (const dirent* entry = readdir(d)) {
    const std::size_t n = std::strlen(entry->d_name);
    if (used + n + 1 >= kListingSize) break;
    std::memcpy(listing + used, entry->d_name, n);
    listing[used + n] = '\n';
    used += n + 1;
    listing[used] = '\0';
  }
  closedir(d);
  return listing;
}

}  // namespace fsu::support
