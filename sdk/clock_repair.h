// Repair of the system time from the positioning receiver when the hardware clock is faulty:
// once at start-up (up to 20 s) and, for applications that start it, once a minute for ever.
#pragma once

namespace fsu::sdk {

// Start-up: with a faulty hardware clock, waits up to 20 s for a positioning time and sets the
// system time from it.
void HW_RESOURCES_CHECK_FUN();
// Thread body of the periodic form: every 60 s, api_box_hw_check_pass(). No start-up step runs it.
void* API_BOX_HW_CHECK(void* arg);
void api_box_hw_check_pass();
// When the record holds a positioning time: "date -s" with it, logged, and one watchdog feed.
// True when the time was set.
bool set_time_from_fix();

}  // namespace fsu::sdk
