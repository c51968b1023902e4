#include "sim/panel_server.h"

#include <poll.h>
#include <csignal>
#include <sys/inotify.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "platform/clock.h"
#include "sim/control_client.h"
#include "sim/panel_assets.h"
#include "sim/panel_feed.h"
#include "sim/panel_request.h"
#include "sim/web_pages.h"

namespace fsu::sim {
namespace {

// How long `ctl` actions wait for the board, as `fsusim ctl` does.
constexpr double kControlTimeout = 5.0;
// Changes that come close together (a state rewrite and a log line) make one push.
constexpr int kSettleMs = 20;
// The longest a change of a log or a web file waits for others to join it.
constexpr int kLazyMs = 300;
// A look at the files even when no change was announced (a folder made after the start).
constexpr int kRefreshMs = 2000;
// An idle event stream sends a comment this often, so a dead browser is noticed.
constexpr auto kKeepAlive = std::chrono::seconds(15);

constexpr const char* kSecurityHeaders[][2] = {
    {"Cache-Control", "no-store"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Frame-Options", "DENY"},
    {"Content-Security-Policy", "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'"},
};

std::string host_form(std::string_view address, int port) {
  const std::string host = address.find(':') == std::string_view::npos ? std::string(address)
                                                                        : "[" + std::string(address) + "]";
  return host + ":" + std::to_string(port);
}

std::string content_type(std::string_view name) {
  if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  if (name.ends_with(".svg")) return "image/svg+xml";
  return "text/html; charset=utf-8";
}

}  // namespace

struct Panel::Impl {
  std::string root;
  std::string bind;
  int port;
  PanelGate gate;
  std::string own_host;
  httplib::Server server;
  std::thread listener;
  std::thread watcher;
  int wake[2] = {-1, -1};

  std::mutex mutex;
  std::condition_variable changed;
  std::string snapshot;
  std::uint64_t version = 0;
  bool stopping = false;
  std::mutex web_mutex;  // one web request at a time: they share the request files

  void routes();
  void watch();
  void refresh();
  void serve_events(httplib::Response& res);
  nlohmann::json run(const PanelAction& action);
};

Panel::Panel(std::string root, std::string bind, int port) : impl_(std::make_unique<Impl>()) {
  impl_->root = std::move(root);
  impl_->bind = std::move(bind);
  impl_->port = port;
}

Panel::~Panel() { stop(); }

bool Panel::start(std::string* error) {
  Impl& p = *impl_;
  if (p.bind == "0.0.0.0" || p.bind == "::") {
    *error = "the panel needs one address of this PC to listen on, not every address (" + p.bind + ")";
    return false;
  }
  if (pipe2(p.wake, O_CLOEXEC) != 0) {
    *error = "cannot make a pipe for the panel";
    return false;
  }
  p.gate.token = new_panel_token();
  p.routes();
  p.server.set_keep_alive_timeout(1);
  p.server.set_payload_max_length(4 * kMaxPanelRequest);
  const int port = p.port == 0 ? p.server.bind_to_any_port(p.bind) : (p.server.bind_to_port(p.bind, p.port) ? p.port : -1);
  if (port <= 0) {
    *error = "the panel cannot listen on " + host_form(p.bind, p.port);
    return false;
  }
  p.port = port;
  p.own_host = host_form(p.bind, port);
  p.gate.hosts = {p.own_host};
  if (p.bind == kPanelLoopback) p.gate.hosts.push_back("localhost:" + std::to_string(port));
  p.refresh();
  // Signals are for the main thread (it stops the board, or passes them to an application).
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &previous);
  p.watcher = std::thread([&p] { p.watch(); });
  p.listener = std::thread([&p] {
    pthread_setname_np(pthread_self(), "panel-http");  // its workers take the name too
    p.server.listen_after_bind();
  });
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return true;
}

std::string Panel::address() const { return "http://" + impl_->own_host + "/?token=" + impl_->gate.token; }

void Panel::stop() {
  Impl& p = *impl_;
  {
    const std::lock_guard lock(p.mutex);
    if (p.stopping) return;
    p.stopping = true;
  }
  p.changed.notify_all();
  if (p.wake[1] >= 0) {
    const char byte = 0;
    (void)!write(p.wake[1], &byte, 1);
  }
  p.server.stop();
  if (p.listener.joinable()) p.listener.join();
  if (p.watcher.joinable()) p.watcher.join();
  for (int& fd : p.wake) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

void Panel::Impl::routes() {
  server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    for (const auto& header : kSecurityHeaders) res.set_header(header[0], header[1]);
    std::optional<std::string_view> origin;
    const std::string origin_text = req.get_header_value("Origin");
    if (req.has_header("Origin")) origin = origin_text;
    if (gate.allows(req.get_param_value("token"), req.get_header_value("Host"), origin)) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    res.status = 403;
    res.set_content("403 forbidden: open the address fsusim printed, with its token\n", "text/plain");
    return httplib::Server::HandlerResponse::Handled;
  });
  server.Get("/", [this](const httplib::Request&, httplib::Response& res) {
    std::string page(*panel_asset("index.html"));
    for (std::size_t at; (at = page.find("__TOKEN__")) != std::string::npos;) page.replace(at, 9, gate.token);
    res.set_content(page, content_type("index.html"));
  });
  server.Get(R"(/([a-z]+\.(js|css|svg)))", [](const httplib::Request& req, httplib::Response& res) {
    const std::string name = req.matches[1];
    if (const auto asset = panel_asset(name)) {
      res.set_content(std::string(*asset), content_type(name));
    } else {
      res.status = 404;
    }
  });
  server.Get("/state", [this](const httplib::Request&, httplib::Response& res) {
    const std::lock_guard lock(mutex);
    res.set_content(snapshot, "application/json");
  });
  server.Get("/events", [this](const httplib::Request&, httplib::Response& res) { serve_events(res); });
  server.Post("/action", [this](const httplib::Request& req, httplib::Response& res) {
    std::string error;
    const auto action = parse_panel_request(req.body, &error);
    nlohmann::json answer;
    if (action) {
      answer = run(*action);
    } else {
      res.status = 400;
      answer = {{"ok", false}, {"errors", {error}}};
    }
    res.set_content(answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), "application/json");
  });
}

nlohmann::json Panel::Impl::run(const PanelAction& action) {
  nlohmann::json answer = {{"command", panel_shell_command(action, root)}};
  std::vector<std::string> errors;
  if (action.kind == PanelAction::Kind::kControl) {
    const std::string lines[] = {action.line};
    answer["ok"] = send_control(root, lines, kControlTimeout, &errors);
    answer["errors"] = errors;
    return answer;
  }
  std::string out;
  std::string err;
  int status = 1;
  {
    const std::lock_guard lock(web_mutex);
    status = web_command_texts(root, action.words, &out, &err);
  }
  answer["ok"] = status == 0;
  answer["output"] = out;
  if (!err.empty()) answer["errors"] = {err};
  return answer;
}

void Panel::Impl::serve_events(httplib::Response& res) {
  res.set_chunked_content_provider("text/event-stream", [this, sent = std::uint64_t{0}](std::size_t,
                                                                                         httplib::DataSink& sink) mutable {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, kKeepAlive, [&] { return stopping || version != sent; });
    if (stopping) {
      sink.done();
      return false;
    }
    if (version == sent) {
      lock.unlock();
      static constexpr char kComment[] = ": idle\n\n";
      return sink.write(kComment, sizeof kComment - 1);
    }
    sent = version;
    const std::string event = "data: " + snapshot + "\n\n";
    lock.unlock();
    return sink.write(event.data(), event.size());
  });
}

void Panel::Impl::refresh() {
  std::string text = panel_snapshot(root);
  {
    const std::lock_guard lock(mutex);
    if (text == snapshot) return;
    snapshot = std::move(text);
    ++version;
  }
  changed.notify_all();
}

// Rebuilds the snapshot when a file of the board's (sim/) or of the device's tmp/ changes: at
// once when the board rewrote its state, within kLazyMs for the logs and the web files, which
// change many times a second while an application logs.
void Panel::Impl::watch() {
  pthread_setname_np(pthread_self(), "panel-feed");
  const int notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  int board_files = -1;
  const auto add_watches = [&] {
    if (notify < 0) return;
    board_files = inotify_add_watch(notify, (root + "/sim").c_str(),
                                    IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_ONLYDIR);
    inotify_add_watch(notify, (root + "/tmp").c_str(),
                      IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_ONLYDIR);
  };
  add_watches();
  alignas(inotify_event) char events[4096];
  // Takes the waiting events; true when one of them is a new state of the board.
  const auto drain = [&] {
    bool state = false;
    for (ssize_t n; notify >= 0 && (n = read(notify, events, sizeof events)) > 0;) {
      for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
        inotify_event event;
        std::memcpy(&event, events + at, sizeof event);
        const std::size_t name_at = static_cast<std::size_t>(at) + sizeof event;
        state = state || (event.wd == board_files && event.len > 0 &&
                          std::strncmp(events + name_at, "state", event.len) == 0);
        at += static_cast<ssize_t>(sizeof event + event.len);
      }
    }
    return state;
  };
  for (;;) {
    pollfd fds[2] = {{wake[0], POLLIN, 0}, {notify, POLLIN, 0}};
    const int ready = poll(fds, notify >= 0 ? 2 : 1, kRefreshMs);
    if (fds[0].revents != 0) break;
    if (ready > 0) {
      bool state = drain();
      // Until the state comes, or the lazy wait is over.
      const double until = platform::monotonic_seconds() + kLazyMs / 1000.0;
      bool stopping_now = false;
      for (double left; !state && !stopping_now && (left = until - platform::monotonic_seconds()) > 0;) {
        if (poll(fds, 2, static_cast<int>(left * 1000) + 1) <= 0) continue;
        stopping_now = fds[0].revents != 0;
        state = !stopping_now && drain();
      }
      if (stopping_now || poll(fds, 1, kSettleMs) > 0) break;
      drain();
    } else {
      add_watches();  // the same watch again is no new one; a folder made since gets its own
    }
    refresh();
  }
  if (notify >= 0) close(notify);
}

}  // namespace fsu::sim
