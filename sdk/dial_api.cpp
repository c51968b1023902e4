#include "sdk/dial_api.h"

#include <cstdio>
#include <cstring>

#include "board/software_watchdog.h"
#include "fsusdk.h"
#include "gps/gps_record.h"
#include "gps/position_mode.h"
#include "platform/caller_text.h"
#include "platform/command_runner.h"
#include "platform/sandbox_root.h"
#include "sdk/board_points.h"
#include "support/bounded_text.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"

namespace fsu::sdk {
namespace {

using lte::NTU;
using lte::NtuTexts;
using support::SDK_LOG_DEBUG;
using support::SDK_LOG_NET;
using support::SDK_LOG_SYS;
using support::SDK_LOG_WRITE;

constexpr int kPositionOff = 99999;
// A text field of NTU escaped for JSON: at most six bytes for each of its 19 characters.
constexpr std::size_t kEscapedSize = 6 * lte::kNtuTextSize;

// The length of the well-formed UTF-8 sequence at `p` (1 to 4 bytes), or 0: no overlong form,
// no surrogate, nothing above U+10FFFF. The terminator fails every continuation test, so the
// look-ahead stays inside the text.
std::size_t utf8_length(const unsigned char* p) {
  if (p[0] < 0x80) return 1;
  std::size_t n = 0;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (p[0] >= 0xC2 && p[0] <= 0xDF) {
    n = 2;
  } else if (p[0] >= 0xE0 && p[0] <= 0xEF) {
    n = 3;
    if (p[0] == 0xE0) low = 0xA0;
    if (p[0] == 0xED) high = 0x9F;
  } else if (p[0] >= 0xF0 && p[0] <= 0xF4) {
    n = 4;
    if (p[0] == 0xF0) low = 0x90;
    if (p[0] == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
  }
  return n;
}

// A value as a JSON string's content: '"' and '\' escaped, control characters as \u00XX,
// well-formed UTF-8 kept, and every other byte (the modem's bytes are no text) as U+FFFD, so
// that the texts are valid UTF-8 JSON whatever the devices sent.
struct Escaped {
  char text[kEscapedSize];
  explicit Escaped(const char* value) {
    std::size_t n = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(value); *p != '\0' && n + 7 <= kEscapedSize;) {
      const std::size_t length = utf8_length(p);
      if (*p == '"' || *p == '\\') {
        text[n++] = '\\';
        text[n++] = static_cast<char>(*p);
      } else if (*p < 0x20 || length == 0) {
        n += static_cast<std::size_t>(
            std::snprintf(text + n, kEscapedSize - n, "\\u%04x", *p < 0x20 ? static_cast<unsigned>(*p) : 0xFFFDu));
      } else {
        std::memcpy(text + n, p, length);
        n += length;
        p += length;
        continue;
      }
      ++p;
    }
    text[n] = '\0';
  }
};

bool starts_text(const char* text, const char* const (&codes)[4]) {
  for (const char* code : codes) {
    if (code != nullptr && std::strstr(text, code) != nullptr) return true;
  }
  return false;
}

int finish(const support::BoundedText& text) { return text.fits() ? 0 : -1; }

// No control characters: a line break in a password would split whatever line the account
// tool writes it into.
bool printable(const char* text) {
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != '\0'; ++p) {
    if (*p < 0x20 || *p == 0x7f) return false;
  }
  return true;
}

}  // namespace

void carrier_text(const char* cimi, char (&out)[16]) {
  std::snprintf(out, sizeof out, "%.5s", cimi);
  static constexpr const char* kMobile[4] = {"46000", "46002", "46007", "46004"};
  static constexpr const char* kUnicom[4] = {"46001", "46006", nullptr, nullptr};
  static constexpr const char* kTelecom[4] = {"46003", "46005", "46011", nullptr};
  if (std::strstr(out, "460") == nullptr) return;
  const char* carrier = starts_text(out, kMobile)    ? "CARRIER_MOBILE"
                        : starts_text(out, kUnicom)  ? "CARRIER_UNICOM"
                        : starts_text(out, kTelecom) ? "CARRIER_TELECOM"
                                                     : "CARRIER_MOBILE";
  std::snprintf(out, sizeof out, "%s", carrier);
}

int build_static_info(const NtuTexts& texts, char* buf, std::size_t size) {
  char carrier[16];
  carrier_text(texts.cimi, carrier);
  support::BoundedText text(buf, size);
  text.append(
      "{\"TelcomCarrier\":\"%s\",\"MFRS\":\"Quectel\", \"ModelName\":\"Quectel\", \"Model\":\"%s\", "
      "\"Version\":\"0.1\", \"IMEI\":\"%s\", \"IMSI\":\"%s\"}",
      Escaped(carrier).text, Escaped(texts.model).text, Escaped(texts.imei).text, Escaped(texts.cimi).text);
  return finish(text);
}

int build_dynamic_info(int card_stat, const NtuTexts& texts, int position_mode, double longitude, double latitude,
                       char* buf, std::size_t size) {
  support::BoundedText text(buf, size);
  text.append("{\"CardStat\":\"%d\", \"NetworkType\":\"%s\",\"SignalStrength\":\"%s\", \"IP\":\"%s\", ", card_stat,
              Escaped(texts.nettype).text, Escaped(texts.csq).text, Escaped(texts.lteip).text);
  if (position_mode != kPositionOff && position_mode != 0) {
    text.append("\"Longitude\":\"%f\", \"Latitude\":\"%f\",\"PositionMode\":\"%d\"}", longitude, latitude,
                position_mode);
  } else {
    text.append("\"Longitude\":\"NULL\", \"Latitude\":\"NULL\",\"PositionMode\":\"NULL\"}");
  }
  return finish(text);
}

}  // namespace fsu::sdk

using namespace fsu::sdk;
using fsu::lte::NTU;
using fsu::platform::ShellWord;
using fsu::support::LogText;
using fsu::support::SDK_LOG_DEBUG;
using fsu::support::SDK_LOG_NET;
using fsu::support::SDK_LOG_SYS;
using fsu::support::SDK_LOG_WRITE;

extern "C" int DialInit(void*) {
  SDK_LOG_WRITE(SDK_LOG_NET, "无线拨号初始化DialInit");
  return 0;
}

extern "C" int DialTerminate(void*) {
  SDK_LOG_WRITE(SDK_LOG_NET, "结束无线模块拨号DialTerminate");
  return 0;
}

extern "C" int DialDial(const char* param1, const char* param2) {
  NTU.pppdstart.store(1);
  SDK_LOG_WRITE(SDK_LOG_NET, "执行拨号动作(%s,%s)", LogText(param1).c_str(), LogText(param2).c_str());
  return 0;
}

extern "C" int DialIsOnline(void) {
  const bool online = fsu::lte::ntu_online();
  SDK_LOG_WRITE(SDK_LOG_NET, online ? "通过ppp0网卡获取相应的ip拨号成功" : "通过ppp0网卡获取相应的ip拨号失败");
  return online ? 0 : -1;
}

extern "C" int DialGetStaticInfo(char* buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  const int result = build_static_info(fsu::lte::ntu_texts(), buf, static_cast<std::size_t>(size));
  SDK_LOG_WRITE(SDK_LOG_NET, "获取无线模块静态信息DialGetStaticInfo(%s)", buf);
  return result;
}

extern "C" int DialGetDynamicInfo(char* buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  const fsu::lte::NtuTexts texts = fsu::lte::ntu_texts();
  const int card = texts.cimi[0] != '\0' ? 1 : 0;
  NTU.CardStat.store(card);
  const fsu::gps::GpsFix fix = fsu::gps::gps_fix();
  const int result = build_dynamic_info(card, texts, fsu::gps::Read_PositionMode(), fix.longitude, fix.latitude, buf,
                                        static_cast<std::size_t>(size));
  SDK_LOG_WRITE(SDK_LOG_NET, "获取无线模块动态信息DialGetDynamicInfo(%s)", buf);
  return result;
}

extern "C" int DialSoftReboot(void) {
  NTU.softreboot.store(1);
  SDK_LOG_WRITE(SDK_LOG_SYS, "无线模块软重启DialSoftReboot");
  return 0;
}

extern "C" int DialHardReboot(void) {
  SET_AO_12V_RESTART(0, 3);
  NTU.hardreboot.store(1);
  SDK_LOG_WRITE(SDK_LOG_SYS, "无线模块断电硬重启DialHardReboot");
  return 0;
}

extern "C" int SetRtc(const char* time) {
  if (time == nullptr) return -1;
  // The text stands inside single quotes: blanks are fine, quotes and the like are not.
  if (!fsu::platform::caller_text_is_safe(time, fsu::platform::Blanks::kAllowed)) {
    SDK_LOG_WRITE(SDK_LOG_SYS, "SetRtc refused text that could change its command");
    return -1;
  }
  // The device's 40-byte command buffer: the time is cut so that the command keeps its quote.
  char command[40];
  std::snprintf(command, sizeof command, "date -s '%.*s'", static_cast<int>(sizeof command - 11), time);
  fsu::platform::run_command(command);
  fsu::board::bsp_SoftDogFeed();
  fsu::platform::run_command("hwclock -w");
  fsu::board::bsp_SoftDogFeed();
  SDK_LOG_WRITE(SDK_LOG_SYS, "SetRtc %s;set_cmd=%s", LogText(time).c_str(), command);
  return 0;
}

extern "C" int SetFtp(const char* user, const char* password, const char* path) {
  // The password never reaches the log, whatever happens to the call.
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "fun=%s,usr =%s,password=%s,path=%s", "SetFtp", LogText(user).c_str(),
                password != nullptr ? "***" : "(null)", LogText(path).c_str());
  if (path == nullptr) return -1;
  // A plain account name and one absolute folder under the root; the password may hold
  // anything but control characters, since it stands quoted as one argument.
  const fsu::platform::DevicePath folder(path);
  const ShellWord name(user), secret(password), home(folder.c_str());
  if (!fsu::platform::caller_account_is_safe(user) || !fsu::platform::caller_path_is_safe(path) || !folder.ok() ||
      !secret.ok() || !home.ok() || !printable(password)) {
    SDK_LOG_WRITE(SDK_LOG_SYS, "SetFtp refused an account name, password or folder");
    return -1;
  }
  // Opened to everyone only when the folder is new: a path that turned up in the meantime
  // (a link planted after the check) is left as it is.
  if (fsu::support::IsFileExist(path) == 0 && fsu::platform::run_commandf("mkdir %s", home.c_str()) == 0) {
    fsu::platform::run_commandf("chmod 777 %s", home.c_str());
  }
  fsu::platform::run_commandf("user.sh del %s", name.c_str());
  fsu::platform::run_commandf("user.sh add %s %s %s", name.c_str(), secret.c_str(), home.c_str());
  return 0;
}

extern "C" int DelFtp(const char* user) {
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "fun=%s,usr =%s", "DelFtp", LogText(user).c_str());
  if (fsu::platform::caller_account_is_safe(user)) {
    fsu::platform::run_commandf("user.sh del %s", ShellWord(user).c_str());
  } else {
    SDK_LOG_WRITE(SDK_LOG_SYS, "DelFtp refused an account name");
  }
  return -1;
}

extern "C" int GetSupportedExtendType(void*) { return -2; }

extern "C" int AddExtend(void*) { return -1; }
