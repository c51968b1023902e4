#include "serial/uart_driver.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/console_output.h"
#include "platform/sandbox_root.h"
#include "support/sdk_log.h"

namespace fsu::serial {
namespace {

std::uint32_t fail(const char* function, int line, std::uint32_t code) {
  print_error(function, line, code);
  return code;
}

void driver_line(const char* text);

void assert_null(const char* function, int line) {
  char text[160];
  std::snprintf(text, sizeof text, "ASSERT: FILE: %s, FUNCTION:%s, LINE: %d, x=NULL!", kDriverModule, function, line);
  driver_line(text);
}

struct BaudRow {
  std::uint32_t rate;
  speed_t speed;
};
constexpr BaudRow kBaudTable[] = {{300, B300},     {600, B600},     {1200, B1200},   {1800, B1800},
                                  {2400, B2400},   {4800, B4800},   {9600, B9600},   {19200, B19200},
                                  {38400, B38400}, {57600, B57600}, {115200, B115200}};

// How ports are opened. Non-blocking, so that a write waits for room only as long as
// write_bound_seconds allows (reads return at once anyway: VMIN = VTIME = 0); no controlling
// terminal, so that a session leader without one (a service) is not hung up with the line;
// close-on-exec, so that no shell command the SDK runs inherits a port.
constexpr int kPortOpenFlags = O_RDWR | O_DSYNC | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;

// A UART driver's transmit buffer (one page) may hold this many bytes ahead of a write.
constexpr double kQueuedBytes = 4096;
// The longest frame on the line: start, 8 data, parity and 2 stop bits.
constexpr double kBitsPerByte = 12;

// How long a write of len bytes may wait for the port: the time the line needs for what the
// driver may already hold and for these bytes at the port's rate, plus a second. A line that
// takes nothing for that long has a far end that does not read.
double write_bound_seconds(int fd, std::uint32_t len) {
  std::uint32_t rate = kBaudTable[0].rate;  // an unknown speed counts as the slowest
  termios t{};
  if (tcgetattr(fd, &t) == 0) {
    for (const BaudRow& r : kBaudTable) {
      if (r.speed == cfgetospeed(&t)) rate = r.rate;
    }
  }
  return 1.0 + (kQueuedBytes + len) * kBitsPerByte / rate;
}

// One write call, after waiting until `deadline` for the port to take bytes; -1 with errno
// ETIMEDOUT when it took none in time.
ssize_t write_when_ready(int fd, const std::uint8_t* p, std::size_t n, double deadline) {
  for (;;) {
    const ssize_t w = write(fd, p, n);
    if (w > 0 || (w < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) return w;
    const double left = deadline - platform::monotonic_seconds();
    if (left <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    pollfd ready{fd, POLLOUT, 0};
    poll(&ready, 1, static_cast<int>(left * 1000) + 1);
  }
}

// Writes all of buf to fd within the port's bound; false on a failing or timed-out write.
bool write_all(int fd, const std::uint8_t* p, std::uint32_t len, std::uint32_t* total) {
  const double deadline = platform::monotonic_seconds() + write_bound_seconds(fd, len);
  while (*total < len) {
    const ssize_t n = write_when_ready(fd, p + *total, len - *total, deadline);
    if (n < 0) return false;
    *total += static_cast<std::uint32_t>(n);
  }
  return true;
}

// Why ports are missing, once told in words: the driver's ERROR lines about ports that are not
// open then add nothing, and go to the log only.
std::atomic<bool> g_ports_explained{false};

// The process holding an advisory lock on the file open at `fd`, from /proc/locks, or 0.
long lock_holder(int fd) {
  struct stat st{};
  if (fstat(fd, &st) != 0) return 0;
  char wanted[64];
  std::snprintf(wanted, sizeof wanted, ":%lu ", static_cast<unsigned long>(st.st_ino));
  std::FILE* locks = std::fopen("/proc/locks", "re");
  if (locks == nullptr) return 0;
  long holder = 0;
  char line[256];
  for (int n = 0; n < 4096 && holder == 0 && std::fgets(line, sizeof line, locks) != nullptr; ++n) {
    // "1: FLOCK  ADVISORY  WRITE 4242 00:1a:7 0 EOF": the pid, then major:minor:inode.
    long pid = 0;
    char device[64] = {};
    if (std::strstr(line, "FLOCK") == nullptr || std::sscanf(line, "%*s %*s %*s %*s %ld %63s", &pid, device) != 2) {
      continue;
    }
    const std::size_t len = std::strlen(device);
    device[len] = ' ';  // the inode field ends the text: match it with its blank
    if (len + 1 < sizeof device && std::strstr(device, wanted) != nullptr && pid > 0) holder = pid;
  }
  std::fclose(locks);
  return holder;
}

// One SDK process per unit: an open port holds an advisory lock, so that a second process is
// told the ports are taken instead of both silently stealing each other's bytes.
bool take_port(int fd, const char* path) {
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
  static std::atomic<bool> told{false};
  if (!told.exchange(true)) {
    const long holder = lock_holder(fd);
    const char* digit = path + std::strlen(path) - 1;
    if (holder > 0) {
      platform::sdk_printf("SDK: UART %c is held by process %ld; one program at a time may use the unit's serial "
                           "ports, this one leaves the taken ports alone\n",
                           *digit, holder);
    } else {
      platform::sdk_printf("SDK: %s is taken by another SDK process; one program at a time may use the unit's "
                           "serial ports, this one leaves the taken ports alone\n",
                           path);
    }
    g_ports_explained.store(true);
    support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "serial ports taken by another process %ld (%s)", holder, path);
  }
  return false;
}

// A sandbox whose port device is missing holds a simulated unit that is not running: said once,
// in words, instead of a driver error for every read of every port.
void tell_unit_missing(const char* path) {
  static std::atomic<bool> told{false};
  if (told.exchange(true)) return;
  const char* root = platform::root();
  platform::sdk_printf("SDK: the simulated unit in %s is not running (%s%s is missing; fsusim up --root %s starts "
                       "it)\n",
                       root, root, path, root);
  g_ports_explained.store(true);
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "the simulated unit is not running (%s is missing)", path);
}

// The driver's ERROR, ASSERT and STUMP lines: past a few in a second, a line repeated within
// the second is held back and counted, and comes out again with the count a second later.
constexpr std::uint32_t kDriverBurst = 3;
void driver_line(const char* text) {
  static platform::RepeatFilter& filter = *new platform::RepeatFilter(1.0, kDriverBurst);  // used by threads past exit
  std::uint32_t held = 0;
  if (!filter.pass(text, platform::monotonic_seconds(), &held)) return;
  if (held == 0) {
    platform::sdk_printf("%s\n", text);
  } else {
    platform::sdk_printf("%s (%u more like it in the last second)\n", text, held);
  }
}

}  // namespace

void print_stump(int index, const char* function, int line) {
  char text[160];
  std::snprintf(text, sizeof text, "STUMP[%03d]: FILE: %s, FUNCTION: %s, LINE: %d.", index, kThreadModule, function,
                line);
  driver_line(text);
}

void print_error(const char* function, int line, std::uint32_t code) {
  char text[160];
  std::snprintf(text, sizeof text, "ERROR: FILE:%s, FUNCTION:%s, LINE:%d, ErrNo:0x%08x.", kDriverModule, function,
                line, code);
  if (code == BSP_COM_ERR_DEVICE && g_ports_explained.load()) {
    support::SDK_LOG_WRITE(support::SDK_LOG_SO, "%s", text);
    return;
  }
  driver_line(text);
}

const std::int32_t g_nComSlots = kComSlots;

BSP_COM_OBJ g_stComObj[kComSlots] = {
    {"/dev/ttymxc1", -1}, {"/dev/ttymxc2", -1}, {"/dev/ttymxc3", -1}, {"/dev/ttymxc4", -1},
    {"/dev/ttymxc5", -1}, {"/dev/ttymxc6", -1}, {"/dev/ttymxc7", -1}};

std::mutex COM_WRITE_LOCK[16];

std::uint32_t BSP_ComGetSlots() { return static_cast<std::uint32_t>(g_nComSlots); }

std::uint32_t BSP_ComCreate(std::uint32_t slot) {
  if (slot >= static_cast<std::uint32_t>(g_nComSlots)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  BSP_COM_OBJ& obj = g_stComObj[slot];
  // A port opened again is not left open twice: its lock would refuse the second open.
  if (const int old = obj.nFd.exchange(-1); old >= 0) close(old);
  int fd = open(platform::DevicePath(obj.szPath).c_str(), kPortOpenFlags);
  if (fd < 0 && errno == ENOENT && platform::in_sandbox()) tell_unit_missing(obj.szPath);
  if (fd >= 0 && !take_port(fd, obj.szPath)) {
    close(fd);
    fd = -1;
  }
  if (fd < 0 && g_ports_explained.load()) {
    support::SDK_LOG_WRITE(support::SDK_LOG_SO, "BSP_ComCreate(%d, %s) Failed !", static_cast<int>(slot), obj.szPath);
    return BSP_COM_ERR_DEVICE;
  }
  if (fd < 0) {
    fsu::platform::sdk_printf("BSP_ComCreate(%d, %s) Failed !\n", static_cast<int>(slot), obj.szPath);
    return fail(__func__, __LINE__, BSP_COM_ERR_DEVICE);
  }
  obj.nFd.store(fd);
  fsu::platform::sdk_printf("BSP_ComCreate(%d, %s) success !\n", static_cast<int>(slot), obj.szPath);
  return 0;
}

std::uint32_t BSP_ComDestroy(std::uint32_t slot) {
  if (slot >= static_cast<std::uint32_t>(g_nComSlots)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  const int fd = g_stComObj[slot].nFd.exchange(-1);
  if (fd >= 0) close(fd);
  return 0;
}

std::uint32_t BSP_ComGetCapbility(std::uint32_t slot, BSP_COM_CAPS* caps) {
  if (slot >= static_cast<std::uint32_t>(g_nComSlots)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  if (caps == nullptr) {
    assert_null(__func__, __LINE__);
    return BSP_COM_ERR_PARAM;
  }
  if (caps->nSize != sizeof(BSP_COM_CAPS)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  caps->nMinBaudrate = 600;
  caps->nMaxBaudrate = 115200;
  return 0;
}

std::uint32_t build_termios(const BSP_COM_PARAMS& params, termios* t) {
  cfmakeraw(t);
  const BaudRow* row = nullptr;
  for (const BaudRow& r : kBaudTable) {
    if (r.rate == params.nBaudrate) row = &r;
  }
  if (row == nullptr) {
    fsu::platform::sdk_printf("Unsupported nBaudrate %d\n", static_cast<int>(params.nBaudrate));
    return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  }
  cfsetispeed(t, row->speed);
  cfsetospeed(t, row->speed);

  switch (params.nParity) {
    case 0:
      t->c_cflag &= ~static_cast<tcflag_t>(PARENB);
      t->c_iflag &= ~static_cast<tcflag_t>(INPCK);
      break;
    case 1:
      t->c_cflag |= PARENB | PARODD;
      t->c_iflag |= INPCK;
      break;
    case 2:
      t->c_cflag |= PARENB;
      t->c_cflag &= ~static_cast<tcflag_t>(PARODD);
      t->c_iflag |= INPCK;
      break;
    default:
      fsu::platform::sdk_printf("Unsupported parity %d\n", static_cast<int>(params.nParity));
      return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  }

  t->c_cflag &= ~static_cast<tcflag_t>(CSIZE);
  switch (params.nDataBits) {
    case 5: t->c_cflag |= CS5; break;
    case 6: t->c_cflag |= CS6; break;
    case 7: t->c_cflag |= CS7; break;
    case 8: t->c_cflag |= CS8; break;
    default:
      fsu::platform::sdk_printf("Unsupported data bits %d\n", static_cast<int>(params.nDataBits));
      return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  }

  t->c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
  switch (params.nStopBits) {
    case 0:
    case 1: break;
    case 2: t->c_cflag |= CSTOPB; break;
    default:
      fsu::platform::sdk_printf("Unsupported stop bits %d\n", static_cast<int>(params.nStopBits));
      return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  }

  // Receiver on, modem lines ignored: the ports have no carrier to wait for or lose.
  t->c_cflag |= CLOCAL | CREAD;
  t->c_cc[VTIME] = 0;
  t->c_cc[VMIN] = 0;
  return 0;
}

std::uint32_t BSP_ComSetParams(std::uint32_t slot, const BSP_COM_PARAMS* params) {
  if (slot >= static_cast<std::uint32_t>(g_nComSlots)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  if (params == nullptr) {
    assert_null(__func__, __LINE__);
    return BSP_COM_ERR_PARAM;
  }
  if (params->nSize != sizeof(BSP_COM_PARAMS)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  const int fd = g_stComObj[slot].nFd.load();
  if (fd < 0) return fail(__func__, __LINE__, BSP_COM_ERR_DEVICE);

  termios t{};
  if (tcgetattr(fd, &t) != 0) {
    fsu::platform::sdk_printf("tcgetattr(%d) failed %d!!\n", static_cast<int>(slot), errno);
    return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  }
  if (const std::uint32_t rc = build_termios(*params, &t); rc != 0) return rc;
  if (const int rc = tcflush(fd, TCIOFLUSH); rc != 0) {
    fsu::platform::sdk_printf("tcflush(%d) failed!, %d\n ", static_cast<int>(slot), rc);
    return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  }
  if (const int rc = tcsetattr(fd, TCSANOW, &t); rc != 0) {
    fsu::platform::sdk_printf("Tcsetattr(Com = %d) failed !! %d\n", static_cast<int>(slot), rc);
    return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  }
  return 0;
}

std::uint32_t BSP_ComWrite(std::uint32_t slot, const void* buf, std::uint32_t len, std::uint32_t* written) {
  if (slot >= static_cast<std::uint32_t>(g_nComSlots)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  if (written == nullptr || (buf == nullptr && len > 0)) {
    assert_null(__func__, __LINE__);
    return BSP_COM_ERR_PARAM;
  }
  *written = 0;
  std::lock_guard<std::mutex> lock(COM_WRITE_LOCK[slot]);
  const int fd = g_stComObj[slot].nFd.load();
  if (fd < 0) return fail(__func__, __LINE__, BSP_COM_ERR_DEVICE);
  std::uint32_t total = 0;
  if (!write_all(fd, static_cast<const std::uint8_t*>(buf), len, &total)) {
    return fail(__func__, __LINE__, BSP_COM_ERR_IO);
  }
  *written = total;
  return 0;
}

std::uint32_t BSP_ComRead(std::uint32_t slot, void* buf, std::uint32_t len, std::uint32_t* nread) {
  if (slot >= static_cast<std::uint32_t>(g_nComSlots)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  if (nread == nullptr || buf == nullptr) {
    assert_null(__func__, __LINE__);
    return BSP_COM_ERR_PARAM;
  }
  *nread = 0;
  const int fd = g_stComObj[slot].nFd.load();
  if (fd < 0) return fail(__func__, __LINE__, BSP_COM_ERR_DEVICE);
  const ssize_t n = read(fd, buf, len);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;  // nothing has arrived
  if (n < 0) return fail(__func__, __LINE__, BSP_COM_ERR_IO);
  *nread = static_cast<std::uint32_t>(n);
  return 0;
}

std::uint32_t BSP_ComFlush(std::uint32_t slot) {
  if (slot >= static_cast<std::uint32_t>(g_nComSlots)) return fail(__func__, __LINE__, BSP_COM_ERR_PARAM);
  const int fd = g_stComObj[slot].nFd.load();
  if (fd < 0) return fail(__func__, __LINE__, BSP_COM_ERR_DEVICE);
  if (tcflush(fd, TCIOFLUSH) != 0) return fail(__func__, __LINE__, BSP_COM_ERR_DEVICE);
  return 0;
}

std::uint32_t GPS_COM_WRITE(const void* buf, std::uint32_t len, std::uint32_t* written) {
  if (written == nullptr || (buf == nullptr && len > 0)) {
    assert_null(__func__, __LINE__);
    return BSP_COM_ERR_PARAM;
  }
  *written = 0;
  const int fd = g_stComObj[6].nFd.load();
  if (fd < 0) return fail(__func__, __LINE__, BSP_COM_ERR_DEVICE);
  const auto* p = static_cast<const std::uint8_t*>(buf);
  const double deadline = platform::monotonic_seconds() + write_bound_seconds(fd, len);
  std::uint32_t total = 0;
  while (total < len) {
    const ssize_t n = write_when_ready(fd, p + total, len - total, deadline);
    // The buffer is logged as text: the receiver's commands are NMEA-style lines.
    support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "%d=GPS_COM_WRITE(%d,%.*s,%d)\r\n", static_cast<int>(n), fd,
                           static_cast<int>(len - total), reinterpret_cast<const char*>(p + total),
                           static_cast<int>(len - total));
    if (n < 0) return fail(__func__, __LINE__, BSP_COM_ERR_IO);
    total += static_cast<std::uint32_t>(n);
  }
  *written = total;
  return 0;
}

}  // namespace fsu::serial
