// The modem state record NTU: what the LTE supervisor learns about the modem and the data
// link, and the requests other threads post to it. Flags, counters and states are atomic
// words; the text fields sit behind one small lock and are read and written whole, by copy,
// so a reader never sees a text half rewritten.
#pragma once

#include <atomic>
#include <cstddef>

namespace fsu::lte {

constexpr std::size_t kNtuTextSize = 20;

enum class NtuText { lteip, lteip1, model, atdev, csq, cimi, imei, nettype };

struct NtuTexts {
  char lteip[kNtuTextSize];    // ppp0's IPv4 address; empty while the link is down
  char lteip1[kNtuTextSize];   // ppp1's IPv4 address
  char model[kNtuTextSize];    // model name of the detected modem
  char atdev[kNtuTextSize];    // path of the modem's AT device
  char csq[kNtuTextSize];      // signal strength in dBm as decimal text
  char cimi[kNtuTextSize];     // IMSI
  char imei[kNtuTextSize];     // IMEI
  char nettype[kNtuTextSize];  // network generation "2", "3", "4"; "0" unknown or no service
};

struct Ntu {
  std::atomic<int> pppdstart{0};   // request: bring the data link up
  std::atomic<int> pppdend{0};     // request: hang up and stop pppd
  std::atomic<int> softreboot{0};  // request: restart the modem softly
  std::atomic<int> hardreboot{0};  // request: power-cycle the modem
  std::atomic<int> attimeout{0};   // AT exchanges that ended in a time-out
  std::atomic<int> ltestart{0};    // 1 once the dial script has been restarted
  std::atomic<int> mode_id{0};     // row of the detected modem in ltemm; 0 none yet
  std::atomic<int> CardStat{0};    // 1: a usable SIM is known
  std::atomic<int> siminfo{0};     // 1 once a SIM and registration query has completed
  std::atomic<int> simstat{0};     // SIM state
  std::atomic<int> srvstat{0};     // service status, or registration status + 100
  std::atomic<int> srvdomain{0};   // service domain
  std::atomic<int> noservice{0};   // consecutive queries in which the modem said it had no service
};

extern Ntu NTU;

// Every text field, copied at once under the record's lock.
NtuTexts ntu_texts();
// One text field copied into out, terminated.
void ntu_text(NtuText field, char (&out)[kNtuTextSize]);
// Replaces one text field with text cut to 19 bytes; a null text clears it.
void ntu_set_text(NtuText field, const char* text);
// The link is up: ppp0 has an address and the modem has not said "no service" twice in a row.
bool ntu_online();
// Every word to 0 and every text empty.
void ntu_clear();

}  // namespace fsu::lte
