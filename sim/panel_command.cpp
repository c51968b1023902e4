#include "sim/panel_command.h"

#include <csignal>
#include <string_view>

#include "platform/sandbox_root.h"

namespace fsu::sim {

const char kPanelUsage[] =
    "  fsusim panel --root DIR [--bind ADDR]\n"
    "      the front panel of the board up in DIR, in a browser: prints its address (with\n"
    "      the token every request needs) and serves it on 127.0.0.1 until interrupted;\n"
    "      --bind ADDR listens on another address of this PC instead, for anyone who can\n"
    "      reach it and has the token\n"
    "  fsusim run --panel [--bind ADDR] [--root DIR] ... -- COMMAND [ARG...]\n"
    "      the same, for as long as COMMAND runs\n";

bool panel_option(int argc, char* const* argv, int* i, PanelChoice* choice, std::string* error) {
  const std::string_view arg = argv[*i];
  if (arg == "--panel") {
    choice->wanted = true;
    return true;
  }
  if (arg.starts_with("--bind=")) {
    choice->wanted = true;
    choice->bind = arg.substr(7);
  } else if (arg == "--bind") {
    choice->wanted = true;
    if (*i + 1 >= argc) {
      *error = "--bind needs an address";
      return true;
    }
    choice->bind = argv[++*i];
  } else {
    return false;
  }
  if (choice->bind.empty()) *error = "--bind needs an address";
  return true;
}

std::unique_ptr<Panel> open_panel(const PanelChoice& choice, const std::string& root, std::FILE* out, std::FILE* err) {
  auto panel = std::make_unique<Panel>(root, choice.bind);
  std::string error;
  if (!panel->start(&error)) {
    std::fprintf(err, "fsusim: %s\n", error.c_str());
    return nullptr;
  }
  const std::string exposure = panel_exposure(choice.bind, root);
  if (!exposure.empty()) std::fprintf(err, "fsusim: %s\n", exposure.c_str());
  std::fprintf(out, "fsusim: panel at %s\n", panel->address().c_str());
  std::fflush(out);
  return panel;
}

int panel_command(std::span<char* const> args, std::FILE* out, std::FILE* err) {
  PanelChoice choice;
  choice.wanted = true;
  const char* root_arg = nullptr;
  std::string error;
  const int argc = static_cast<int>(args.size());
  for (int i = 0; i < argc && error.empty(); ++i) {
    const std::string_view arg = args[i];
    if (panel_option(argc, args.data(), &i, &choice, &error)) continue;
    if (arg == "--root" && i + 1 < argc) {
      root_arg = args[++i];
    } else if (arg.starts_with("--root=")) {
      root_arg = args[i] + 7;
    } else {
      error = "unknown argument " + std::string(arg);
    }
  }
  if (error.empty() && root_arg == nullptr) error = "needs --root DIR";
  if (!error.empty()) {
    std::fprintf(err, "fsusim: panel: %s; fsusim --help shows the usage\n", error.c_str());
    return 2;
  }
  if (!platform::set_root(root_arg) || !platform::in_sandbox()) {
    std::fprintf(err, "fsusim: panel: unusable root '%s'\n", root_arg);
    return 1;
  }
  const std::string root(platform::root());
  // Blocked before the panel's threads start, so that they leave the signals to sigwait.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, sig);
  sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
  const auto panel = open_panel(choice, root, out, err);
  if (!panel) return 1;
  int sig = 0;
  sigwait(&stop_signals, &sig);
  panel->stop();
  return 0;
}

}  // namespace fsu::sim
