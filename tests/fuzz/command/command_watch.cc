#include "command/command_watch.h"

#include <utility>

namespace {

std::string parent_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string base_of(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// Every name that a client could read out of one listing line, generously:
// a name is the rest of the line after a blank, cut before a link arrow or
// not, with a final carriage return or without.
void add_names(const std::string& line, std::set<std::string>& names) {
  auto add_with_arrows = [&names](const std::string& rest) {
    names.insert(rest);
    for (std::size_t arrow = rest.find(" -> "); arrow != std::string::npos;
         arrow = rest.find(" -> ", arrow + 1))
      names.insert(rest.substr(0, arrow));
  };
  for (const std::string& text : {line, !line.empty() && line.back() == '\r'
                                            ? line.substr(0, line.size() - 1)
                                            : line}) {
    add_with_arrows(text);
    for (std::size_t i = 0; i < text.size(); ++i)
      if (text[i] == ' ' || text[i] == '\t')
        add_with_arrows(text.substr(i + 1));
  }
}

// The names that each line of `text` may have meant.
void add_lines(const std::string& text, std::set<std::string>& names) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    add_names(text.substr(start, end - start), names);
    start = end + 1;
  }
}

}  // namespace

bool is_within(const std::string& path, const std::string& directory) {
  if (directory == "/") return true;
  return path == directory ||
         (path.size() > directory.size() &&
          path.compare(0, directory.size(), directory) == 0 &&
          path[directory.size()] == '/');
}

CommandWatch::CommandWatch(FuzzedCommand command, std::string login,
                           std::string target)
    : command_(command), login_(std::move(login)), target_(std::move(target)) {}

void CommandWatch::violation(const std::string& text) {
  violations_.push_back(text);
}

void CommandWatch::listed(const std::string& directory, const std::string& body,
                          bool complete) {
  last_listing_complete_[directory] = complete;
  std::set<std::string>& names = shown_[directory];
  // A retried listing is appended to what the failed attempts delivered, so
  // the client reads their bytes and this body as one text; the body alone
  // is counted too.
  std::string& unfinished = unfinished_listings_[directory];
  add_lines(body, names);
  if (!unfinished.empty()) add_lines(unfinished + body, names);
  if (complete)
    unfinished.clear();
  else
    unfinished += body;
}

bool CommandWatch::shown(const std::string& path) const {
  const auto names = shown_.find(parent_of(path));
  return path != "/" && names != shown_.end() &&
         names->second.count(base_of(path)) > 0;
}

namespace {

bool deletes(const std::string& verb) {
  return verb == "DELE" || verb == "RMD" || verb == "XRMD";
}

bool creates(const std::string& verb) {
  return verb == "STOR" || verb == "APPE" || verb == "STOU" || verb == "MKD" ||
         verb == "XMKD";
}

bool changes(const std::string& verb) {
  return deletes(verb) || creates(verb) || verb == "RNFR" || verb == "RNTO" ||
         verb == "SITE";
}

}  // namespace

void CommandWatch::fault() {
  ++epoch_;
  failed_batches_.insert(batch_);
}

void CommandWatch::replied(const std::string& verb, const std::string& path,
                           const std::string& reply, bool injected) {
  if (injected) {
    if (!reply.empty() && reply[0] >= '1' && reply[0] <= '3') lied_ = true;
    return;
  }
  if (!changes(verb) || reply.empty() || reply[0] != '2') return;
  accepted_.insert({verb, path});
  accepted_changes_.push_back(verb + " " + path + ": " +
                              reply.substr(0, reply.find_first_of("\r\n")));
}

bool CommandWatch::accepted(const std::string& path,
                            const std::set<std::string>& verbs) const {
  for (const auto& [verb, named] : accepted_)
    if (named == path && (verbs.empty() || verbs.count(verb) > 0)) return true;
  return false;
}

std::size_t CommandWatch::times_received(const std::string& verb,
                                         const std::string& path) const {
  const auto found = received_.find({verb, path});
  return found == received_.end() ? 0 : found->second;
}

void CommandWatch::received(const std::string& verb,
                            const std::string& argument,
                            const std::string& path) {
  if (verb == "NOOP" && command_ == FuzzedCommand::remove) ++batch_;
  if (verb == "SITE")
    violation("SITE " + argument + ": no command changes modes");
  if (path.empty()) return;
  ++received_[{verb, path}];
  if (!is_within(path, login_))
    violation(verb + " of '" + path + "', outside the login directory '" +
              login_ + "'");

  if (verb == "RNFR" || verb == "RNTO")
    violation(verb + " of '" + path + "': no command renames");
  if (deletes(verb) && command_ != FuzzedCommand::remove)
    violation(verb + " of '" + path + "' by a command that does not remove");
  if (creates(verb) && command_ != FuzzedCommand::upload)
    violation(verb + " of '" + path + "' by a command that does not upload");

  if (verb == "RETR" && !shown(path))
    violation("RETR of '" + path + "', which no listing showed");
  // After a lie (a CWD that claimed success and moved nowhere) the server,
  // not the client, decides where a relative STOR lands.
  if ((verb == "STOR" || verb == "APPE") && !lied_ && !is_within(path, target_))
    violation(verb + " of '" + path + "', outside the target '" + target_ +
              "'");

  if (deletes(verb) && command_ == FuzzedCommand::remove) deletion(verb, path);
}

void CommandWatch::deletion(const std::string& verb, const std::string& path) {
  if (!deleting_) {
    deleting_ = true;
    for (const auto& [directory, complete] : last_listing_complete_)
      if (!complete)
        violation(verb + " of '" + path + "' although the listing of '" +
                  directory + "' had failed");
  }
  if (!shown(path))
    violation(verb + " of '" + path + "', which no listing showed");
  if (!is_within(path, target_))
    violation(verb + " of '" + path + "', outside the tree '" + target_ +
              "' that was looked up");
  const auto earlier = deleted_.find(path);
  if (earlier != deleted_.end()) {
    if (earlier->second.epoch == epoch_)
      violation(verb + " of '" + path + "' a second time");
    else if (failed_batches_.count(earlier->second.batch) == 0)
      violation(verb + " of '" + path + "' again, although batch " +
                std::to_string(earlier->second.batch) +
                ", which sent it before, had not failed");
  }
  deleted_[path] = Sent{epoch_, batch_};
  for (std::string above = path; above != "/";) {
    above = parent_of(above);
    const auto removed = removed_directory_in_epoch_.find(above);
    if (removed != removed_directory_in_epoch_.end() &&
        removed->second == epoch_)
      violation(verb + " of '" + path + "' after the RMD of '" + above + "'");
  }
  if (verb != "DELE") removed_directory_in_epoch_[path] = epoch_;
}
