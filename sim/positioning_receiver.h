// The positioning receiver at the far end of /dev/ttymxc7: once a second it sends a batch of
// NMEA sentences as a GPS/BeiDou receiver does (ZDA, GGA, RMC, a GSA and a GSV group for each
// constellation it tracks) from a position, a UTC time and a sky of satellites that control
// lines set. It obeys $PCAS04 (which constellations) and counts $PCAS00 (save the settings).
// Control lines make it fail as receivers do in the field: no fix yet (nor time), a fix lost,
// sentences under the GN talker, a leap of its clock, bytes lost on the line.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/uart.h"

namespace fsu::sim {

class PositioningReceiver : public LineDevice {
 public:
  // Constellation bits, as $PCAS04 numbers them: 1 GPS, 2 BeiDou, 3 both.
  static constexpr int kGps = 1;
  static constexpr int kBeiDou = 2;
  // A GSV group has at most nine messages of four satellites.
  static constexpr std::size_t kMaxSky = 36;

  enum class Output { kFix, kNoFix, kSilent, kNoise, kCold };
  struct Satellite {
    int id;
    int cn0;  // dB-Hz; 0: in view but not tracked
  };

  PositioningReceiver();

  std::string_view mode() const override { return "receiver"; }
  void receive(std::span<const std::uint8_t> bytes, Uart& uart) override;
  void service(Uart& uart) override;
  double due() const override { return next_batch_; }

  // The control line "gps ..." without its first word; "" when applied, else why not.
  std::string control(std::span<const std::string_view> args);
  // The "receiver" line of sim/state.
  void describe_state(std::string& out) const;

  // The sentences it sends for UTC time `utc`, each ending in a carriage return and line feed.
  std::string batch(std::time_t utc) const;
  // What the next batch puts on the line when the PC's clock reads `pc_time`: the sentences at
  // the receiver's own UTC (or noise), less the bytes the line drops.
  std::string next_batch(std::time_t pc_time);

 private:
  void take_command(std::string_view line);
  std::string fix_sentences(std::string_view talker, const std::tm& utc) const;
  std::string constellation_sentences(std::string_view gsa_talker, std::string_view gsv_talker, int system,
                                      const std::vector<Satellite>& sky) const;
  std::string set_position(std::span<const std::string_view> args);
  std::string set_time(std::span<const std::string_view> args);
  std::string set_sky(std::span<const std::string_view> args);
  std::string set_fault(std::string_view what, std::span<const std::string_view> args);

  Output output_ = Output::kFix;
  int constellations_ = kGps | kBeiDou;
  double latitude_ = 31.2304;  // degrees, negative south
  double longitude_ = 121.4737;  // degrees, negative west
  double altitude_ = 12.5;  // metres above mean sea level
  double separation_ = 8.2;  // geoid separation, metres
  std::time_t time_offset_ = 0;  // UTC sent minus the PC's clock
  bool gn_talker_ = false;  // every sentence but GSV under GN, as many multi-system receivers send
  int drop_every_ = 0;  // one byte in this many is lost on the line; 0: none
  std::uint64_t line_bytes_ = 0;  // bytes that went for the line, the lost ones included
  std::vector<Satellite> gps_sky_;
  std::vector<Satellite> bd_sky_;

  double next_batch_;
  std::string line_;  // a command coming in
  std::deque<std::string> heard_;  // the latest commands taken
  std::uint64_t batches_ = 0;
  std::uint64_t skipped_ = 0;  // batches not sent because the last one was still on the line
  std::uint64_t pcas04_ = 0;
  std::uint64_t pcas00_ = 0;
  std::uint64_t bad_commands_ = 0;
  std::uint32_t noise_ = 0x2545F491;
};

}  // namespace fsu::sim
