// Pure pieces of the simulated lines: what a termios record means for the pace of a line, the
// bounded queue of a far end, and how control lines find their commands.
#include <gtest/gtest.h>

#include <string>
#include <termios.h>
#include <tuple>
#include <vector>

#include "sim/byte_queue.h"
#include "sim/control.h"
#include "sim/line_settings.h"

namespace fsu::sim {
namespace {

TEST(LineSettings, CountEveryBitOfACharacter) {
  // A parity-odd flag without parity enabled, as a pseudo-terminal reports it, is no parity.
  for (const auto& [speed, cflag, format, per_second] :
       {std::tuple{B115200, tcflag_t{CS8}, "8N1", 11520.0}, {B9600, CS7 | PARENB | PARODD | CSTOPB, "7O2", 9600.0 / 11},
        {B300, CS5 | PARENB, "5E1", 37.5}, {B600, CS8 | PARODD, "8N1", 60.0}, {B0, CS8, "8N1", 0.0}}) {
    termios tio{};
    cfsetospeed(&tio, speed);
    tio.c_cflag |= cflag;
    const LineSettings settings = line_settings(tio);
    EXPECT_EQ(settings.format(), format);
    EXPECT_DOUBLE_EQ(settings.bytes_per_second(), per_second) << format;
  }
}

TEST(ByteQueue, KeepsOrderAcrossTheWrapAndDropsWhatDoesNotFit) {
  ByteQueue queue(8);
  EXPECT_EQ(queue.push(std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6}), 6u);
  queue.pop(5);
  EXPECT_EQ(queue.push(std::vector<std::uint8_t>{7, 8, 9, 10, 11, 12, 13, 14, 15}), 7u);
  std::vector<std::uint8_t> out;
  while (!queue.empty()) {
    const auto run = queue.front();
    out.insert(out.end(), run.begin(), run.end());
    queue.pop(run.size());
  }
  EXPECT_EQ(out, (std::vector<std::uint8_t>{6, 7, 8, 9, 10, 11, 12, 13}));
}

TEST(CommandTable, PicksTheCommandByItsFirstWord) {
  CommandTable table;
  std::vector<std::string> seen;
  table.add("ai", "ai N VOLTS", [&](std::span<const std::string_view> args) {
    for (const auto arg : args) seen.emplace_back(arg);
    return args.size() == 2 ? std::string() : std::string("needs a channel and a value");
  });
  table.add("modem", "modem pull|plug", [](std::span<const std::string_view>) { return std::string(); });
  EXPECT_EQ(table.run("ai\t3   2.5"), "");
  EXPECT_EQ(seen, (std::vector<std::string>{"3", "2.5"}));
  EXPECT_EQ(table.run("aim 3"), "\"aim 3\": unknown command (commands: ai, modem)");
  EXPECT_EQ(table.run(std::string(100, 'z') + "\x1b"),
            "\"" + std::string(80, 'z') + "...\": unknown command (commands: ai, modem)");
}

}  // namespace
}  // namespace fsu::sim
