// Which modem is on the USB port: the table of known modems, the lsusb match with its uci
// settings and driver registration, and the module's shell, address and key=value helpers.
#pragma once

#include <cstddef>

#include "lte/ntu.h"

namespace fsu::lte {

struct LteModel {
  const char* model;
  const char* usb_id;       // vendor:product as lsusb prints it
  const char* data_device;  // handed to PPP as listed
  const char* at_device;    // the AT command port
};

constexpr int ltemnum = 18;
// Rows 1 to 18 at index 0 to 17; the row number is NTU.mode_id.
extern const LteModel ltemm[ltemnum];

// The option driver's new_id text for a row ("0x2c7c 0x0125"), or null when it needs none.
const char* ltemm_new_id(int row);
// The first row (in table order) whose USB id occurs in `lsusb_output`, or 0.
int ltemm_row_in(const char* lsusb_output);

// Looks for a known modem in the first 256 bytes of lsusb's output; 1 when one is present.
int readusb();

// Command runners: up to 256 bytes of the command's output into `out` (which holds at least
// 257 bytes; null discards it), unless the output holds "Entry". uciread also drops trailing
// blanks, CR and LF.
void uci_read(const char* command, char* out);
void uciread(const char* command, char* out);
// The command's output in `out` (at most min(4096, size - 1) bytes, terminated), or "" when
// the command did not start or its output holds "Entry". Returns `out`.
char* cmdread(const char* command, char* out, std::size_t size);

// The IPv4 address of `ifname` into the 20-byte field: 1 with the address, 0 with the field
// empty. In a sandbox the host's interfaces are none of the unit's: the address comes from
// the stand-in ifconfig.
int read_ethip(const char* ifname, char (&field)[kNtuTextSize]);
int read_ethip1(const char* ifname, char (&field)[kNtuTextSize]);

// The value of `key` in a key=value file (a per-thread 100-byte buffer), or ""; a missing
// file is created empty. Only the first 64 KiB of a file are searched.
char* ReadPar(const char* path, const char* key);
// The value of `key` in `text` (at most `size` bytes) into `out`, as ReadPar finds it.
void ReadPar_text(const char* text, std::size_t size, const char* key, char (&out)[100]);
// Replaces the file's content with `text` (created 0700) by a new file renamed over the name,
// so a link planted there is replaced, never followed. 1, or -1.
int WritetmpDATA(const char* path, const char* text);

}  // namespace fsu::lte
