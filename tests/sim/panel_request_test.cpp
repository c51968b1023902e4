// The front panel's side of a request: what a browser may ask, and who may ask it.
#include "sim/panel_request.h"

#include <gtest/gtest.h>

namespace fsu::sim {
namespace {

TEST(PanelRequest, TakesCtlLinesAndKnownWebRequestsAndNothingElseShowingEachAsItsShellCommand) {
  for (const auto& [body, command] : std::vector<std::pair<std::string, std::string>>{
           {"ctl di 3 closed", "fsusim ctl --root /tmp/unit 'di 3 closed'"},
           {"ctl modem unsolicited +CMTI: \"SM\",3\n", "fsusim ctl --root /tmp/unit 'modem unsolicited +CMTI: \"SM\",3'"},
           {"ctl it's", "fsusim ctl --root /tmp/unit 'it'\\''s'"},
           {"web read-aidi", "fsusim web --root /tmp/unit read-aidi"},
           {"web  uart 1 9600 8 1 0 7E3130", "fsusim web --root /tmp/unit uart 1 9600 8 1 0 7E3130"},
           {"web uart 1 9600 8 1 0 7E3130 5", "fsusim web --root /tmp/unit uart 1 9600 8 1 0 7E3130 5"},
           {"web all-outputs on", "fsusim web --root /tmp/unit all-outputs on"}}) {
    std::string error;
    const auto action = parse_panel_request(body, &error);
    ASSERT_TRUE(action) << body << ": " << error;
    EXPECT_EQ(panel_shell_command(*action, "/tmp/unit"), command);
  }
  // Browser text is hostile: bounded, printable ASCII, one known action.
  for (const auto& [body, why] : std::vector<std::pair<std::string, std::string>>{
           {"", "a request is"}, {"ctl", "no control line"}, {"ctl   ", "no control line"},
           {"ctl # a comment", "no control line"}, {"ctl di 3 closed\nuart 2 silent", "not printable"},
           {"ctl di 3\r", "not printable"}, {"ctl ai 1 \xc2\xb5", "not printable"},
           {std::string("ctl di\0 3", 9), "not printable"}, {"ctl " + std::string(1021, 'x'), "too long"},
           {"rm -rf /", "a request is"}, {"CTL di 3 closed", "a request is"}, {"web", "no action"},
           {"web cat /etc/passwd", "no such action"}, {"web read-aidi now", "wrong number"},
           {"web uart 1 9600", "wrong number"}, {"web log 1 2 3 4 5 6 7 8 9", "too many words"}}) {
    std::string error;
    EXPECT_FALSE(parse_panel_request(body, &error)) << body;
    EXPECT_NE(error.find(why), std::string::npos) << body << ": " << error;
  }
  std::string error;
  EXPECT_TRUE(parse_panel_request("ctl " + std::string(1020, 'x'), &error)) << error;
}

TEST(PanelGate, ServesOnlyTheTokenAtThePanelsOwnHostAndOrigin) {
  const std::string token = new_panel_token();
  EXPECT_EQ(token.size(), 32u);
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(new_panel_token(), token);
  const PanelGate gate{token, {"127.0.0.1:8123", "localhost:8123"}};
  using Origin = std::optional<std::string_view>;
  EXPECT_TRUE(gate.allows(token, "127.0.0.1:8123", std::nullopt));
  EXPECT_TRUE(gate.allows(token, "localhost:8123", Origin("http://localhost:8123")));
  for (const auto& [given, host, origin] : std::vector<std::tuple<std::string, std::string, Origin>>{
           {"", "127.0.0.1:8123", std::nullopt}, {token.substr(0, 31), "127.0.0.1:8123", std::nullopt},
           {token + "0", "127.0.0.1:8123", std::nullopt}, {std::string(32, '0'), "127.0.0.1:8123", std::nullopt},
           {token, "evil.example", std::nullopt}, {token, "127.0.0.1", std::nullopt}, {token, "", std::nullopt},
           {token, "127.0.0.1:8124", std::nullopt}, {token, "127.0.0.1:8123", Origin("http://evil.example")},
           {token, "127.0.0.1:8123", Origin("null")}, {token, "127.0.0.1:8123", Origin("")},
           {token, "127.0.0.1:8123", Origin("http://localhost:8123")},
           {token, "127.0.0.1:8123", Origin("https://127.0.0.1:8123")}}) {
    EXPECT_FALSE(gate.allows(given, host, origin)) << given << " " << host << " " << origin.value_or("-");
  }
  EXPECT_FALSE((PanelGate{"", {"127.0.0.1:8123"}}.allows("", "127.0.0.1:8123", std::nullopt)));
  EXPECT_EQ(panel_exposure(kPanelLoopback, "/tmp/unit"), "");
  EXPECT_NE(panel_exposure("192.168.1.5", "/tmp/unit").find("whoever reaches that address"), std::string::npos);
}

}  // namespace
}  // namespace fsu::sim
