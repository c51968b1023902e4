// Small file, shell-command, hex-log and time helpers shared by the whole SDK.
// Paths are device paths; they are resolved under the sandbox root.
#pragma once

#include <cstddef>
#include <ctime>

namespace fsu::support {

// Files. Every descriptor is opened close-on-exec.
// 1 when the path exists, else 0.
int IsFileExist(const char* path);
// Size in bytes, or -1.
long FSU_get_file_size(const char* path);
// A descriptor opened for reading, or -1.
int FSU_get_fd(const char* path);
// Reads the first min(file size, size) bytes into `buf` (not terminated) and returns that
// count; 0 when the file is missing, `buf` is null or `size` is not positive; -1 when the
// file cannot be opened.
int Read_Data_File(const char* path, char* buf, int size);
// Value of `key` in a key=value parameter file: the first occurrence of the key text, one
// separator character skipped, up to CR, LF, ';', the end of the file or 10,000 characters.
// In a per-thread result buffer of 10,240 bytes that the next call overwrites; null when the
// file is missing or empty, cannot be read, or does not hold the key.
char* BSP_ReadPar(const char* path, const char* key);
// Write `text` in one write at the start of the file (without truncating it) or appended at
// its end; the file is created 0700 when missing. A link or another user's file at the name is
// never written through (platform::open_own_file). 1, or -1 (open) or -2 (lseek) after one
// line on standard error per failure period.
int Update_InfoToFile(const char* path, const char* text);
int WriteDATA_To_File(const char* path, const char* text);
int WriteLOGDATA_To_File(const char* path, const char* text);
// What the device's "rm PATH" does to one file, without starting a shell: 0, or -1 when the
// file could not be removed (missing included).
int remove_file(const char* path);

// Shell commands: output of `command`, at most size - 1 bytes, terminated; empty when the
// output holds "Entry" or "can't". Returns `buf`.
char* syscmd_read(const char* command, char* buf, int size);
// As syscmd_read, then cut at the first blank, carriage return or line feed.
char* ReadsyscmdReturn(const char* command, char* buf, int size);

// Hex logs of serial traffic in /tmp/comlog.log: direction 0 writes a stamped header
// ("[time]:[name][number]", then "TX:"), the bytes as "%02X " and the receive mark; any other
// direction appends the bytes only. Each record is cut at 20,480 bytes. -1 when `len` is not
// positive, -2 when `number` is above `limit`, else the result of the append.
int BSP_SAVE_HEX_LOG(const char* name, const unsigned char* data, int len, int direction, int limit,
                     int number);
// The same for virtual ports, with "(this is a Virtual com)" in the header and receive mark.
int BSP_SAVE_HEX_LOG_Virtual(const char* name, const unsigned char* data, int len, int direction,
                             int limit, int number);
// The bytes only, appended to /tmp/web_dtu_com_log.log.
int BSP_SAVE_DTU_HEX_LOG(const unsigned char* data, int len);

// Time.
// Epoch seconds of "YYYY-MM-DD hh:mm:ss" read as local time; -1 when the text does not parse.
std::time_t strtotime(const char* text);
// Local time of `t` as "YYYY-MM-DD hh:mm:ss" in a per-thread 30-byte buffer.
char* Return_systime_string(std::time_t t);
// Seconds of the current time of day.
long READ_SYSTEM_UnixTime();

}  // namespace fsu::support
