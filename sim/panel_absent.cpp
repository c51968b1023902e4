// The panel of an fsusim built without an HTTP library (the cross build for the board's
// processor): every start says so.
#include "sim/panel_server.h"

namespace fsu::sim {

struct Panel::Impl {};

Panel::Panel(std::string, std::string, int) {}
Panel::~Panel() = default;

bool Panel::start(std::string* error) {
  *error = "this fsusim was built without the front panel (no cpp-httplib for its processor)";
  return false;
}

std::string Panel::address() const { return ""; }
void Panel::stop() {}

}  // namespace fsu::sim
