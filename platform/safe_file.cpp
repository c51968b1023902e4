#include "platform/safe_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/clock.h"
#include "platform/sandbox_root.h"

namespace fsu::platform {
namespace {

// Writes all `size` bytes, resuming after signals and short writes.
bool write_all(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

int open_retrying(const char* path, int flags, mode_t mode) {
  int fd;
  do {
    fd = open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// A regular file of this user with no other name: writing to it touches nothing else.
bool is_own_file(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
}

// "<folder>/.<name>.<pid>.<n>" beside `target`: a name that no other writer of ours uses.
bool temporary_name(const char* target, char* out, std::size_t size) {
  static std::atomic<unsigned> sequence{0};
  const char* slash = std::strrchr(target, '/');
  const int folder = slash != nullptr ? static_cast<int>(slash - target + 1) : 0;
  const int n = std::snprintf(out, size, "%.*s.%s.%ld.%u", folder, target, target + folder,
                              static_cast<long>(getpid()), sequence.fetch_add(1));
  return n > 0 && static_cast<std::size_t>(n) < size;
}

std::atomic<double> g_next_report{0};

}  // namespace

int replace_file(const char* path, const char* data, std::size_t size, mode_t mode) {
  const DevicePath target(path != nullptr ? path : "");
  char temporary[kPathSize];
  if (!target.ok() || path == nullptr || (data == nullptr && size > 0) ||
      !temporary_name(target.c_str(), temporary, sizeof temporary)) {
    report_file_failure("open", path, ENAMETOOLONG);
    errno = ENAMETOOLONG;
    return -1;
  }
  // O_EXCL creates the file or fails; it never opens what another user put at the name.
  const int fd = open_retrying(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
  if (fd < 0) {
    const int err = errno;
    report_file_failure("open", path, err);
    errno = err;
    return -1;
  }
  const char* step = nullptr;
  if (!write_all(fd, data, size)) step = "write";
  if (close(fd) != 0 && step == nullptr) step = "write";
  if (step == nullptr && std::rename(temporary, target.c_str()) != 0) step = "rename";
  if (step == nullptr) return 0;
  const int err = errno;
  unlink(temporary);
  report_file_failure(step, path, err);
  errno = err;
  return -1;
}

int open_own_file(const char* path, int flags, mode_t mode) {
  const DevicePath file(path != nullptr ? path : "");
  if (!file.ok() || path == nullptr) {
    report_file_failure("open", path, ENAMETOOLONG);
    errno = ENAMETOOLONG;
    return -1;
  }
  // O_NONBLOCK: a planted FIFO without a reader fails the open (ENXIO) instead of stopping the
  // writer; on a regular file the flag changes nothing.
  const int open_flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | (flags & O_APPEND);
  int fd = open_retrying(file.c_str(), open_flags, mode);
  if (fd >= 0 && is_own_file(fd)) return fd;
  if (fd >= 0) {
    close(fd);
  } else if (errno != ELOOP && errno != ENXIO) {  // not something planted: a real failure
    const int err = errno;
    report_file_failure("open", path, err);
    errno = err;
    return -1;
  }
  // A link, a hard link, a FIFO or another user's file: the name goes (the file it led to is
  // left as it is) and a new file of our own takes it.
  unlink(file.c_str());
  fd = open_retrying(file.c_str(), open_flags | O_EXCL, mode);
  if (fd >= 0) return fd;
  const int err = errno;
  report_file_failure("open", path, err);
  errno = err;
  return -1;
}

void report_file_failure(const char* what, const char* path, int err) {
  const double now = monotonic_seconds();
  double due = g_next_report.load();
  // One thread per period wins the exchange and prints.
  do {
    if (now < due) return;
  } while (!g_next_report.compare_exchange_weak(due, now + kFileFailurePeriod));
  std::fprintf(stderr, "%s %s: %s (further file failures for %.0f s not shown)\n", what,
               path != nullptr ? path : "(null)", std::strerror(err), kFileFailurePeriod);
}

}  // namespace fsu::platform
