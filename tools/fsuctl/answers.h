// Readings taken out of the web request answers of an SDK program: the input report
// (/tmp/AIDIIFO) and the position report (/tmp/gps_rt_info). The answers lie in the unit's
// /tmp, where anyone may write: every text is taken as it comes, and anything that does not
// read as the report's own form gives no value rather than a wrong one.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

namespace fsuctl {

struct Analogue {
  double volts;
  double milliamps;
};

// Analogue input n of the input report ("AI 03 ...In:2.500000 V ----- ...In:12.000000 ma ;").
std::optional<Analogue> report_analogue(std::string_view report, int n);
// Digital input n (1 closed, 0 open) of the input report ("DI1-08: 0 , 1 , ...;DI9-16: ...").
std::optional<int> report_digital(std::string_view report, int n);
// Whether the input report says the environment board does not answer (it then has no inputs).
bool report_without_inputs(std::string_view report);
// The seven numbers of the position report, in its order: longitude, latitude, altitude,
// GPS satellites used and in view, BeiDou satellites used and in view.
std::optional<std::vector<double>> report_position(std::string_view report);

}  // namespace fsuctl
