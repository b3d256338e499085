// The files of the fuzzed server: a tree built from a scenario, which the
// server's commands read and change, and the listings it gives of itself.
//
// Paths are the server's own, absolute and normalised by resolve(). Symbolic
// links are followed inside a path (and at its end where asked), up to a
// few levels, the way a server's file system would; their targets are
// resolved against the link's directory.

#ifndef BRINDLE_TESTS_FUZZ_COMMAND_SERVER_TREE_H_
#define BRINDLE_TESTS_FUZZ_COMMAND_SERVER_TREE_H_

#include <optional>
#include <string>
#include <vector>

#include "command/scenario.h"

class ServerTree {
 public:
  explicit ServerTree(const Scenario& scenario);

  // `argument` resolved against the directory `cwd`: "." and ".." applied
  // (".." stops at "/"), repeated "/" folded; the result starts with "/"
  // and ends in none unless it is "/".
  static std::string resolve(const std::string& cwd,
                             const std::string& argument);

  bool is_directory(const std::string& path) const;  // links followed
  // Whether anything is at `path` (a final link not followed).
  bool exists(const std::string& path) const { return find(path, false) >= 0; }
  // A file's content (links followed); none for anything but a file.
  std::optional<std::string> content(const std::string& path) const;

  // The long listing of a directory, or of one entry's own line for a path
  // that is no directory; none for a missing path.
  std::optional<std::string> list(const std::string& path) const;
  // The names of a directory's shown children, one a line.
  std::optional<std::string> name_list(const std::string& path) const;

  // The changes that commands make; false where a server would refuse.
  bool remove_file(const std::string& path);       // not a directory
  bool remove_directory(const std::string& path);  // empty directories only
  bool make_directory(const std::string& path);
  bool store(const std::string& path, std::string content);

 private:
  struct Node {
    int parent = -1;
    std::string name;
    ScenarioEntry::Kind kind = ScenarioEntry::Kind::directory;
    std::string argument;  // content or link target
    bool hidden = false;
    bool removed = false;
    bool dos = false;
    std::vector<std::string> junk;
    std::optional<std::string> body;
  };

  int child(int directory, const std::string& name) const;
  // The node that `path` names, or -1; `follow_last` follows a final link.
  int find(const std::string& path, bool follow_last, int depth = 0) const;
  int add(int parent, const std::string& name, ScenarioEntry::Kind kind);
  int make_path(const std::string& path, ScenarioEntry::Kind kind);
  std::string line(const Node& node, const std::string& name, bool dos) const;
  const char* line_end() const { return crlf_ ? "\r\n" : "\n"; }

  std::vector<Node> nodes_;
  std::string login_;
  bool crlf_ = false;
  bool dots_ = false;
};

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_SERVER_TREE_H_
