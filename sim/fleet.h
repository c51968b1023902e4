// Many simulated units on one machine: `fsusim fleet N` starts units 1 to N, each a `fsusim run`
// of its own root with the identities its number gives it, and stops them all again; `--unit K`
// names unit K wherever a command takes a root.
#pragma once

#include <string>
#include <vector>

#include "sim/board.h"

namespace fsu::sim {

// What tells unit K apart from the others: its SIM's IMSI (4600012345 and K on 5 digits), its
// modem's IMEI (86612345 and K on 7 digits), its data link's address (10.64.K/256.K%256) and the
// position its receiver reports (0.001 degree north and east of the default per unit).
struct UnitIdentity {
  std::string imsi;
  std::string imei;
  std::string address;
  double latitude = 0;
  double longitude = 0;
};
UnitIdentity unit_identity(int number);

// The numbers a unit may have.
inline constexpr int kMaxUnitNumber = 99999;

// Takes "--unit K" (or "--unit=K") at argv[*i] for `run` and `up`: the board becomes unit K, with
// its identities. Returns false for any other argument; a bad number sets *error.
bool unit_option(int argc, char* const* argv, int* i, int* number, std::string* error);
// Makes the board unit `number` (nothing for 0): its number for the registry, and the control
// lines of its identities ahead of the other start-up lines, so that those may override them.
void number_unit(int number, BoardOptions* options);

// For the commands that take a root: replaces each "--unit K" in argv by "--root ROOT" of the
// running unit K, in place. Returns -1 when done, else the exit status after one line on
// standard error (2 bad use, 1 no such unit running, or more than one).
int units_as_roots(const char* command, int argc, char** argv);

// `fsusim fleet ...`: the words after "fleet"; returns the exit status.
int fleet_command(int argc, char** argv);

// The usage lines of `fleet` and `--unit`, for fsusim --help.
extern const char kFleetUsage[];

}  // namespace fsu::sim
