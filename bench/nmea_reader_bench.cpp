// The NMEA reader on the receiver's 1 Hz output: ten sentences (ZDA, GGA, RMC, two GSA, five GSV,
// valid checksums) as the simulated receiver sends them. One pass is one BSP_GPS_READ call, as the
// reader thread makes it; "per_sentence" is the time of a pass divided by its sentences.
//   BM_OneSecondBatch    the ten sentences, blanks in front up to the 1025 bytes a pass needs
//   BM_TwoSecondBatch    two seconds of output (twenty sentences, about 1300 bytes), no padding
#include <benchmark/benchmark.h>

#include <string>

#include "gps/nmea_reader.h"
#include "sim/positioning_receiver.h"

namespace {

std::string receiver_output(int seconds) {
  const fsu::sim::PositioningReceiver receiver;
  std::string text;
  for (int s = 0; s < seconds; ++s) text += receiver.batch(1794817630 + s);  // 2026-11-16 08:27:10 UTC
  return text;
}

int sentences(const std::string& text) {
  int n = 0;
  for (const char c : text) n += c == '$';
  return n;
}

void run(benchmark::State& state, std::string text) {
  if (text.size() <= fsu::gps::kGpsBatchBytes) text.insert(0, fsu::gps::kGpsBatchBytes + 1 - text.size(), ' ');
  fsu::gps::reset_gps_reader_for_tests();
  for (auto _ : state) {
    benchmark::DoNotOptimize(fsu::gps::BSP_GPS_READ(text.data(), static_cast<int>(text.size())));
  }
  state.counters["per_sentence"] = benchmark::Counter(sentences(text), benchmark::Counter::kIsIterationInvariantRate |
                                                                           benchmark::Counter::kInvert);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_OneSecondBatch(benchmark::State& state) { run(state, receiver_output(1)); }
BENCHMARK(BM_OneSecondBatch);

void BM_TwoSecondBatch(benchmark::State& state) { run(state, receiver_output(2)); }
BENCHMARK(BM_TwoSecondBatch);

}  // namespace

BENCHMARK_MAIN();
