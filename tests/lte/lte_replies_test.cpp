// The modem's replies as the queries parse them, the known-modem table, and the dial texts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <tuple>
#include <unistd.h>

#include "lte/at_channel.h"
#include "lte/modem_discovery.h"
#include "lte/modem_queries.h"
#include "lte/ntu.h"
#include "platform/sandbox_root.h"
#include "sdk/dial_api.h"

namespace fsu::lte {
namespace {

std::string csq_of(std::string reply) {
  char csq[kNtuTextSize];
  csq_text(readCSQState(reply.data()), csq);
  return csq;
}

TEST(Replies, SignalTableAtBothEndsAndWhereItIsNotMonotonic) {
  for (const auto& [rssi, dbm] : {std::pair{99, "-107"}, {0, "-107"}, {3, "-107"}, {4, "-99"}, {9, "-94"}, {10, "-77"},
                                  {15, "-72"}, {16, "-73"}, {21, "-68"}, {22, "-63"}, {27, "-58"}, {31, "-54"}}) {
    EXPECT_EQ(csq_of("+CSQ: " + std::to_string(rssi) + ",99"), dbm) << rssi;
  }
  for (const char* bad : {"+CSQ: 24", "+CSQ: ,99", "+CSQ 24,99", "+CSQ: X,1", ""}) EXPECT_EQ(csq_of(bad), "-107") << bad;
}

TEST(Replies, SystemInformationRegistrationAndOperator) {
  ntu_clear();
  // A field that is not a number leaves NTU as it was.
  for (const auto& [text, state, nettype] : {std::tuple{"^SYSINFO:2,3,0,9,1", 9, "4"}, {"^SYSINFO:0,0,0,0,255", -1, "SIMOVER"},
                                             {"^SYSINFO:2,3,0,X,1", -1, "SIMOVER"}, {"^SYSINFO: 2,4,5,3,1,0,6", 3, "2"}}) {
    std::string reply = text;
    EXPECT_EQ(ParseRegistrationState_GT9615(reply.data()), state) << text;
    EXPECT_STREQ(ntu_texts().nettype, nettype) << text;
    if (state == 9) { EXPECT_EQ(NTU.simstat * 1000 + NTU.srvstat * 100 + NTU.srvdomain * 10 + NTU.siminfo, 1231); }
  }
  for (const auto& [mode, gen] : {std::pair{0, "0"}, {3, "2"}, {8, "2"}, {1, "2"}, {4, "3"}, {5, "3"}, {7, "3"}, {15, "3"}, {9, "4"}, {10, "4"}, {17, "4"}}) {
    EXPECT_STREQ(sysinfo_nettype(mode), gen) << mode;
  }
  // Access technologies as 3GPP numbers them: 6 is UMTS with HSDPA and HSUPA, 8 EC-GSM-IoT.
  for (const auto& [act, gen] : {std::pair{0, "2"}, {1, "2"}, {3, "2"}, {8, "2"}, {2, "3"}, {4, "3"}, {5, "3"}, {6, "3"},
                                 {7, "4"}, {9, "4"}, {42, "4"}}) {
    EXPECT_STREQ(cops_nettype(act), gen) << act;
  }
  for (const auto& [text, status] : {std::pair{"AT+CREG?+CREG: 0,5OK", 5}, {"+CREG: 0,2OK", 2}, {"+CREG: 2OK", -1},
                                          {"+CREG: 2,1,\"2A3B\",\"0C1D2E3F\",7OK", 1}}) {
    EXPECT_EQ(creg_status(text), status) << text;
  }
  EXPECT_EQ(cops_act("+COPS: 0,0,\"CHINA MOBILE\",7OK"), 7);
  EXPECT_EQ(cops_act("+COPS: 0,0OK"), -1);
  // The link counts as down on the second answer in a row without service, until service is back.
  ntu_set_text(NtuText::lteip, "10.64.12.34");
  for (const auto& [text, online, nettype] : {std::tuple{"^SYSINFO:0,0,0,0,1", true, "SIM_OK"}, {"^SYSINFO:0,0,0,0,1", false, "0"},
                                              {"^SYSINFO:2,3,0,5,1", true, "3"}}) {
    std::string reply = text;
    ParseRegistrationState_GT9615(reply.data());
    EXPECT_EQ(ntu_online(), online) << text;
    EXPECT_STREQ(ntu_texts().nettype, nettype) << text;
  }
  EXPECT_EQ(cops_act("+COPS: 0,2,\"46001\",6OK"), 6);
}

TEST(Replies, EveryImeiShapeInItsOrderAndTheImsi) {
  const struct {
    const char *reply, *imei;
    int result;
  } cases[] = {{"866123456789012OK", "866123456789012", 1},  // echo off: the whole reply
               {"AT+CGSN866123456789012OK", "866123456789012", 1},  {"AT+CGSN+CGSN: \"866123456789012\"OK", "866123456789012", 1},
               {"+CGSN:\"866123456789012\"OK", "866123456789012", 1},  {"+CGSN: 866123456789012OK", "866123456789012", 1},
               {"+CGSN:866123456789012OK", "866123456789012", 1},  {"AT+CGSN0X10OK", "000000000000016", 1},
               {"AT+CGSN8661234567890OK", "", 0},  {"+CGSN: 8661234567890123456789OK", "", 0},  {"NOTHING HERE", "untouched", -1},
               // Hostile or confused modems: only 15 digits, or a hexadecimal number that decodes to them, are an IMEI.
               {"0X313BC14F93A14OK", "866123456789012", 1},  {"AT+CGSN0X1G2OK", "", 0},  {"+CGSN: 86612345678901XOK", "", 0},
               {"+CPIN: READYOK", "", 0},  {"RDY866123456789012OK", "866123456789012", 1},
               {"866123456789012ok", "untouched", -1}};  // a lower-case "ok" counts only after an echo
  for (const auto& c : cases) {
    std::string reply = c.reply;
    char imei[kNtuTextSize] = "untouched";
    EXPECT_EQ(parse_imei(reply.data(), imei), c.result) << c.reply;
    EXPECT_STREQ(imei, c.imei) << c.reply;
  }
  EXPECT_EQ(hex2dec("1G"), -1);  // not a digit: every bit from its place up
  char cimi[kNtuTextSize];
  // An IMSI is the one run of 6 to 15 digits: unsolicited lines around it do not count, a late
  // reply to another command (or two identities run together) gives none.
  for (const auto& [text, result, imsi] :
       {std::tuple{"AT+CIMI460001234567890OK", 1, "460001234567890"}, {"46000OK", -1, ""}, {"+CSQ: 24,99OK", -1, ""},
        {"^SYSINFO:2,3,0,17,1OK", -1, ""}, {"RDY+CPIN: READY460001234567890OK", 1, "460001234567890"},
        {"460001234567890866123456789012OK", -1, ""}, {"+CIMI: 460001234567890", 1, "460001234567890"}, {"460001OK", 1, "460001"}, {"4600012345678901OK", -1, ""}}) {
    std::string reply = text;
    EXPECT_EQ(parse_cimi(reply.data(), cimi), result) << text;
    EXPECT_STREQ(cimi, imsi) << text;
  }
}

TEST(Replies, TokensAndKeyValues) {
  std::string cops = "+COPS: 0,\"CHINA MOBILE\",7", empty = "+X: 1,,2";
  char* cursor = cops.data();
  int value = 0;
  EXPECT_TRUE(at_tok_start(&cursor) == 0 && at_tok_nextint(&cursor, &value) == 0);
  EXPECT_STREQ(nextTok(&cursor), "CHINA MOBILE");
  EXPECT_STREQ(cursor, "7");
  cursor = empty.data();
  EXPECT_TRUE(at_tok_start(&cursor) == 0 && at_tok_nextint(&cursor, &value) == 0);
  EXPECT_EQ(at_tok_nextint(&cursor, &value), -1);  // an empty field

  char imei[100], csq[100];
  const std::string file = "cimi=460001234567890\nimei=866123456789012\r\ncsq=";
  ReadPar_text(file.data(), file.size(), "imei", imei);
  ReadPar_text(file.data(), file.size(), "csq", csq);
  EXPECT_EQ(std::string(imei) + "|" + csq, "866123456789012|");
}

// On the device (root "/") an address is read from the interface itself; an interface without
// one, or none of that name, falls back to ifconfig once. Only the loopback interface is asked,
// and ifconfig is a stand-in of the test's own, alone on the PATH: nothing of the host's runs.
TEST(DeviceAddress, ReadFromTheInterfaceOrOnceThroughIfconfig) {
  const std::string folder = std::filesystem::temp_directory_path() / ("fsu-ethip-" + std::to_string(getpid()));
  std::filesystem::create_directories(folder);
  std::ofstream(folder + "/ifconfig") << "#!/bin/sh\nprintf '%s\\n' \"$*\" >>\"${0%/*}/asked\"\nprintf 'ppp0      Link encap:Point-to-Point "
                                         "Protocol\\n          inet addr:10.9.8.7  P-t-P:10.64.64.64  Mask:255.255.255.255\\n          UP "
                                         "POINTOPOINT RUNNING NOARP MULTICAST  MTU:1500  Metric:1\\n          RX packets:0 errors:0\\n'\n";
  std::filesystem::permissions(folder + "/ifconfig", std::filesystem::perms::owner_all);
  setenv("PATH", folder.c_str(), 1);
  ASSERT_TRUE(platform::set_root("/"));
  for (const auto& [name, address, asked] : {std::tuple{"lo", "127.0.0.1", ""}, {"lo:9", "10.9.8.7", "lo:9\n"},
                                             {"fsu-none0", "10.9.8.7", "lo:9\nfsu-none0\n"}}) {
    char field[kNtuTextSize];
    EXPECT_EQ(read_ethip(name, field), 1) << name;
    EXPECT_STREQ(field, address) << name;
    std::ostringstream seen;
    seen << std::ifstream(folder + "/asked").rdbuf();
    EXPECT_EQ(seen.str(), asked) << name;
  }
  std::filesystem::remove_all(folder);
}

TEST(ModemTable, FirstRowInTableOrderAndTheRegistrationsOfEachRow) {
  EXPECT_EQ(ltemm_row_in("ID 2c7c:0125 x\nID 19d2:1509 y"), 1);
  EXPECT_EQ(ltemm_row_in("ID 2c7c:01"), 0);
  EXPECT_STREQ(ltemm_new_id(16), "0x2949 0x8700");
  EXPECT_STREQ(ltemm_new_id(17), "0x2949 0x7402");
  for (int row : {1, 2, 3, 4, 6, 7, 8, 9}) EXPECT_EQ(ltemm_new_id(row), nullptr) << row;
}

TEST(DialTexts, CarrierTableAndBothTextsByteExact) {
  for (const auto& [imsi, carrier] :
       {std::pair{"460001234567890", "CARRIER_MOBILE"}, {"460011234567890", "CARRIER_UNICOM"}, {"46002123", "CARRIER_MOBILE"},
        {"46003123", "CARRIER_TELECOM"}, {"46004123", "CARRIER_MOBILE"}, {"46005123", "CARRIER_TELECOM"}, {"46006123", "CARRIER_UNICOM"},
        {"46007123", "CARRIER_MOBILE"}, {"46011123", "CARRIER_TELECOM"}, {"46020123", "CARRIER_MOBILE"}, {"31026012", "31026"}, {"", ""}}) {
    char out[16];
    sdk::carrier_text(imsi, out);
    EXPECT_STREQ(out, carrier) << imsi;
  }
  NtuTexts t{"10.64.12.34", "", "EC20", "", "-61", "460031234\"5\\", "866123456789012", "4"};
  char buf[1024];
  EXPECT_EQ(sdk::build_static_info(t, buf, sizeof buf), 0);  // the whole text is seen in the modem's e2e test
  EXPECT_NE(std::string(buf).find("\"IMSI\":\"460031234\\\"5\\\\\"}"), std::string::npos) << buf;
  // Whatever bytes the modem sent, both texts are JSON that a strict parser takes: well-formed
  // UTF-8 stays, other bytes (a sequence cut by the carrier's five characters too) become U+FFFD.
  for (int byte = 1; byte < 256; ++byte) {
    const char b = static_cast<char>(byte), value[] = {'4', '6', b, '0', '\xe2', '\x82', b, '\xf0', b, '\0'};
    NtuTexts any{};
    for (char* field : {any.lteip, any.model, any.csq, any.cimi, any.imei, any.nettype}) std::memcpy(field, value, sizeof value);
    EXPECT_EQ(sdk::build_static_info(any, buf, sizeof buf), 0);
    EXPECT_TRUE(nlohmann::json::accept(buf)) << byte << ": " << buf;
    EXPECT_EQ(sdk::build_dynamic_info(1, any, 2, -1e300, 1, buf, sizeof buf), 0);
    EXPECT_TRUE(nlohmann::json::accept(buf)) << byte << ": " << buf;
  }
  const NtuTexts odd{"", "", "EC20\xe2\x82\xac", "", "", "46\xff", "", ""};
  sdk::build_static_info(odd, buf, sizeof buf);
  const nlohmann::json parsed = nlohmann::json::parse(buf);
  EXPECT_EQ(parsed["Model"], "EC20\xe2\x82\xac");
  EXPECT_EQ(parsed["IMSI"], "46\xef\xbf\xbd");
  for (int off : {0, 99999}) {
    EXPECT_EQ(sdk::build_dynamic_info(0, t, off, 1, 1, buf, 40), -1);  // cut, terminated, refused
    EXPECT_EQ(std::string(buf).size(), 39u);
    sdk::build_dynamic_info(0, t, off, 1, 1, buf, sizeof buf);
    EXPECT_NE(std::string(buf).find("\"Longitude\":\"NULL\", \"Latitude\":\"NULL\",\"PositionMode\":\"NULL\"}"),
              std::string::npos);
  }
}

}  // namespace
}  // namespace fsu::lte
