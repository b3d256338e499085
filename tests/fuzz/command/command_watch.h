// The rules that every command must keep towards a server, checked on each
// command that the fuzzed server receives. A broken rule is kept as a
// violation, which the harness turns into a crash (and so a saved input).
//
// - No path that a command names leaves the login directory.
// - Only remove deletes (DELE, RMD), only upload creates (STOR, MKD).
// - A DELE or RMD names an entry that a listing of its directory showed,
//   inside the tree that was looked up; the same path at most once, and
//   nothing below a directory after that directory's RMD; none at all while
//   the last listing of some path had failed when the first of them came.
// - A RETR names an entry that a listing showed.
// - A STOR lands inside the upload's target.
// Repetitions and reorderings are allowed across an injected fault (a retry
// resends its request from the start).

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

  // A LIST of the server path `directory` answered `body` (complete when
  // `complete`).
  void listed(const std::string& directory, const std::string& body,
              bool complete);
  // A command naming the server path `path` (resolved against the session's
  // directory), before the server acts on it.
  void received(const std::string& verb, const std::string& path);
  // The server injected a fault or hung up: what follows may be a retry.
  void fault() { ++epoch_; }

  const std::vector<std::string>& violations() const { return violations_; }

 private:
  bool shown(const std::string& path) const;
  void violation(const std::string& text);

  FuzzedCommand command_;
  std::string login_;
  std::string target_;
  std::uint64_t epoch_ = 0;
  // Every name that a listing of the directory may have meant.
  std::map<std::string, std::set<std::string>> shown_;
  std::map<std::string, bool> last_listing_complete_;
  bool deleting_ = false;
  std::map<std::string, std::uint64_t> deleted_in_epoch_;
  std::map<std::string, std::uint64_t> removed_directory_in_epoch_;
  std::vector<std::string> violations_;
};

// Whether `path` is `directory` or lies below it (both server paths).
bool is_within(const std::string& path, const std::string& directory);

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_COMMAND_WATCH_H_
