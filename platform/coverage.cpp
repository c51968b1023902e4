#include "platform/coverage.h"

#include <csignal>
#include <initializer_list>

#ifdef FSU_COVERAGE_BUILD
// libgcov's, linked into every program of a --coverage build. Not weak: a weak reference would
// not take the call's member out of the libgcov archive.
extern "C" void __gcov_dump(void);
#endif

namespace fsu::platform {

void flush_coverage() {
#ifdef FSU_COVERAGE_BUILD
  __gcov_dump();
#endif
}

void flush_coverage_on_signals() {
#ifdef FSU_COVERAGE_BUILD
  struct sigaction action {};
  action.sa_handler = [](int sig) {
    flush_coverage();
    raise(sig);  // the handler was reset on entry: the signal now ends the process
  };
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (const int sig : {SIGTERM, SIGINT, SIGHUP}) sigaction(sig, &action, nullptr);
#endif
}

}  // namespace fsu::platform
