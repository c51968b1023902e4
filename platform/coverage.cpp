#include "platform/coverage.h"

#include <csignal>
#include <initializer_list>

#ifdef FSU_COVERAGE_BUILD
extern "C" void __gcov_dump(void) __attribute__((weak));
#endif

namespace fsu::platform {

void flush_coverage() {
#ifdef FSU_COVERAGE_BUILD
  if (__gcov_dump != nullptr) __gcov_dump();
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
