// Pure pieces of the simulated lines: what a termios record means for the pace of a line, the
// bounded queue of a far end, and how control lines find their commands.
#include <gtest/gtest.h>

#include <string>
#include <termios.h>
#include <vector>

#include "sim/byte_queue.h"
#include "sim/control.h"
#include "sim/line_settings.h"

namespace fsu::sim {
namespace {

termios record(speed_t speed, tcflag_t cflag) {
  termios tio{};
  cfsetospeed(&tio, speed);
  tio.c_cflag |= cflag;
  return tio;
}

TEST(LineSettings, CountEveryBitOfACharacter) {
  const LineSettings plain = line_settings(record(B115200, CS8));
  EXPECT_EQ(plain.baud, 115200u);
  EXPECT_EQ(plain.format(), "8N1");
  EXPECT_DOUBLE_EQ(plain.bytes_per_second(), 11520.0);

  const LineSettings odd = line_settings(record(B9600, CS7 | PARENB | PARODD | CSTOPB));
  EXPECT_EQ(odd.format(), "7O2");
  EXPECT_EQ(odd.bits_per_byte(), 11);
  EXPECT_EQ(line_settings(record(B300, CS5 | PARENB)).format(), "5E1");
  // A parity-odd flag without parity enabled, as a pseudo-terminal reports it, is no parity.
  EXPECT_EQ(line_settings(record(B600, CS8 | PARODD)).format(), "8N1");
  EXPECT_EQ(line_settings(record(B0, CS8)).bytes_per_second(), 0.0);
}

TEST(ByteQueue, KeepsOrderAcrossTheWrapAndDropsWhatDoesNotFit) {
  ByteQueue queue(8);
  const std::vector<std::uint8_t> first{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(queue.push(first), 6u);
  queue.pop(5);
  const std::vector<std::uint8_t> second{7, 8, 9, 10, 11, 12, 13, 14, 15};
  EXPECT_EQ(queue.push(second), 7u);
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
  EXPECT_EQ(table.run("ai 3"), "\"ai 3\": needs a channel and a value; usage: ai N VOLTS");
  EXPECT_EQ(table.run("aim 3"), "\"aim 3\": unknown command (commands: ai, modem)");
  EXPECT_EQ(table.run(std::string(100, 'z') + "\x1b"),
            "\"" + std::string(80, 'z') + "...\": unknown command (commands: ai, modem)");
}

}  // namespace
}  // namespace fsu::sim
