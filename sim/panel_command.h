// The front panel's face in fsusim's command line: `fsusim panel --root DIR [--bind ADDR]` on a
// board that is up, and `fsusim run --panel [--bind ADDR] ...` together with an application.
#pragma once

#include <cstdio>
#include <memory>
#include <span>
#include <string>

#include "sim/panel_server.h"

namespace fsu::sim {

// The panel options of `run`: "--panel", and "--bind ADDR" (or --bind=ADDR), which implies it.
struct PanelChoice {
  bool wanted = false;
  std::string bind = kPanelLoopback;
};

// Takes the option at argv[*i] (and its value) when it is a panel option; false for any other.
// A --bind without a value sets *error.
bool panel_option(int argc, char* const* argv, int* i, PanelChoice* choice, std::string* error);

// Starts the panel on the board in `root` and prints its address in one line on `out` (and
// what a bind beyond the loopback exposes on `err`). Null, with the reason on `err`, when it
// cannot listen.
std::unique_ptr<Panel> open_panel(const PanelChoice& choice, const std::string& root, std::FILE* out, std::FILE* err);

// `fsusim panel` with its arguments: serves until SIGINT, SIGTERM or SIGHUP. Returns the exit
// status: 0 stopped, 1 cannot serve, 2 bad arguments.
int panel_command(std::span<char* const> args, std::FILE* out, std::FILE* err);

// The usage lines of the panel.
extern const char kPanelUsage[];

}  // namespace fsu::sim
