// The rules that every command must keep towards a server, checked on each
// command that the fuzzed server receives. A broken rule is kept as a
// violation, which the harness turns into a crash (and so a saved input).
//
// - No path that a command names leaves the login directory.
// - Only remove deletes (DELE, RMD, XRMD), only upload creates (STOR, APPE,
//   STOU, MKD, XMKD); nothing renames or changes modes (RNFR, RNTO, SITE).
// - A DELE or RMD names an entry that a listing of its directory showed,
//   inside the tree that was looked up; the same path at most once, and
//   nothing below a directory after that directory's RMD; none at all while
//   the last listing of some path had failed when the first of them came.
// - A RETR names an entry that a listing showed.
// - A STOR lands inside the upload's target, unless the server lied before
//   it (a CWD that claimed success and moved nowhere decides where it lands).
// Repetitions and reorderings are allowed across an injected fault (a retry
// resends its request from the start), and a remove's deletion only if the
// batch that it last went out in was struck by a fault: a remove sends its
// deletions in batches, each a request that begins with "NOOP", and a retry
// resends the failing batch alone, never one that had succeeded.
//
// The watch also hears every reply: what the server accepted (a 2xx reply
// to a command that changes its tree) is kept for the harness's checks and
// reports, and an injected reply that claims success (1xx to 3xx) marks the
// run as one in which the server lied, so that the tree need not show what
// the client was told.

#ifndef BRINDLE_TESTS_FUZZ_COMMAND_COMMAND_WATCH_H_
#define BRINDLE_TESTS_FUZZ_COMMAND_COMMAND_WATCH_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

enum class FuzzedCommand { list, download, remove, upload };

class CommandWatch {
 public:
  // `login` and `target` are server paths (ServerTree::resolve): the login
  // directory and the entry that the command is about.
  CommandWatch(FuzzedCommand command, std::string login, std::string target);

  // A LIST of the server path `directory` delivered `body` (complete when
  // `complete`; what went out before the transfer broke off otherwise).
  void listed(const std::string& directory, const std::string& body,
              bool complete);
  // A command, before the server acts on it: `verb` in capitals, the rest
  // of its line, and the server path it names (resolved against the
  // session's directory), empty for a command that names none.
  void received(const std::string& verb, const std::string& argument,
                const std::string& path);
  // The server's whole reply to that command; `injected` when a fault gave
  // it instead of the answer.
  void replied(const std::string& verb, const std::string& path,
               const std::string& reply, bool injected);
  // The server injected a fault or hung up: what follows may be a retry.
  void fault();

  const std::vector<std::string>& violations() const { return violations_; }
  // An injected reply claimed success.
  bool lied() const { return lied_; }
  // Whether the server accepted a command of `verbs` (any change of its
  // tree when empty) naming `path`.
  bool accepted(const std::string& path,
                const std::set<std::string>& verbs = {}) const;
  // How many times a command of `verb` named `path`.
  std::size_t times_received(const std::string& verb,
                             const std::string& path) const;
  // What the server accepted, in order: "DELE /a/b: 250 deleted".
  const std::vector<std::string>& accepted_changes() const {
    return accepted_changes_;
  }

 private:
  bool shown(const std::string& path) const;
  void violation(const std::string& text);
  void deletion(const std::string& verb, const std::string& path);

  FuzzedCommand command_;
  std::string login_;
  std::string target_;
  std::uint64_t epoch_ = 0;
  // Every name that a listing of the directory may have meant.
  std::map<std::string, std::set<std::string>> shown_;
  std::map<std::string, bool> last_listing_complete_;
  // What the broken-off listings of a directory delivered since its last
  // complete one: the start of the text that a retry's listing ends.
  std::map<std::string, std::string> unfinished_listings_;
  bool deleting_ = false;
  // Batches are numbered by the NOOPs that begin them, from 1 (0: before
  // the first).
  std::uint64_t batch_ = 0;
  std::set<std::uint64_t> failed_batches_;
  struct Sent {
    std::uint64_t epoch;
    std::uint64_t batch;
  };
  std::map<std::string, Sent> deleted_;  // the last DELE or RMD of a path
  std::map<std::string, std::uint64_t> removed_directory_in_epoch_;
  std::vector<std::string> violations_;
  bool lied_ = false;
  std::vector<std::string> accepted_changes_;
  std::set<std::pair<std::string, std::string>> accepted_;  // verb, path
  std::map<std::pair<std::string, std::string>, std::size_t> received_;
};

// Whether `path` is `directory` or lies below it (both server paths).
bool is_within(const std::string& path, const std::string& directory);

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_COMMAND_WATCH_H_
