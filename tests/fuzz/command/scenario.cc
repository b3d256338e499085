#include "command/scenario.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

constexpr std::uint64_t kMaxBudget = 2000;
constexpr std::size_t kMaxEntries = 64;

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::uint64_t number(std::string_view text) {
  std::uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

// Splits "PATH => ARGUMENT"; without the arrow, all of it is the path.
std::pair<std::string, std::string> path_and_argument(std::string_view rest) {
  const std::size_t arrow = rest.find(" => ");
  if (arrow == std::string_view::npos) return {unescape(std::string(rest)), ""};
  return {unescape(std::string(rest.substr(0, arrow))),
          unescape(std::string(rest.substr(arrow + 4)))};
}

void add_entry(Scenario& scenario, ScenarioEntry::Kind kind,
               std::string_view rest) {
  if (scenario.entries.size() >= kMaxEntries) return;
  auto [path, argument] = path_and_argument(rest);
  scenario.entries.push_back(
      ScenarioEntry{std::move(path), kind, std::move(argument)});
}

void add_fault(Scenario& scenario, std::string_view rest) {
  const std::size_t blank = rest.find(' ');
  if (blank == std::string_view::npos) return;
  const std::string_view place = rest.substr(0, blank);
  const std::size_t colon = place.find(':');
  FaultPlace at;
  if (colon == std::string_view::npos) {
    at.command = number(place);
  } else {
    at.connection = number(place.substr(0, colon));
    at.command = number(place.substr(colon + 1));
    if (at.connection == 0) return;
  }
  if (at.command == 0) return;
  const std::string_view action = rest.substr(blank + 1);
  ScenarioFault fault;
  if (action == "drop") {
    fault.action = ScenarioFault::Action::drop;
  } else if (action == "cut") {
    fault.action = ScenarioFault::Action::cut;
  } else if (action.substr(0, 6) == "reply ") {
    fault.action = ScenarioFault::Action::reply;
    fault.reply = unescape(std::string(action.substr(6)));
  } else {
    return;
  }
  scenario.faults[at] = std::move(fault);
}

void apply(Scenario& scenario, std::string_view line) {
  const std::size_t blank = line.find(' ');
  const std::string_view word = line.substr(0, blank);
  const std::string_view rest =
      blank == std::string_view::npos ? "" : line.substr(blank + 1);
  if (word == "login") {
    const std::string login = unescape(std::string(rest));
    // Only an absolute path without line breaks is a place a server can be
    // in; anything else leaves the default.
    if (!login.empty() && login[0] == '/' &&
        login.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos)
      scenario.login_directory = login;
  } else if (word == "pwd") {
    scenario.pwd_style = std::string(rest);
  } else if (word == "epsv") {
    scenario.epsv = rest != "off";
  } else if (word == "missing") {
    scenario.missing_is_empty = rest == "empty";
  } else if (word == "crlf") {
    scenario.crlf = true;
  } else if (word == "dots") {
    scenario.dots = true;
  } else if (word == "d") {
    add_entry(scenario, ScenarioEntry::Kind::directory, rest);
  } else if (word == "f") {
    add_entry(scenario, ScenarioEntry::Kind::file, rest);
  } else if (word == "l") {
    add_entry(scenario, ScenarioEntry::Kind::link, rest);
  } else if (word == "p") {
    add_entry(scenario, ScenarioEntry::Kind::pipe, rest);
  } else if (word == "hide") {
    scenario.hidden.push_back(unescape(std::string(rest)));
  } else if (word == "dos") {
    scenario.dos_directories.push_back(unescape(std::string(rest)));
  } else if (word == "junk") {
    scenario.junk.push_back(path_and_argument(rest));
  } else if (word == "body") {
    scenario.bodies.push_back(path_and_argument(rest));
  } else if (word == "fault") {
    add_fault(scenario, rest);
  } else if (word == "budget") {
    scenario.budget = std::clamp<std::uint64_t>(number(rest), 1, kMaxBudget);
  } else if (word == "remote") {
    scenario.remote = unescape(std::string(rest));
  } else if (word == "recursive") {
    scenario.recursive = true;
  } else if (word == "follow") {
    scenario.follow_symlinks = true;
  } else if (word == "long") {
    scenario.long_listing = true;
  } else if (word == "retry") {
    scenario.retries =
        static_cast<unsigned>(std::min<std::uint64_t>(number(rest), 3));
  } else if (word == "batch") {
    scenario.batch_budget = unescape(std::string(rest));
  } else if (word == "local") {
    scenario.local_style = std::string(rest);
  } else if (word == "source") {
    scenario.source = static_cast<unsigned>(number(rest) % 64);
  }
}

}  // namespace

std::string unescape(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      bytes += text[i];
      continue;
    }
    const char next = text[++i];
    if (next == 'n') {
      bytes += '\n';
    } else if (next == 'r') {
      bytes += '\r';
    } else if (next == '0') {
      bytes += '\0';
    } else if (next == 'x' && i + 2 < text.size() &&
               hex_digit(text[i + 1]) >= 0 && hex_digit(text[i + 2]) >= 0) {
      bytes += static_cast<char>(hex_digit(text[i + 1]) * 16 +
                                 hex_digit(text[i + 2]));
      i += 2;
    } else {
      bytes += next;
    }
  }
  return bytes;
}

Scenario decode_scenario(const std::uint8_t* data, std::size_t size) {
  Scenario scenario;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    apply(scenario, text.substr(start, end - start));
    start = end + 1;
  }
  return scenario;
}
