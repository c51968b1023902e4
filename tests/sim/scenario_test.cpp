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
  EXPECT_TRUE(s.name == "relays" && s.board == std::vector<std::string>{"board 2 silent"} && s.clock_rate == 10 &&
              s.timeout == 60);
  std::string steps;  // kind@line port name=text (seconds, timeout)
  for (const Step& step : s.steps) {
    steps += std::string(kind_name(step.kind)) + "@" + std::to_string(step.line) + " " + std::to_string(step.port) + " " +
             step.name + "=" + step.text + " (" + std::to_string(step.seconds) + ", " + std::to_string(step.timeout) + ")\n";
  }
  EXPECT_EQ(steps,
            "delay@7 0 = (0.500000, 10.000000)\nset@8 0 =ai 3 2.5 (0.000000, 2.000000)\n"
            "input@10 0 =ai 3\n (0.000000, 10.000000)\nwait-output@11 0 =ai 3 = 2.5 (0.000000, 10.000000)\n"
            "fail-output@12 0 =no such (0.000000, 10.000000)\nwrite-uart@13 2 =~10 (0.000000, 10.000000)\n"
            "wait-uart@14 12 =ok (0.000000, 10.000000)\nwait-state@15 0 relay 2=on (0.000000, 10.000000)\n"
            "expect-state@16 0 modem.signal=24 (0.000000, 10.000000)\n"
            "web@17 0 =uart 1 9600 8 1 0 7E3130 (0.000000, 10.000000)\nwait-web@18 0 =7E (0.000000, 10.000000)\n"
            "wait-call@19 0 =reboot (0.000000, 10.000000)\nwait-exit@20 0 = (0.000000, 10.000000)\n");
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
           {head + "  - wait-output: \"\"\n", "s.yaml:3: wait-output must not be empty"},
           {head + "  - write-uart: {port: 13, text: x}\n", "s.yaml:3: port must be a whole number from 1 to 12"},
           {head + "  - write-uart: {port: 1, text: x, hex: 41}\n", "s.yaml:3: write-uart needs either text or hex"},
           {head + "  - write-uart: {port: 1, hex: 4G}\n", "s.yaml:3: hex must be pairs of hex digits"},
           {head + "  - wait-uart: {port: 1, txt: x}\n", "s.yaml:3: wait-uart has no \"txt\""},
           {head + "  - wait-state: relay 2\n", "s.yaml:3: wait-state takes a mapping"},
           {head + "  - wait-web: ok\n", "s.yaml:3: wait-web needs a web step before it"},
           {head + "  - web: rm -rf /\n", "s.yaml:3: web has no request \"rm\""},
           {head + "  - wait-exit: 256\n", "s.yaml:3: wait-exit must be a whole number from 0 to 255"},
           {"steps:\n  - delay: 1s\n  - wait-output: [\n", "s.yaml:4: not YAML"},
           {"speed: 1\n" + head, "s.yaml:1: a scenario has no \"speed\""},
           {"name: x\nsteps: []\n", "s.yaml:2: a scenario needs steps: with at least one step"},
           {"- delay: 1s\n", "s.yaml:1: a scenario is a mapping"},
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

  // Durations carry their unit and stay within an hour (-1: refused).
  for (const auto& [duration, seconds] : std::vector<std::pair<std::string, double>>{
           {"500ms", 0.5}, {"1.5s", 1.5}, {"2m", 120}, {"1h", 3600}, {"0s", 0}, {"2", -1}, {"s", -1}, {"", -1},
           {"-1s", -1}, {"1e3s", -1}, {"2 s", -1}, {"61m", -1}, {"1.5.1s", -1}, {"5sec", -1}}) {
    double got = -1;
    EXPECT_EQ(parse_duration(duration, &got) ? got : -1, seconds) << duration;
  }
}

TEST(ScenarioReport, AnyBytesBecomeWellFormedXmlAndTheReportCountsItsCases) {
  // Markup, control bytes, broken, overlong and too large UTF-8, a surrogate, a non-character.
  EXPECT_EQ(xml_text("a<b>&\"'\r\n\t\x01\xff\xc3(\xc0\xaf\xed\xa0\x80\xef\xbf\xbf 纬度\xf0\x9f\x99\x82\xf4\x90\x80\x80"),
            "a&lt;b&gt;&amp;&quot;&apos;&#13;\n\t\\x01\\xFF\\xC3(\\xC0\\xAF\\xED\\xA0\\x80\\xEF\\xBF\\xBF 纬度\xf0\x9f\x99\x82"
            "\\xF4\\x90\\x80\\x80");

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

  EXPECT_EQ(last_lines("one\ntwo\r\nthree\x1b[0m\nfour", 3), "  | two\n  | three?[0m\n  | four\n");
  EXPECT_EQ(last_lines("one\ntwo\n", 5), "  | one\n  | two\n");
}

}  // namespace
}  // namespace fsu::sim::scenario
