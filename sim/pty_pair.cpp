#include "sim/pty_pair.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace fsu::sim {

PtyPair::~PtyPair() { close(); }

bool PtyPair::open(std::string* error) {
  close();
  const auto fail = [&](const char* what) {
    if (error != nullptr) *error = std::string(what) + ": " + std::strerror(errno);
    close();
    return false;
  };
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master_ < 0) return fail("cannot open a pseudo-terminal");
  char name[64];
  if (grantpt(master_) != 0 || unlockpt(master_) != 0 || ptsname_r(master_, name, sizeof name) != 0) {
    return fail("cannot unlock a pseudo-terminal");
  }
  slave_path_ = name;
  slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (slave_ < 0) return fail("cannot open the pseudo-terminal's slave");
  const int flags = fcntl(master_, F_GETFL);
  if (flags < 0 || fcntl(master_, F_SETFL, flags | O_NONBLOCK) != 0) return fail("cannot set up the master");
  termios tio{};
  if (tcgetattr(master_, &tio) != 0) return fail("cannot read the line settings");
  cfmakeraw(&tio);
  cfsetispeed(&tio, B9600);
  cfsetospeed(&tio, B9600);
  if (tcsetattr(master_, TCSANOW, &tio) != 0) return fail("cannot set the line raw");
  return true;
}

void PtyPair::close() {
  if (slave_ >= 0) ::close(slave_);
  if (master_ >= 0) ::close(master_);
  slave_ = master_ = -1;
  slave_path_.clear();
}

LineSettings PtyPair::settings() const {
  termios tio{};
  if (master_ < 0 || tcgetattr(master_, &tio) != 0) return {};
  return line_settings(tio);
}

}  // namespace fsu::sim
