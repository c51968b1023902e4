// One web request pass over an arbitrary request file (the first byte picks which), in a private root
// without bin/, ports or sleeps: the request is consumed and every answer stays within its report's size.
#include <ftw.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>

#include "platform/sandbox_root.h"
#include "sdk/uart_api.h"
#include "sdk/web_requests.h"

namespace {

using namespace fsu::sdk;

constexpr const char* kRequests[] = {kSetComAttrRequest, kReadAidiRequest, kReadGpsInfoRequest,
                                     kReadGpsDbRequest,  kLogSaveRequest,  kDtuComRequest};
// Each answer and the most it may hold: its report's buffer, or a port's reply in hex.
constexpr std::pair<const char*, long> kAnswers[] = {{kAidiAnswer, kAidiReportSize}, {kGpsInfoAnswer, 1024},
                                                     {kGpsDbAnswer, 2048}, {kDtuComLog, 3 * kPortCommandSize},
                                                     {"/etc/sdk_com_attr", 1024}};
std::string g_root;

// A root of our own with tmp/ and etc/, removed when the fuzzer exits.
void make_root() {
  const char* tmp = std::getenv("TMPDIR");
  g_root = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/fsufuzz.XXXXXX";
  if (mkdtemp(g_root.data()) == nullptr || mkdir((g_root + "/tmp").c_str(), 0700) != 0 ||
      mkdir((g_root + "/etc").c_str(), 0700) != 0 || !fsu::platform::set_root(g_root.c_str()) ||
      std::freopen("/dev/null", "w", stdout) == nullptr)
    std::abort();
  std::atexit([] { nftw(g_root.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 8, FTW_DEPTH | FTW_PHYS); });
}

long file_size(const char* device_path) {
  struct stat st;
  return stat((g_root + device_path).c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (g_root.empty()) make_root();
  if (size == 0) return 0;
  reset_uart_api_for_tests();  // a request of an earlier input may have made a port virtual
  const char* request = kRequests[data[0] % 6];
  std::ofstream(g_root + request, std::ios::binary).write(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1));
  WebRequestState state{.sleep = [](long) {}};
  web_request_pass(state);
  if (file_size(request) >= 0 || state.line_max > kLogLineMax) __builtin_trap();
  for (const auto& [path, most] : kAnswers) if (file_size(path) > most) __builtin_trap();
  return 0;
}
