// Commands of fsusim for a person at a shell looking at the units: `ls` (the running units),
// `term` (a raw terminal on the far end of a serial port), `clean` (a root removed) and the
// screen of `status --watch`. Each takes the words after its own name and returns the exit
// status: 0 done, 1 failed (with one line on standard error), 2 bad use.
#pragma once

#include <string>

#include "sim/unit_status.h"

namespace fsu::sim {

int command_ls(int argc, char** argv);
int command_term(int argc, char** argv);
int command_clean(int argc, char** argv);

// `status --watch`: the unit in `root` on one screen, redrawn in place until interrupted.
int watch_status(const std::string& root);

// The screen of `status --watch` for the state `status` of the unit in `root`: the LEDs,
// relays, 12 V lines, inputs, boards, modem and link, receiver and watchdog, a few lines each.
std::string status_screen(const std::string& root, const UnitStatus& status);

// One line on standard error for a command that failed ("fsusim: WHAT"); returns 1.
int failure(const std::string& what);
// One line naming what is wrong with a command line, rather than the whole usage; returns 2.
int bad_use(const std::string& what);

// The usage lines of these commands, for fsusim --help.
extern const char kCliUsage[];

}  // namespace fsu::sim
