// Coverage builds write a process's counts when it returns from main or calls exit. The
// programs that leave by _exit (benchkit at the end of its input, a refused root) or are
// stopped by a signal (benchkit's web mode) write them through these calls; in every other
// build they do nothing.
#pragma once

namespace fsu::platform {

// Writes the counts gathered so far; the process's later exit does not write them twice.
void flush_coverage();
// SIGTERM, SIGINT and SIGHUP write the counts, then end the process as the signal would.
void flush_coverage_on_signals();

}  // namespace fsu::platform
