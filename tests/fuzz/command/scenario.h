// A fuzzed run of one whole command: the server that the command talks to
// (its login directory, its tree, how it lists and where it fails) and the
// command's options, decoded from the fuzzer's bytes.
//
// The bytes are a small text of directives, one a line; a line that is no
// directive is passed over, so every input decodes to some scenario. A path
// is relative to the login directory unless it starts with "/", in which
// case it is the server's own. "=>" separates a path from its argument;
// "\n", "\r", "\0", "\\" and "\xHH" in a name or argument stand for those
// bytes. The directives:
//
//   login /home/fuzz       the login directory (default "/")
//   pwd STYLE              how PWD answers: quoted (default), trailing
//                          (with a final "/"), doubled (quotes in the path
//                          doubled), bare (no quotes), refused (550),
//                          relative ("QGPL")
//   epsv off               EPSV is refused: the client falls back to PASV
//   missing empty          LIST of a missing path answers an empty body
//   crlf / dots            listings end lines in CRLF / show "." and ".."
//   d PATH                 a directory (missing parents are made)
//   f PATH => CONTENT      a file
//   l PATH => TARGET       a symbolic link
//   p PATH                 a named pipe
//   hide PATH              exists, but no listing shows it
//   dos PATH               the directory is listed in DOS format
//   junk PATH => LINE      one more line in the directory's listing
//   body PATH => BODY      the directory's listing is BODY, as it stands
//   fault [C:]N ACTION     at the Nth command of a control connection
//                          (counted from 1 on each connection; the 220
//                          greeting is none), on every connection, or with
//                          "C:" only on the Cth connection of the run:
//                          drop (close the control connection), cut (a
//                          transfer stops halfway and the connection
//                          closes), reply TEXT (TEXT is the whole answer)
//   budget N               commands served before the server hangs up on
//                          every connection (default 200, at most 2000)
//   remote TEXT            the command's --remote-path
//   recursive / follow / long   the command's switches
//   retry N                --retry N (at most 3) with --retry-delay 0
//   batch TEXT             BRINDLE_TEST_BATCH_BUDGET=TEXT while the command
//                          runs (unset otherwise): a remove's deletions and
//                          an upload's directory creation in batches of at
//                          most TEXT bytes, where TEXT is a decimal number
//   local dot|slash|plain  the download's --local-path: "." (the working
//                          directory), "<target>/", "<target>"
//   source N               which entry of the upload's local tree is sent

#ifndef BRINDLE_TESTS_FUZZ_COMMAND_SCENARIO_H_
#define BRINDLE_TESTS_FUZZ_COMMAND_SCENARIO_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct ScenarioEntry {
  enum class Kind { directory, file, link, pipe };
  std::string path;  // as the directive gave it, escapes decoded
  Kind kind = Kind::file;
  std::string argument;  // a file's content, a link's target
};

struct ScenarioFault {
  enum class Action { drop, cut, reply };
  Action action = Action::drop;
  std::string reply;  // for Action::reply
};

// Where a fault strikes: the `command`th command of the `connection`th
// control connection (both from 1), or of every connection for 0.
struct FaultPlace {
  std::uint64_t connection = 0;
  std::uint64_t command = 0;
  auto operator<=>(const FaultPlace&) const = default;
};

struct Scenario {
  std::string login_directory = "/";
  std::string pwd_style = "quoted";
  bool epsv = true;
  bool missing_is_empty = false;
  bool crlf = false;
  bool dots = false;
  std::vector<ScenarioEntry> entries;
  std::vector<std::string> hidden;
  std::vector<std::string> dos_directories;
  std::vector<std::pair<std::string, std::string>> junk;
  std::vector<std::pair<std::string, std::string>> bodies;
  std::map<FaultPlace, ScenarioFault> faults;
  std::uint64_t budget = 200;

  std::string remote = ".";
  bool recursive = false;
  bool follow_symlinks = false;
  bool long_listing = false;
  unsigned retries = 0;
  std::optional<std::string> batch_budget;
  std::string local_style = "plain";
  unsigned source = 0;
};

Scenario decode_scenario(const std::uint8_t* data, std::size_t size);

// "\n", "\r", "\0", "\\" and "\xHH" replaced by their bytes.
std::string unescape(const std::string& text);

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_SCENARIO_H_
