#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/scenario/junit.h"
#include "sim/scenario/runner.h"
#include "sim/scenario/scenario.h"

namespace fsu::sim::scenario {
namespace {

TEST(ScenarioFile, LoadsEveryStepWithItsLineAndRefusesAnyFaultWithItsLineBeforeAnythingRuns) {
  const std::string text =
      "# a comment\n"
      "name: relays\n"
      "board: [\"board 2 silent\"]\n"
      "clock-rate: 10\n"
      "timeout: 1m\n"
      "steps:\n"
      "  - delay: 500ms\n"
      "  - set: \"ai 3 2.5\"\n"
      "    timeout: 2s\n"
      "  - input: \"ai 3\\n\"\n"
      "  - wait-output: \"ai 3 = 2.5\"\n"
      "  - fail-output: \"no such\"\n"
      "  - write-uart: {port: 2, hex: \"7E 31 30\"}\n"
      "  - wait-uart: {port: 12, text: ok}\n"
      "  - wait-state: {name: \"relay 2\", value: on}\n"
      "  - expect-state: {name: modem.signal, value: 24}\n"
      "  - web: \"uart 1 9600 8 1 0 7E3130\"\n"
      "  - wait-web: \"7E\"\n"
      "  - wait-call: reboot\n"
      "  - wait-exit: 0\n";
  Scenario s;
  std::string error;
  ASSERT_TRUE(load_scenario(text, "dir/relays.yaml", &s, &error)) << error;
  EXPECT_EQ(s.name, "relays");
  EXPECT_EQ(s.board, std::vector<std::string>{"board 2 silent"});
  EXPECT_EQ(s.clock_rate, 10);
  EXPECT_EQ(s.timeout, 60);
  struct Want {
    Kind kind;
    int line;
    std::string text;
  };
  const std::vector<Want> want = {
      {Kind::kDelay, 7, ""},        {Kind::kSet, 8, "ai 3 2.5"},        {Kind::kInput, 10, "ai 3\n"},
      {Kind::kWaitOutput, 11, "ai 3 = 2.5"}, {Kind::kFailOutput, 12, "no such"}, {Kind::kWriteUart, 13, "\x7e\x31\x30"},
      {Kind::kWaitUart, 14, "ok"},  {Kind::kWaitState, 15, "on"},       {Kind::kExpectState, 16, "24"},
      {Kind::kWeb, 17, "uart 1 9600 8 1 0 7E3130"}, {Kind::kWaitWeb, 18, "7E"}, {Kind::kWaitCall, 19, "reboot"},
      {Kind::kWaitExit, 20, ""}};
  ASSERT_EQ(s.steps.size(), want.size());
  for (std::size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(s.steps[i].kind, want[i].kind) << i;
    EXPECT_EQ(s.steps[i].line, want[i].line) << i;
    EXPECT_EQ(s.steps[i].text, want[i].text) << i;
  }
  EXPECT_EQ(s.steps[0].seconds, 0.5);
  EXPECT_EQ(s.steps[1].timeout, 2);
  EXPECT_EQ(s.steps[2].timeout, kDefaultWait);
  EXPECT_EQ(s.steps[5].port, 2);
  EXPECT_EQ(s.steps[6].port, 12);
  EXPECT_EQ(s.steps[7].name, "relay 2");
  ASSERT_TRUE(load_scenario("steps: [wait-exit: 3]", "/x/quick.test.yml", &s, &error)) << error;
  EXPECT_EQ(s.name, "quick.test");  // the file's name stands in for a missing name
  EXPECT_EQ(s.steps[0].code, 3);

  // Each fault names the file, the line and why; nothing of the scenario is kept.
  const std::string head = "steps:\n  - delay: 1s\n";
  for (const auto& [body, message] : std::vector<std::pair<std::string, std::string>>{
           {head + "  - press-button: 3\n", "s.yaml:3: unknown step \"press-button\" (steps: delay, set,"},
           {head + "  - set: ai 1 1\n    input: x\n", "s.yaml:4: one step per item: set and input together"},
           {head + "  - delay: 2\n", "s.yaml:3: delay must be a duration with its unit"},
           {head + "  - delay: 2s\n    timeout: 0s\n", "s.yaml:4: timeout must be longer than 0"},
           {head + "  - set: \"ai 3 1\\nboard 1 silent\"\n", "s.yaml:3: set must be one line"},  // no line slipped in
           {head + "  - set: [ai 3 1]\n", "s.yaml:3: set must be a text"},
           {head + "  - wait-output: \"\"\n", "s.yaml:3: wait-output must not be empty"},
           {head + "  - write-uart: {port: 13, text: x}\n", "s.yaml:3: port must be a whole number from 1 to 12"},
           {head + "  - write-uart: {port: 1, text: x, hex: 41}\n", "s.yaml:3: write-uart needs either text or hex"},
           {head + "  - write-uart: {port: 1, hex: 4G}\n", "s.yaml:3: hex must be pairs of hex digits"},
           {head + "  - wait-uart: {text: x}\n", "s.yaml:3: wait-uart needs a port"},
           {head + "  - wait-uart: {port: 1, txt: x}\n", "s.yaml:3: wait-uart has no \"txt\""},
           {head + "  - wait-state: relay 2\n", "s.yaml:3: wait-state takes a mapping"},
           {head + "  - wait-web: ok\n", "s.yaml:3: wait-web needs a web step before it"},
           {head + "  - web: rm -rf /\n", "s.yaml:3: web has no request \"rm\""},
           {head + "  - wait-exit: 256\n", "s.yaml:3: wait-exit must be a whole number from 0 to 255"},
           {head + "  - 12\n", "s.yaml:3: a step is a mapping"},
           {"steps:\n  - delay: 1s\n  - wait-output: [\n", "s.yaml:4: not YAML"},
           {"clock-rate: 1\n" + head, "s.yaml:1: clock-rate must be a whole number from 2 to 100"},
           {"speed: 1\n" + head, "s.yaml:1: a scenario has no \"speed\""},
           {"name: x\nsteps: []\n", "s.yaml:2: a scenario needs steps: with at least one step"},
           {"- delay: 1s\n", "s.yaml:1: a scenario is a mapping"},
           {"", "s.yaml:1: a scenario is a mapping"},
           {head + std::string("  - input: \"a\0b\"\n", 17), "s.yaml:1: not a text file"},
           {"steps: " + std::string(20000, '['), "s.yaml:1: not YAML"},  // nesting deep enough to blow a stack
           {head + "  - input: \"" + std::string(kMaxText + 1, 'x') + "\"\n", "s.yaml:3: input is longer than 4096"},
           {std::string(kMaxFileBytes + 1, '#'), "s.yaml:1: longer than"}}) {
    s.name = "kept?";
    EXPECT_FALSE(load_scenario(body, "s.yaml", &s, &error)) << body;
    EXPECT_EQ(error.rfind(message, 0), 0u) << error;
    EXPECT_TRUE(s.steps.empty() && s.name.empty()) << body;
  }
  EXPECT_FALSE(read_scenario("/nonexistent/s.yaml", &s, &error));
  EXPECT_EQ(error, "/nonexistent/s.yaml: no such scenario file");
}

TEST(ScenarioFile, DurationsNeedTheirUnitAndStayWithinAnHour) {
  for (const auto& [text, seconds] : std::vector<std::pair<std::string, double>>{
           {"500ms", 0.5}, {"2s", 2}, {"1.5s", 1.5}, {"2m", 120}, {"1h", 3600}, {"0s", 0}}) {
    double got = -1;
    EXPECT_TRUE(parse_duration(text, &got)) << text;
    EXPECT_DOUBLE_EQ(got, seconds) << text;
  }
  for (const std::string text : {"2", "s", "", "-1s", "1e3s", "2 s", "2h", "61m", "1.5.1s", "5sec"}) {
    double got = -1;
    EXPECT_FALSE(parse_duration(text, &got)) << text;
  }
}

TEST(ScenarioReport, AnyBytesBecomeWellFormedXmlAndTheReportCountsItsCases) {
  // Markup, a control byte, broken and overlong UTF-8, a surrogate and a non-character are
  // escaped or shown as \xNN; good UTF-8 passes as it is.
  EXPECT_EQ(xml_text("a<b>&\"'\r\n\t\x01\xff\xc3(\xc0\xaf\xed\xa0\x80\xef\xbf\xbf 纬度"),
            "a&lt;b&gt;&amp;&quot;&apos;&#13;\n\t\\x01\\xFF\\xC3(\\xC0\\xAF\\xED\\xA0\\x80\\xEF\\xBF\\xBF 纬度");
  EXPECT_EQ(xml_text("\xf0\x9f\x99\x82\xf4\x90\x80\x80"), "\xf0\x9f\x99\x82\\xF4\\x90\\x80\\x80");

  const std::string report = junit_report(
      "fsusim test", {{"ok", "a.yaml", 1.5, true, "", "", "ready\n"},
                      {"bad <one>", "b.yaml", 2.25, false, "b.yaml:3: wait-output \"x\"", "expected: x\n", ""}});
  for (const std::string part :
       {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"fsusim test\" tests=\"2\" failures=\"1\" "
        "errors=\"0\" time=\"3.750\">\n",
        "<testcase name=\"ok\" classname=\"a.yaml\" file=\"a.yaml\" time=\"1.500\">\n      <system-out>ready\n"
        "</system-out>\n    </testcase>",
        "<testcase name=\"bad &lt;one&gt;\" classname=\"b.yaml\" file=\"b.yaml\" time=\"2.250\">\n      <failure "
        "message=\"b.yaml:3: wait-output &quot;x&quot;\" type=\"failure\">expected: x\n</failure>\n    </testcase>",
        "</testsuite>\n</testsuites>\n"}) {
    EXPECT_NE(report.find(part), std::string::npos) << part << "\n" << report;
  }
  EXPECT_EQ(report.find("<failure", report.find("name=\"ok\"")), report.find("<failure"));  // only the failed one

  EXPECT_EQ(last_lines("one\ntwo\r\nthree\x1b[0m\nfour", 3), "  | two\n  | three?[0m\n  | four\n");
  EXPECT_EQ(last_lines("one\ntwo\n", 5), "  | one\n  | two\n");
  EXPECT_EQ(last_lines("", 5), "");
}

}  // namespace
}  // namespace fsu::sim::scenario
