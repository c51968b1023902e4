#include "sim/panel_feed.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "sim/unit_status.h"

namespace fsu::sim {
namespace {

// The request files the device's web pages drop and the answers the SDK writes, by device path.
constexpr const char* kWebFiles[] = {
    "/tmp/web_read_aidi",  "/tmp/AIDIIFO",           "/tmp/web_read_gps_info", "/tmp/gps_rt_info",
    "/tmp/web_read_gps_db", "/tmp/gps_db_info",      "/tmp/web_dtu_com",       "/tmp/web_dtu_com_log.log",
    "/tmp/web_set_log_save", "/tmp/set_com_attr",    "/tmp/set_all_doao_open", "/tmp/set_all_doao_close",
};
constexpr const char* kSdkLog = "/tmp/sdklog.log";

// The last `limit` bytes of a regular file (no link followed), or nullopt when there is none.
std::optional<std::string> file_tail(const std::string& path, std::size_t limit) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  std::optional<std::string> text;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    const off_t start = st.st_size > static_cast<off_t>(limit) ? st.st_size - static_cast<off_t>(limit) : 0;
    std::string buffer(limit, '\0');
    const ssize_t n = pread(fd, buffer.data(), limit, start);
    if (n >= 0) text = buffer.substr(0, static_cast<std::size_t>(n));
  }
  close(fd);
  return text;
}

// The log's tail from its first whole line.
std::string whole_lines(std::string text, std::size_t limit) {
  if (text.size() >= limit) {
    const std::size_t line = text.find('\n');
    text.erase(0, line == std::string::npos ? 0 : line + 1);
  }
  return text;
}

}  // namespace

std::string panel_snapshot(const std::string& root) {
  using nlohmann::json;
  json web = json::array();
  for (const char* file : kWebFiles) {
    if (auto text = file_tail(root + file, kPanelFileTail)) web.push_back({{"file", file}, {"text", *text}});
  }
  const auto log = file_tail(root + kSdkLog, kPanelLogTail);
  const auto calls = file_tail(root + "/sim/calls.log", kPanelFileTail);
  json feed = {{"root", root},
               {"web", web},
               {"log", whole_lines(log.value_or(""), kPanelLogTail)},
               {"calls", whole_lines(calls.value_or(""), kPanelFileTail)}};
  // The device's bytes may be anything: what is not UTF-8 shows as U+FFFD.
  std::string text = feed.dump(-1, ' ', false, json::error_handler_t::replace);
  const auto status = read_unit_status(root);
  text.pop_back();
  return text + ",\"status\":" + (status ? unit_status_json(*status) : std::string("null")) + "}";
}

}  // namespace fsu::sim
