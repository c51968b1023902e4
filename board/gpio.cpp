#include "board/gpio.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "platform/console_output.h"
#include "platform/sandbox_root.h"

namespace fsu::board {
namespace {

// Writes `text` to the sysfs file at device path `path`. Cutting the file behind the text changes
// nothing on sysfs and keeps a plain file (the simulator's tree) holding exactly the last text
// written ("in" after "out"), without the moment of an empty file that truncating first gives.
int write_sysfs(const char* path, const char* text, const char* open_message, const char* write_message) {
  const int fd = open(platform::DevicePath(path).c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    fsu::platform::sdk_printf("%s", open_message);
    return -1;
  }
  const std::size_t len = std::strlen(text);
  const bool ok = write(fd, text, len) == static_cast<ssize_t>(len);
  if (ok) {
    const int cut = ftruncate(fd, static_cast<off_t>(len));  // sysfs may refuse: nothing to cut there
    (void)cut;
  }
  close(fd);
  if (!ok) {
    fsu::platform::sdk_printf("%s", write_message);
    return -1;
  }
  return 0;
}

void line_path(char (&out)[64], int gpio, const char* file) {
  std::snprintf(out, sizeof out, "/sys/class/gpio/gpio%d/%s", gpio, file);
}

}  // namespace

int bsp_gpio_export(int gpio) {
  char number[64];
  std::snprintf(number, sizeof number, "%d", gpio);
  return write_sysfs("/sys/class/gpio/export", number, "Failed to open export for writing!\n",
                     "Failed to export gpio!");
}

int bsp_gpio_unexport(int gpio) {
  char number[64];
  std::snprintf(number, sizeof number, "%d", gpio);
  return write_sysfs("/sys/class/gpio/unexport", number, "Failed to open unexport for writing!\n",
                     "Failed to unexport gpio!");
}

int bsp_gpio_direction(int gpio, int direction) {
  char path[64];
  line_path(path, gpio, "direction");
  return write_sysfs(path, direction == 0 ? "in" : "out", "Failed to open gpio direction for writing!\n",
                     "Failed to set direction!\n");
}

int bsp_gpio_write(int gpio, int value) {
  char path[64];
  line_path(path, gpio, "value");
  return write_sysfs(path, value == 0 ? "0" : "1", "Failed to open gpio value for writing!\n",
                     "Failed to write value!\n");
}

int bsp_gpio_read(int gpio) {
  char path[64];
  line_path(path, gpio, "value");
  const int fd = open(platform::DevicePath(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fsu::platform::sdk_printf("Failed to open gpio value for reading!\n");
    return -1;
  }
  char text[4] = {};
  const ssize_t n = read(fd, text, 3);
  close(fd);
  if (n < 0) {
    fsu::platform::sdk_printf("Failed to read value!\n");
    return -1;
  }
  return std::atoi(text);
}

int bsp_gpio_edge(int gpio, int edge) {
  static constexpr const char* kEdges[] = {"none", "rising", "falling", "both"};
  char path[64];
  line_path(path, gpio, "edge");
  return write_sysfs(path, edge >= 1 && edge <= 3 ? kEdges[edge] : kEdges[0], "Failed to open gpio edge for writing!\n",
                     "Failed to set edge!\n");
}

}  // namespace fsu::board
