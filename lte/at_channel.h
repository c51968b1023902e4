// The modem's AT command channel: the one descriptor of the AT port, line assembly of the
// modem's replies, the command/answer exchanges, the reply tokenizer and the sleep helpers.
// Only the LTE supervisor thread uses it.
#pragma once

#include <cstddef>

namespace fsu::lte {

constexpr std::size_t kAtLineArea = 8192;    // the line area of s_ATBuffer
constexpr std::size_t kAtBufferSize = 9216;  // byte kAtLineArea stays 0 as a hard terminator
constexpr std::size_t kOutPutSize = 1024;

// Exchange results.
enum : int { kAtOk = 0, kAtWriteFailed = -1, kAtTimeout = -2, kAtError = -3 };

extern int ltefd;                   // the open AT port, or -1
extern char s_ATBuffer[kAtBufferSize];
extern char* s_ATBufferCur;         // start of the received text not yet handed out
extern long s_readCount;            // bytes read from the AT port since start
extern char out_put[kOutPutSize];   // reply buffer of the queries

// Opens the AT device (a device path, resolved under the root) non-blocking with no echo,
// no canonical input, no XON/XOFF or input translation and VMIN = VTIME = 0, and drops the
// input queued on it; an earlier port is closed first. 0, or -1.
int at_port_open(const char* device_path);
void at_port_close();

// Writes the command and a CR. 0, or -1 when no port is open or the write fails.
int writeline(const char* command);
// The next line inside s_ATBuffer (terminated, without its line end), waiting on the port
// up to tick_limit + 1 ticks of 100 ms; null on time-out.
char* readline(int tick_limit);
// The end of the first complete line at `cur` (the input prompt "> " counts as one), or null.
char* findNextEOL(char* cur);

// Line assembly without the port, for readline and the fuzz target: empty the buffer, append
// received bytes (as much as the line area takes; NUL bytes are dropped) and take the next
// complete line (null when none is buffered yet).
void at_buffer_clear();
std::size_t at_buffer_append(const char* bytes, std::size_t n);
char* at_buffer_take_line();

// The exchanges: write `command` (nothing when empty), then read lines until one starts with
// `prefix` (0), one holds "ERROR" (-3), or more than `lines` waits of `seconds` each passed
// (-2). write_wait_read copies the matching line over `out`; the other two append every line
// to `out`, never past `out_size` bytes with the terminator.
int write_wait_read(const char* command, const char* prefix, char* out, std::size_t out_size, int lines,
                    int seconds);
int write_wait_read1(const char* command, const char* prefix, char* out, std::size_t out_size, int lines,
                     int seconds);
int write_wait_readcimi(const char* command, const char* prefix, char* out, std::size_t out_size,
                        int lines, int seconds);

char* to_upper(char* text);
int strStartsWith(const char* line, const char* prefix);

// Tokenizer over a writable reply "+PREFIX: a,b,\"c\"".
int at_tok_start(char** cursor);
void skipWhiteSpace(char** cursor);
void skipNextComma(char** cursor);
char* nextTok(char** cursor);
int at_tok_nextint_base(char** cursor, int* out, int base, int is_unsigned);
int at_tok_nextint(char** cursor, int* out);
int at_tok_nexthexint(char** cursor, int* out);

int SSleep(int milliseconds);
void ticksleep(int milliseconds);
unsigned mysleep(unsigned seconds);

}  // namespace fsu::lte
