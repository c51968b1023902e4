// Small file, shell-command, hex-log and time helpers shared by the whole SDK.
// Paths are device paths; they are resolved under the sandbox root.
#pragma once

#include <cstddef>
#include <ctime>

namespace fsu::support {

// Files.
int IsFileExist(const char* path);
long FSU_get_file_size(const char* path);
int FSU_get_fd(const char* path);
int Read_Data_File(const char* path, char* buf, int size);
// Value of `key` in a key=value parameter file, in a per-thread result buffer of 10,240
// bytes that the next call overwrites; null when the file or the key is missing.
char* BSP_ReadPar(const char* path, const char* key);
int Update_InfoToFile(const char* path, const char* text);
int WriteDATA_To_File(const char* path, const char* text);
int WriteLOGDATA_To_File(const char* path, const char* text);

// Shell commands: output of `command`, at most size - 1 bytes, terminated; empty when the
// output holds "Entry" or "can't". Returns `buf`.
char* syscmd_read(const char* command, char* buf, int size);
// As syscmd_read, then cut at the first blank, carriage return or line feed.
char* ReadsyscmdReturn(const char* command, char* buf, int size);

// Hex logs of serial traffic.
int BSP_SAVE_HEX_LOG(const char* name, const unsigned char* data, int len, int direction, int limit,
                     int number);
int BSP_SAVE_HEX_LOG_Virtual(const char* name, const unsigned char* data, int len, int direction,
                             int limit, int number);
int BSP_SAVE_DTU_HEX_LOG(const unsigned char* data, int len);

// Time.
std::time_t strtotime(const char* text);
// Local time of `t` as "YYYY-MM-DD hh:mm:ss" in a per-thread 30-byte buffer.
char* Return_systime_string(std::time_t t);
long READ_SYSTEM_UnixTime();

}  // namespace fsu::support
