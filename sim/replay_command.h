// `fsusim record` and `fsusim replay`: a unit's serial traffic written as the SDK's hex traffic
// log, and a capture (such a log, or a receiver's NMEA) played into a running unit from the
// far end of its ports. Each takes the words after its own name and returns the exit status:
// 0 done, 1 failed (the unit not up, a line the board refused), 2 bad use or a capture that
// does not parse.
#pragma once

namespace fsu::sim {

int command_record(int argc, char** argv);
int command_replay(int argc, char** argv);

// The usage lines of both, for fsusim --help.
extern const char kReplayUsage[];

}  // namespace fsu::sim
