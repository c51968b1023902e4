// Cost of one SDK log record written to the log file, next to the bare file-system calls that
// one record needs (stat, open, seek to the end, write, close). Both files are kept below the
// rotation size, so no rotation distorts the figures.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "platform/sandbox_root.h"
#include "support/sdk_log.h"

namespace {

using fsu::support::SDK_LOG_SYS;

constexpr int kTruncateEvery = 4096;  // about 300 KB of records, far below the rotation size
constexpr const char* kFormat = "fun=%s,line =%d";
constexpr const char* kFunction = "GetAIValue";
constexpr int kLine = 455;

// Empties `path` every kTruncateEvery iterations, outside the timed region.
void keep_small(benchmark::State& state, int& count, const char* path) {
  if (++count % kTruncateEvery != 0) return;
  state.PauseTiming();
  if (truncate(path, 0) != 0) state.SkipWithError("truncate failed");
  state.ResumeTiming();
}

void BM_SdkLogWrite(benchmark::State& state) {
  fsu::support::SDK_LOG_PAR_INIT();
  const fsu::platform::DevicePath log(fsu::support::kLogFile);
  int count = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fsu::support::SDK_LOG_WRITE(SDK_LOG_SYS, kFormat, kFunction, kLine));
    keep_small(state, count, log.c_str());
  }
}
BENCHMARK(BM_SdkLogWrite);

void BM_BareFileCalls(benchmark::State& state) {
  // A text of the same length as the log's record.
  char record[fsu::support::kLogHeaderSize + 64];
  fsu::support::SDK_UPDATE_LOG_HEADER(SDK_LOG_SYS, record);
  const std::size_t head = std::strlen(record);
  std::snprintf(record + head, sizeof record - head, kFormat, kFunction, kLine);
  const std::size_t length = std::strlen(record);

  const fsu::platform::DevicePath path("/tmp/bare.log");
  int count = 0;
  for (auto _ : state) {
    struct stat st;
    benchmark::DoNotOptimize(stat(path.c_str(), &st));
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0700);
    lseek(fd, 0, SEEK_END);
    benchmark::DoNotOptimize(write(fd, record, length));
    close(fd);
    keep_small(state, count, path.c_str());
  }
}
BENCHMARK(BM_BareFileCalls);

// A throwaway root with tmp/ and an empty bin/, removed at the end.
class TemporaryRoot {
 public:
  TemporaryRoot() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/fsubench.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return;
    dir_ = pattern;
    std::filesystem::create_directories(dir_ + "/tmp");
    std::filesystem::create_directories(dir_ + "/bin");
  }
  ~TemporaryRoot() {
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }
  TemporaryRoot(const TemporaryRoot&) = delete;
  TemporaryRoot& operator=(const TemporaryRoot&) = delete;

  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

}  // namespace

int main(int argc, char** argv) {
  TemporaryRoot root;
  if (root.dir().empty() || !fsu::platform::set_root(root.dir().c_str())) {
    std::fprintf(stderr, "cannot make a temporary root\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
