// The board's GPIO lines through the sysfs GPIO interface (/sys/class/gpio). Every operation
// opens its file, writes or reads a few bytes and closes it again.
#pragma once

namespace fsu::board {

// 0, or -1 after printing why.
int bsp_gpio_export(int gpio);
int bsp_gpio_unexport(int gpio);
// direction 0: "in", anything else: "out".
int bsp_gpio_direction(int gpio, int direction);
// value 0: "0", anything else: "1".
int bsp_gpio_write(int gpio, int value);
// The line's value (0 or 1), or -1.
int bsp_gpio_read(int gpio);
// edge 1 "rising", 2 "falling", 3 "both", anything else "none".
int bsp_gpio_edge(int gpio, int edge);

}  // namespace fsu::board
