// The AT conversations the LTE supervisor holds with the modem. Each query opens the AT device
// it is given, runs one exchange into out_put, parses the reply into NTU and closes the port.
// The reply parsers are functions of their own, for tests and fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lte/ntu.h"

namespace fsu::lte {

int send_ate(const char* atdev);
int send_ath(const char* atdev);
int send_DialSoftReboot(const char* atdev);
int readcsq(const char* atdev);
int read_sysinfo(const char* atdev);
int read_creg(const char* atdev);
int read_cops(const char* atdev);
int read_MINI1(const char* atdev);
void read_MINI(const char* atdev);
int readIMEI(const char* atdev);
int readEC800_info(const char* atdev);

// Reply parsers.
// The rssi of a "+CSQ: rssi,ber" reply, or -999.
int readCSQState(char* reply);
// The signal in dBm for an rssi (-999 for an unparsable reply), as NTU.csq holds it.
void csq_text(int rssi, char (&out)[kNtuTextSize]);
// A "^SYSINFO: srv,domain,roam,mode,sim" reply into NTU; the system mode when registered, or -1.
int ParseRegistrationState_GT9615(char* reply);
const char* sysinfo_nettype(int system_mode);
// The generation of a +COPS access technology: 0, 1, 3, 8 "2"; 2, 4, 5, 6 "3"; 7 and 9 up "4".
const char* cops_nettype(int access_technology);
// The status after the first comma of a "+CREG" reply, or -1 without a comma.
int creg_status(const char* reply);
// The number after the third comma of a "+COPS" reply, or -1 with fewer commas.
int cops_act(const char* reply);
// Identities. Every line of the modem ends up in the text the queries parse: the echo,
// unsolicited lines ("RDY", "+CPIN: READY", "^SYSINFO: ..."), a late reply to an earlier
// command. An identity is therefore taken only from the text's one run of six or more decimal
// digits, and only when that run has min_digits to max_digits digits; `out` gets it, or is
// cleared (no such run, two of them, or a run of the wrong length).
bool identity_digits(const char* text, std::size_t min_digits, std::size_t max_digits, char (&out)[kNtuTextSize]);
// Whether the whole text is an IMSI (6 to 15 decimal digits) or an IMEI (15 decimal digits).
bool is_imsi(const char* text);
bool is_imei(const char* text);
// The IMSI of an appended "AT+CIMI" reply (or of a "+CIMI: " line): 1 with `cimi` set, -1
// with `cimi` empty.
int parse_cimi(char* reply, char (&cimi)[kNtuTextSize]);
// The IMEI of an appended "AT+CGSN" reply: 1 with `imei` set to 15 digits (a hexadecimal
// answer "0X..." decoded), 0 with `imei` cleared (a candidate that is no IMEI), -1 when the
// reply fits no shape (`imei` untouched).
int parse_imei(char* reply, char (&imei)[kNtuTextSize]);
std::int64_t hex2dec(const char* text);
int c2i(char c);

}  // namespace fsu::lte
