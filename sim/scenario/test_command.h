// `fsusim test SCENARIO.yaml... -- APP [ARG...]`: plays scenario files against an application on
// fresh simulated units and gives the verdict as an exit status (and a JUnit report).
#pragma once

namespace fsu::sim::scenario {

// The arguments after "test". Returns 0 when every scenario passed, 1 when one failed, 2 for bad
// use or a scenario file that does not load (nothing runs then), 128 + N after signal N.
int test_command(int argc, char** argv);

// The command's lines of `fsusim --help`.
extern const char kTestUsage[];

}  // namespace fsu::sim::scenario
