#include "sim/panel_request.h"

#include <sys/random.h>

namespace fsu::sim {
namespace {

// The `fsusim web` actions the page may ask for, with the number of words each takes after
// its name (a range where the last one may be left out).
struct WebForm {
  std::string_view name;
  std::size_t min_args;
  std::size_t max_args;
};
constexpr WebForm kWebForms[] = {
    {"read-aidi", 0, 0}, {"read-gps", 0, 0}, {"read-gps-db", 0, 0}, {"uart", 6, 7},
    {"log", 2, 2},       {"com-attr", 2, 2}, {"all-outputs", 1, 1}, {"counters", 0, 0},
};
constexpr std::size_t kMaxWebWords = 8;

bool fail(std::string* error, const char* why) {
  *error = why;
  return false;
}

// Words separated by single or repeated blanks.
std::vector<std::string> words_of(std::string_view text) {
  std::vector<std::string> words;
  std::size_t at = 0;
  while (at < text.size() && words.size() <= kMaxWebWords) {
    const std::size_t start = text.find_first_not_of(' ', at);
    if (start == std::string_view::npos) break;
    const std::size_t end = std::min(text.find(' ', start), text.size());
    words.emplace_back(text.substr(start, end - start));
    at = end;
  }
  return words;
}

bool web_words_fit(const std::vector<std::string>& words, std::string* error) {
  if (words.empty()) return fail(error, "web: no action");
  if (words.size() > kMaxWebWords) return fail(error, "web: too many words");
  for (const WebForm& form : kWebForms) {
    if (words[0] != form.name) continue;
    const std::size_t args = words.size() - 1;
    if (args < form.min_args || args > form.max_args) return fail(error, "web: wrong number of arguments");
    return true;
  }
  return fail(error, "web: no such action");
}

// A word as a POSIX shell reads it back: bare when it is made of safe characters, else quoted.
std::string shell_word(std::string_view word) {
  if (!word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                              "-_./:,+=@%") == std::string_view::npos) {
    return std::string(word);
  }
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

bool same_text(std::string_view a, std::string_view b) {
  // Takes as long for a wrong first digit as for a wrong last one.
  unsigned char differ = a.size() == b.size() ? 0 : 1;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) differ |= static_cast<unsigned char>(a[i] ^ b[i]);
  return differ == 0;
}

}  // namespace

std::optional<PanelAction> parse_panel_request(std::string_view body, std::string* error) {
  if (body.size() > kMaxPanelRequest) {
    fail(error, "request too long");
    return std::nullopt;
  }
  if (!body.empty() && body.back() == '\n') body.remove_suffix(1);
  for (const char c : body) {
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) {
      fail(error, "request holds a byte that is not printable ASCII");
      return std::nullopt;
    }
  }
  const std::size_t blank = body.find(' ');
  const std::string_view kind = body.substr(0, blank);
  const std::string_view rest = blank == std::string_view::npos ? std::string_view() : body.substr(blank + 1);
  PanelAction action;
  if (kind == "ctl") {
    const std::size_t first = rest.find_first_not_of(' ');
    if (first == std::string_view::npos || rest[first] == '#') {
      fail(error, "ctl: no control line");
      return std::nullopt;
    }
    action.line = std::string(rest);
    return action;
  }
  if (kind == "web") {
    action.kind = PanelAction::Kind::kWeb;
    action.words = words_of(rest);
    if (!web_words_fit(action.words, error)) return std::nullopt;
    return action;
  }
  fail(error, "a request is 'ctl LINE' or 'web ACTION ARG...'");
  return std::nullopt;
}

std::string panel_shell_command(const PanelAction& action, std::string_view root) {
  std::string command = "fsusim ";
  command += action.kind == PanelAction::Kind::kControl ? "ctl" : "web";
  command += " --root " + shell_word(root);
  if (action.kind == PanelAction::Kind::kControl) return command + " " + shell_word(action.line);
  for (const std::string& word : action.words) command += " " + shell_word(word);
  return command;
}

bool PanelGate::allows(std::string_view given_token, std::string_view host,
                       std::optional<std::string_view> origin) const {
  if (token.empty() || !same_text(given_token, token)) return false;
  for (const std::string& own : hosts) {
    if (host == own) return !origin || *origin == "http://" + own;
  }
  return false;
}

std::string new_panel_token() {
  unsigned char bytes[16];
  std::size_t got = 0;
  while (got < sizeof bytes) {
    const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n > 0) got += static_cast<std::size_t>(n);
  }
  std::string token;
  for (const unsigned char b : bytes) {
    token += "0123456789abcdef"[b >> 4];
    token += "0123456789abcdef"[b & 15];
  }
  return token;
}

std::string panel_exposure(std::string_view bind, std::string_view root) {
  if (bind == kPanelLoopback) return "";
  return "the panel listens on " + std::string(bind) +
         ": whoever reaches that address and knows the token sees the board in " + std::string(root) +
         " and changes it (its inputs, faults and ports, and the request files under its tmp/)";
}

}  // namespace fsu::sim
