// benchkit: the test console of the FSU. Without arguments it serves the numbered menu; with
// the single argument "web" it runs unattended beside the device's web pages. The single
// arguments --help and --version answer and run nothing; any other arguments give the menu.
#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "console/console_texts.h"
#include "console/menu.h"
#include "console/test_routines.h"
#include "console/web_mode.h"
#include "fsusdk.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/coverage.h"
#include "support/sdk_log.h"

namespace {

constexpr char kUsage[] =
    "usage:\n"
    "  benchkit            stop the resident applications, start the SDK and serve the numbered\n"
    "                      test menu on standard input, until the input ends\n"
    "  benchkit web        run unattended beside the device's web pages, until killed\n"
    "  benchkit --version  the SDK's version\n"
    "  --english (before the rest), or FSU_LANG=en: the menu and messages in English\n"
    "On a PC, run it on the simulated board: fsusim run -- benchkit (docs/benchkit.md).\n";

constexpr const char* kStarLine = "\r\n/***********************************************************/\r";

// Resident applications of the device that would compete for the ports and LEDs.
constexpr const char* kResidentStops[] = {
    "killall /product/app/bin/fieldsvc", "killall fieldsvc", "killall fieldsvc_tf_listen",
    "killall kvwatch", "killall kvserve"};

pthread_t LED_thread;
pthread_t comloop_thread;
pthread_t aodo_listen_thread;
pthread_t ppp0_listen_thread;

[[noreturn]] void web_mode() {
  std::puts(kStarLine);
  std::fputs(fsu::console::tr("配合网页模式(主动关闭白盒软件,如需开启重启设备)\r\n该模式下，q默认开启串口回环测试(9600,N,8,1,0)，"
                              "AODO 监听控制模式，\r\n1分钟检测一次PPP0，如没有则调用一次PPP0拨号\r\n 流水灯闪烁模式"),
             stdout);
  std::puts(kStarLine);
  std::fflush(stdout);
  fsu::platform::sleep_s(3);
  pthread_create(&comloop_thread, nullptr, fsu::console::COM_TEST_FUN, nullptr);
  pthread_create(&aodo_listen_thread, nullptr, fsu::console::AODO_LISTEN_CONTROL, nullptr);
  pthread_create(&ppp0_listen_thread, nullptr, fsu::console::PPP0_LISTEN_FUN, nullptr);
  for (;;) fsu::platform::sleep_s(3600);  // the work is done by the threads
}

}  // namespace

int main(int argc, char** argv) {
  // The English rendering is asked for ahead of the console's own arguments.
  bool english = fsu::console::english_asked_by_environment();
  if (argc >= 2 && std::strcmp(argv[1], "--english") == 0) {
    english = true;
    argv[1] = argv[0];
    --argc;
    ++argv;
  }
  fsu::console::use_english(english);
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("benchkit %s-%s\n", FSUSDK_EDITION, FSUSDK_VERSION);
    return 0;
  }
  fsu::platform::flush_coverage_on_signals();  // web mode runs until killed
  for (const char* command : kResidentStops) fsu::platform::run_command(command);
  fsu::platform::sleep_s(2);
  InitializeSDK();
  fsu::support::SDK_LOG_PAR_INIT_NOPRINTF();
  fsu::support::SDK_LOG_PAR_INIT();
  pthread_create(&LED_thread, nullptr, fsu::console::LED_FUN, nullptr);
  if (argc == 2 && std::strcmp(argv[1], "web") == 0) web_mode();
  fsu::console::menu_loop(stdin);
  // End of input: leave at once, without running static destructors under the SDK's threads.
  std::fflush(stdout);
  fsu::platform::flush_coverage();
  _exit(0);
}
