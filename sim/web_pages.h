// The device's web pages, played from the PC: a request file dropped the way a page must drop
// it (written under another name, then renamed into place), its answer awaited and shown, and
// the console's shared counter segment read from outside the console.
#pragma once

#include <cstdio>
#include <span>
#include <string>
#include <vector>

namespace fsu::sim {

// The counter segment the console keeps in web mode and for its factory loopback test: key
// 1236 on the device (a key of the sandbox's own here), 1728 bytes, the sent-byte counters of
// ports 1 to 16 and then their received-byte counters (32-bit ints) at its start.
constexpr int kCounterSegmentKey = 1236;
constexpr std::size_t kCounterSegmentSize = 1728;
constexpr int kCounterPorts = 16;

struct PortCounters {
  int sent[kCounterPorts];
  int received[kCounterPorts];
};

// Reads the counters of the console working in `root`; false with a reason when there is no
// usable segment: none, or one of another size or a mode other than 0600.
bool read_counters(const std::string& root, PortCounters* counters, std::string* error);
// Removes that segment (the board of `root` stops, or its sandbox is going away).
void remove_counter_segment(const std::string& root);

// `fsusim web` with its arguments (an action and the action's own); prints the answer on `out`
// and problems on `err`. Returns the exit status: 0 answered, 1 no answer, 2 bad arguments.
int web_command(const std::string& root, std::span<char* const> args, std::FILE* out, std::FILE* err);
// The same with the answer and the problems gathered as texts, for the faces that show them
// (the front panel, scenario steps).
int web_command_texts(const std::string& root, std::vector<std::string> words, std::string* out, std::string* err);

// The actions and their arguments, for the usage text.
extern const char kWebUsage[];

}  // namespace fsu::sim
