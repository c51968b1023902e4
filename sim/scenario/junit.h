// The JUnit XML report of `fsusim test`, the form CI systems show test results in: one test
// case per scenario, with the failure and the application's output.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fsu::sim::scenario {

struct CaseReport {
  std::string name;
  std::string file;
  double seconds = 0;
  bool passed = false;
  std::string message;  // a failure in one line
  std::string details;  // what was expected, what was seen, the last lines of output
  std::string output;   // what the application printed
};

// Text as XML character data or attribute value: markup characters escaped, and bytes that XML
// cannot carry (control characters, broken UTF-8) shown as \xNN.
std::string xml_text(std::string_view text);

// The whole report: a <testsuites> with one <testsuite> of `suite` holding the cases.
std::string junit_report(std::string_view suite, const std::vector<CaseReport>& cases);

}  // namespace fsu::sim::scenario
