#include "sdk/lifecycle.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "fsusdk.h"
#include "platform/caller_text.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/console_output.h"
#include "platform/process_memory.h"
#include "platform/safe_file.h"
#include "platform/sandbox_root.h"
#include "board/software_watchdog.h"
#include "gps/position_mode.h"
#include "lte/lte_supervisor.h"
#include "sdk/clock_repair.h"
#include "sdk/resource_catalogue.h"
#include "sdk/sdk_leds.h"
#include "sdk/web_requests.h"
#include "serial/serial_ports.h"
#include "support/bounded_text.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"

namespace fsu::sdk {
namespace {

using platform::DevicePath;
using support::SDK_LOG_SYS;
using support::SDK_LOG_WRITE;

std::atomic<int> sdk_init{0};
std::atomic<int> RTC_IS_Err{0};
std::atomic<int> system_init_done{0};

// The hardware information record, 62 bytes of text and its terminator.
constexpr char kHardwareInformation[] = "{\"产品型号\":\"KTRV-QX\",\"生产日期\":\"2023-01-16 00:00:0\"}";
static_assert(sizeof kHardwareInformation == 63);

}  // namespace

const char* build_date() { return __DATE__; }
const char* build_time() { return __TIME__; }

int WriteSdkversion_to_file() {
  // The bytes the device's shell line `echo "Version:Sdk-...\r\n" >/tmp/sdkversion` leaves: the
  // text with a real carriage return and line feed, and echo's own line feed. Written as a new
  // file renamed in place, since a shell redirection would follow a link planted at the name.
  char text[256];
  support::BoundedText line(text, sizeof text);
  line.append("Version:Sdk-%s%s-%s-%s\r\n\n", kEdition, kVersion, build_date(), build_time());
  return platform::replace_file("/tmp/sdkversion", text, line.length(), 0666);
}

void SYSTEM_INIT() {
  if (system_init_done.exchange(1) == 0) BOARD_HARDWARE_RESOURCES_INIT();
}

void HW_RESOURCES_CHECK() {
  char output[4096] = {};
  support::syscmd_read("hwclock -r", output, sizeof output);
  fsu::platform::sdk_printf("rtc:%s\r\n", output);
  if (output[0] == '\0') RTC_IS_Err.store(1);
  fsu::platform::sdk_printf("rtc %d\r\n", RTC_IS_Err.load());
}

int HW_RTC_IS_Err() { return RTC_IS_Err.load(); }

}  // namespace fsu::sdk

using namespace fsu::sdk;
using fsu::platform::DevicePath;
using fsu::support::SDK_LOG_SYS;
using fsu::support::LogText;
using fsu::support::SDK_LOG_WRITE;

extern "C" int InitializeSDK(void) {
  if (sdk_init.exchange(1) == 1) return -1;
  fsu::platform::bound_malloc_arenas();  // before the SDK's threads start
  WriteSdkversion_to_file();
  fsu::support::SDK_LOG_PAR_INIT();
  SDK_LOG_WRITE(SDK_LOG_SYS, "InitializeSDK");
  SYSTEM_INIT();
  sdk_start_log();
  fsu::serial::M_COM_INIT();
  fsu::serial::BSP_BAU_INIT();
  fsu::serial::FSU_COM_READ_THREAD_START();
  fsu::lte::FSU_Lte_THREAD_START();
  fsu::board::bsp_SoftDog_Init();
  // Give the board links time to answer before the counts are taken from their flags.
  fsu::platform::sleep_s(2);
  BSP_Resource_CHECK();
  API_WEB_TEST_FUN();
  fsu::board::soft_dog_run(0);
  HW_RESOURCES_CHECK();
  HW_RESOURCES_CHECK_FUN();
  fsu::gps::GPS_DEFAULT_SET();
  fsu::gps::GPS_MODE_UPDATE();
  SDK_LED_HANDLE();
  return 0;
}

extern "C" int UninitializeSDK(void) {
  SDK_LOG_WRITE(SDK_LOG_SYS, "UninitializeSDK");
  return 0;
}

extern "C" int ReadSDKVersion(char* buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  std::memset(buf, 0, static_cast<std::size_t>(size));
  fsu::support::BoundedText text(buf, static_cast<std::size_t>(size));
  text.append("%s-%s", kEdition, kVersion);
  SDK_LOG_WRITE(SDK_LOG_SYS, "ReadSDKVersion(%s)", buf);
  return text.fits() ? 0 : -1;
}

extern "C" int UpdateSDK(const char* path) {
  SDK_LOG_WRITE(SDK_LOG_SYS, "UpdateSDK(%s)", LogText(path).c_str());
  if (path == nullptr || std::strstr(path, ".gz") == nullptr) return -1;
  // Only one file under the root may be moved: no relative path, option, ".." step or glob.
  if (!fsu::platform::caller_path_is_safe(path)) {
    SDK_LOG_WRITE(SDK_LOG_SYS, "UpdateSDK refused a path that is not one absolute file name");
    return -1;
  }
  const DevicePath archive(path);
  const DevicePath target("/tmp/dt_upgrade.gz");
  const fsu::platform::ShellWord quoted(archive.c_str());
  if (!archive.ok() || !quoted.ok()) return -1;
  // Anyone may plant an entry at the target in /tmp: a link to a folder would take the archive
  // elsewhere and the upgrade tool would read through it. An old archive goes too; a folder that
  // cannot be removed stops the upgrade.
  if (::unlink(target.c_str()) != 0 && errno != ENOENT) {
    SDK_LOG_WRITE(SDK_LOG_SYS, "UpdateSDK found something other than a file at /tmp/dt_upgrade.gz: nothing upgraded");
    return -1;
  }
  // The upgrade tool takes whatever lies at the target: after a failed move, that is an older
  // archive, which must not be installed.
  if (fsu::platform::run_commandf("mv %s %s", quoted.c_str(), target.c_str()) != 0) {
    SDK_LOG_WRITE(SDK_LOG_SYS, "UpdateSDK could not move the archive: nothing upgraded");
    return -1;
  }
  fsu::platform::run_command("kvupgrade -f >/dev/null 2>&1 &");
  return 0;
}

extern "C" int ReadHardwareInformation(void* buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  if (static_cast<std::size_t>(size) < sizeof kHardwareInformation) {
    static_cast<char*>(buf)[0] = '\0';
    return -1;
  }
  std::memcpy(buf, kHardwareInformation, sizeof kHardwareInformation);
  SDK_LOG_WRITE(SDK_LOG_SYS, "ReadHardwareInformation(%s)", kHardwareInformation);
  return 0;
}
