// Our additions to the public calls: results in words, how old each board's last answer is,
// the modem's state as one value and the position with its hemispheres.
#include <unistd.h>

#include "fsusdk.h"
#include "gps/gps_record.h"
#include "lte/ntu.h"
#include "platform/clock.h"
#include "platform/sandbox_root.h"
#include "serial/board_answers.h"
#include "serial/uart_driver.h"

namespace {

static_assert(FSU_ERR_COM_PARAM == fsu::serial::BSP_COM_ERR_PARAM && FSU_ERR_COM_IO == fsu::serial::BSP_COM_ERR_IO &&
              FSU_ERR_COM_DEVICE == fsu::serial::BSP_COM_ERR_DEVICE);
static_assert(FSU_BOARD_ENVIRONMENT == fsu::serial::kEnvironmentBoard);

struct ResultText {
  int code;
  const char* text;
};

constexpr ResultText kResultTexts[] = {
    {FSU_OK, "success"},
    {FSU_ERR_FAILED, "failed: unknown name, value out of range, null or short buffer, or the unit refused"},
    {FSU_ERR_UNSUPPORTED, "not supported on this unit"},
    {FSU_ERR_NO_ANSWER, "no answer yet: the board, receiver or modem has not answered since the SDK started"},
    {FSU_ERR_COM_PARAM, "serial port: bad parameter (slot, buffer or line setting)"},
    {FSU_ERR_COM_IO, "serial port: read or write failed or timed out"},
    {FSU_ERR_COM_DEVICE, "serial port: the device is missing, not open or cannot be set up"},
};

// Registered with a network: the registration status 1 (home) or 5 (roaming) of AT+CREG, kept
// as 101 and 105, or a service status with a service domain from AT^SYSINFO; and the modem has
// not since said twice that it has no service.
bool registered(const fsu::lte::Ntu& n) {
  if (n.noservice.load() >= 2) return false;
  const int status = n.srvstat.load();
  if (status == 101 || status == 105) return true;
  return status > 0 && status < 100 && n.srvdomain.load() > 0;
}

// On USB: a modem of the table was found and its AT port is there now (a pulled modem keeps its
// row until the next listing, but its port goes at once).
bool on_usb(const fsu::lte::Ntu& n) {
  char atdev[fsu::lte::kNtuTextSize];
  fsu::lte::ntu_text(fsu::lte::NtuText::atdev, atdev);
  const fsu::platform::DevicePath port(atdev);
  return n.mode_id.load() != 0 && atdev[0] != '\0' && port.ok() && ::access(port.c_str(), F_OK) == 0;
}

}  // namespace

extern "C" const char* FsuErrorText(int code) {
  for (const ResultText& row : kResultTexts) {
    if (row.code == code) return row.text;
  }
  return "unknown result";
}

extern "C" int FsuBoardAnswerAge(int board, double* seconds) {
  if (seconds == nullptr || board < FSU_BOARD_EXTENSION_1 || board > FSU_BOARD_ENVIRONMENT) return FSU_ERR_FAILED;
  *seconds = fsu::serial::board_answer_age(board, fsu::platform::monotonic_seconds());
  return *seconds < 0 ? FSU_ERR_NO_ANSWER : FSU_OK;
}

extern "C" int FsuModemState(void) {
  const fsu::lte::Ntu& n = fsu::lte::NTU;
  if (!on_usb(n)) return FSU_MODEM_ABSENT;
  if (fsu::lte::ntu_online()) return FSU_MODEM_ONLINE;
  return registered(n) ? FSU_MODEM_REGISTERED : FSU_MODEM_ON_USB;
}

extern "C" int FsuGetPosition(double* latitude, double* longitude) {
  if (latitude == nullptr || longitude == nullptr) return FSU_ERR_FAILED;
  const fsu::gps::GpsFix fix = fsu::gps::gps_fix();
  *latitude = fix.south ? -fix.latitude : fix.latitude;
  *longitude = fix.west ? -fix.longitude : fix.longitude;
  return fix.latitude == 0 && fix.longitude == 0 ? FSU_ERR_NO_ANSWER : FSU_OK;
}
