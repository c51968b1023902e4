// Which simulated units are running on this machine for this user: each board that comes up
// leaves a note (its process, root and, for a numbered unit of a fleet, its number) in a
// per-user runtime folder, and takes it away when it
// goes down. Notes of processes that died without going down are pruned by whoever lists them.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace fsu::sim {

struct RunningUnit {
  pid_t pid;
  std::string root;
  int number = 0;  // the unit's number (`--unit K`), 0 for a unit without one
};

// The folder of the notes: $FSUSIM_RUNTIME_DIR, else $XDG_RUNTIME_DIR/fsusim, else
// /tmp/fsusim-UID; made with mode 0700 and used only when it is a folder of this user's that
// nobody else may write (the folder may sit in /tmp, where anyone could have made it first).
// Empty when there is no such folder.
std::string registry_folder();

// Leaves the note of the board of process `pid` up in `root` (absolute), unit `number` (0: none);
// false when it cannot.
bool register_unit(pid_t pid, const std::string& root, int number = 0);
// Takes the note of process `pid` away.
void unregister_unit(pid_t pid);
// The units whose board process is alive and still holds the root its note names, by number
// and root; the notes of the others are removed.
std::vector<RunningUnit> running_units();

}  // namespace fsu::sim
