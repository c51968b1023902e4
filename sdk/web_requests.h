// The web pages' side door into the SDK: request files under /tmp, answered once a second by
// the web request thread, and the reports behind the answers (the console prints them too).
#pragma once

#include "platform/clock.h"

namespace fsu::sdk {

// Request files, in the order a pass handles them, and their answer files.
constexpr const char* kSetComAttrRequest = "/tmp/set_com_attr";
constexpr const char* kReadAidiRequest = "/tmp/web_read_aidi";
constexpr const char* kReadGpsInfoRequest = "/tmp/web_read_gps_info";
constexpr const char* kReadGpsDbRequest = "/tmp/web_read_gps_db";
constexpr const char* kLogSaveRequest = "/tmp/web_set_log_save";
constexpr const char* kDtuComRequest = "/tmp/web_dtu_com";
constexpr const char* kAidiAnswer = "/tmp/AIDIIFO";
constexpr const char* kGpsInfoAnswer = "/tmp/gps_rt_info";
constexpr const char* kGpsDbAnswer = "/tmp/gps_db_info";
constexpr const char* kComLog = "/tmp/comlog.log";
constexpr const char* kDtuComLog = "/tmp/web_dtu_com_log.log";

// Size of the input report; the web thread builds it in twice as much.
constexpr int kAidiReportSize = 2048;
constexpr int kSimReportSize = 1024;
// A log request asks for at most this many writes.
constexpr int kLogLineMax = 100000;
// A port request sends at most this many bytes and reads at most as many back.
constexpr int kPortCommandSize = 4096;

using SleepSeconds = void (*)(long seconds);

// What the web request thread keeps from one pass to the next: the values of the port and log
// requests, which a request that leaves a key out uses again (start values: port 1, no wait,
// 9600 baud 8N1; logging port 1 for 1000 writes), and how it sleeps.
struct WebRequestState {
  int com = 1;
  int wait_sec = 0;
  int baud = 9600;
  int data_bits = 8;
  int stop_bits = 1;
  int parity = 0;
  int log_com = 1;
  int line_max = 1000;
  SleepSeconds sleep = platform::sleep_s;
};

// The wait of a port command: the seconds asked for, but 10 for anything above 9.
int web_wait_seconds(int wait_sec);

// BSP_UART_SEND_CMD, sleeping through `sleep`.
int uart_send_cmd(int port, int wait_sec, int baud, int data_bits, int stop_bits, int parity, const char* cmd,
                  int cmd_len, char* reply, int reply_size, SleepSeconds sleep);

// What the thread does once before its loop: counts, serial attributes loaded and saved.
void web_request_setup();
// One pass: every request file present is handled, in the order above.
void web_request_pass(WebRequestState& state);

// Starts API_TEST_FOR_WEB as a thread; the creation result.
int API_WEB_TEST_FUN();
void* API_TEST_FOR_WEB(void* arg);

}  // namespace fsu::sdk
