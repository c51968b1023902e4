// The two frame formats of the board links:
// - the ASCII frame of the environment board ("~", VER, ADR, CID1, CID2, LENGTH, INFO, CHKSUM,
//   carriage return; every byte between the marks travels as two hex digits);
// - the binary link frame of the extension boards (0x7E, LEN high, LEN low, command, LEN data
//   bytes, sum, 0x0D).
// Everything here is pure: caller buffers only, no state, no allocation.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fsu::serial {

// Command record of an ASCII frame; LENGTH is the number of INFO bytes.
struct POWER_7E_CMD {
  std::uint8_t SOI;
  std::uint8_t VER;
  std::uint8_t ADR;
  std::uint8_t CID1;
  std::uint8_t CID2;
  std::uint32_t LENGTH;
  std::uint8_t INFO[256];
};

// Encodes `cmd` as an ASCII frame of 2 x LENGTH + 18 characters into `out` (no terminator).
// Returns the length, or 0 for a null or too small `out` or a LENGTH above 256.
std::int32_t POWER_7E_CMDSend(const POWER_7E_CMD& cmd, std::uint8_t* out, std::size_t out_size);
// The LENGTH word for n INFO bytes: LCHKSUM in the top nibble, LENID = 2n in the low 12 bits.
std::uint16_t EnCheckLTH(std::uint32_t n);
// Splits n bytes in place into 2n nibble bytes, high nibble first (the buffer holds 2n bytes).
std::uint16_t Data_Open(std::uint8_t* buf, std::uint16_t n);
// Nibble bytes to upper-case hex digits, in place, over count / 2 pairs.
void HexToAsc(std::uint8_t* buf, std::uint16_t count);
// Appends the four CHKSUM characters of buf[0 .. count-1]; returns count + 4.
std::uint16_t EnCheckSum(std::uint8_t* buf, std::uint16_t count);
// Packs pairs of nibble bytes into bytes in place (count taken modulo 256); returns count / 2.
std::uint8_t Data_Close(std::uint8_t* buf, std::uint8_t count);
// Checks the binary LENGTH bytes against the binary frame length `total` (INFO bytes + 8):
// 0 good, 1 LCHKSUM wrong, 3 LENID does not match.
int CheckLTH(const std::uint8_t* p, int total);
// Checks the last four of `count` characters (VER through CHKSUM) as the CHKSUM of the
// characters before them: 0 good (all upper- or all lower-case letters), 1 otherwise.
int CheckSum(const std::uint8_t* buf, int count);
// Two hex digits to a byte; characters that are not hex digits count as 0.
std::uint8_t AscToHex(const char* p);
// Four hex digits to a 16-bit value, most significant first.
std::uint16_t AscToUnShort(const char* p);
// Hex text to bytes, two digits a byte (a trailing odd digit is ignored), at most out_size
// bytes; returns the number of bytes written.
std::int32_t AsciiStringToHexString(const char* str, std::uint8_t* out, std::size_t out_size);
// Sum of the bytes modulo 256.
std::uint8_t INFo_SUM(const std::uint8_t* buf, std::size_t count);

// Link frames.
constexpr std::uint8_t kLinkStart = 0x7E;
constexpr std::uint8_t kLinkEnd = 0x0D;
constexpr std::size_t kLinkOverhead = 6;

// Builds the link frame of `command` around `len` data bytes into `out`; returns its length
// (len + 6), or 0 when len is above 65535 or the frame does not fit out_size.
std::size_t build_link_frame(std::uint8_t command, const std::uint8_t* data, std::size_t len,
                             std::uint8_t* out, std::size_t out_size);

// Takes the first complete link frame out of buf[0 .. fill-1]: copies it to `out`, moves the
// bytes after it to the front of `buf`, stores the new fill in *remaining and returns the
// frame's length. Returns 0, leaving `buf` and the fill alone, when no complete frame is there.
// Stray bytes before a start byte are dropped with the frame. A start byte whose frame has not
// fully arrived but would fit out_size holds the scan until its bytes are in, so that data
// inside a frame is never taken as frames; one announcing a longer frame, or whose end byte is
// not 0x0D, is a false start and skipped. A complete frame longer than out_size is dropped from
// the buffer (and the fill in *remaining lowered) and the search goes on behind it.
std::int32_t read_a_msg(std::uint8_t* buf, std::uint8_t* out, std::size_t out_size, std::int32_t fill,
                        std::int32_t* remaining);

}  // namespace fsu::serial
