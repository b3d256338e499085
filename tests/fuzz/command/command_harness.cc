#include "command/command_harness.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <typeinfo>
#include <vector>

#include "command/fake_ftp_server.h"
#include "command/harness_failure.h"
#include "command/scenario.h"
#include "command/server_tree.h"
#include "ftp/path.h"
#include "listing/list_command.h"
#include "ops/download.h"
#include "ops/remove.h"
#include "ops/upload.h"
#include "util/torvane_util_exception.h"

namespace fs = std::filesystem;

namespace {

// The local side of every run: a directory in /tmp with files that no
// command may touch, the upload's source tree, and the places a download
// may write to (its target, and the working directory for "--local-path .").
class Sandbox {
 public:
  Sandbox() {
    try {
      std::string name = (fs::temp_directory_path() / "brindle-fuzz-XXXXXX");
      if (mkdtemp(name.data()) == nullptr) harness_failure("mkdtemp", errno);
      root_ = name;
      write(root_ / "kept.txt", "outside the work directory");
      fs::create_directories(root_ / "work" / "cwd");
      fs::create_directories(root_ / "work" / "downloads");
      write(root_ / "work" / "kept.txt", "beside the download target");
      const fs::path upload = root_ / "upload";
      fs::create_directories(upload / "sub" / "deeper");
      fs::create_directories(upload / "empty");
      write(upload / "a.txt", "alpha\n");
      write(upload / "sub" / "b.bin", std::string("b\0\r\n\xff", 5));
      write(upload / "sub" / "deeper" / "c.txt", "gamma\n");
      fs::create_symlink("a.txt", upload / "link-file");
      fs::create_directory_symlink("sub", upload / "link-dir");
      fs::create_symlink("missing", upload / "dangling");
      // What brindle prints goes nowhere: the fuzzer reports on stderr.
      const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
      if (null < 0 || dup2(null, STDOUT_FILENO) < 0)
        harness_failure("/dev/null", errno);
      close(null);
    } catch (const fs::filesystem_error& error) {
      harness_failure("sandbox", error.code().value());
    }
  }

  ~Sandbox() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const fs::path& root() const { return root_; }
  fs::path target() const { return root_ / "work" / "downloads" / "target"; }
  fs::path cwd() const { return root_ / "work" / "cwd"; }
  fs::path source(unsigned index) const {
    static const char* const kSources[] = {
        "",         "a.txt",    "sub",   "link-file",
        "link-dir", "dangling", "empty", "sub/deeper/c.txt"};
    const char* name = kSources[index % std::size(kSources)];
    return *name ? root_ / "upload" / name : root_ / "upload";
  }

  void clear_download_places() const {
    fs::remove_all(target());
    for (const auto& entry : fs::directory_iterator(cwd()))
      fs::remove_all(entry.path());
  }

  // Every path under the root with what a change would alter, except below
  // the places a download may write to.
  using State = std::map<std::string, std::tuple<int, std::uintmax_t, long>>;
  State state(bool download) const {
    State state;
    for (auto it = fs::recursive_directory_iterator(root_);
         it != fs::recursive_directory_iterator(); ++it) {
      const fs::path& path = it->path();
      if (download && (path == target() || path == cwd())) {
        it.disable_recursion_pending();
        continue;
      }
      struct stat status {};
      if (lstat(path.c_str(), &status) != 0) harness_failure("lstat", errno);
      const bool directory = S_ISDIR(status.st_mode);
      state[path.native()] = {
          static_cast<int>(status.st_mode),
          directory ? 0 : static_cast<std::uintmax_t>(status.st_size),
          directory
              ? 0
              : status.st_mtim.tv_sec * 1000000000L + status.st_mtim.tv_nsec};
    }
    return state;
  }

  // A symbolic link below the download places.
  std::string link_below_download_places() const {
    for (const fs::path& place : {target(), cwd()}) {
      if (fs::is_symlink(place)) return place.native();
      if (!fs::is_directory(place)) continue;
      for (const auto& entry : fs::recursive_directory_iterator(place))
        if (entry.is_symlink()) return entry.path().native();
    }
    return "";
  }

 private:
  static void write(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }

  fs::path root_;
};

// The result of `step`, one of the harness's own file operations on the
// sandbox; a failure of it (no descriptors left, say) is the harness's.
template <typename Step>
auto sandbox_step(const char* what, Step step) {
  try {
    return step();
  } catch (const fs::filesystem_error& error) {
    harness_failure(what, error.code().value());
  }
}

const Sandbox& sandbox() {
  static const Sandbox instance;
  return instance;
}

// The messages that brindle's own failures begin with.
bool is_brindle_message(const std::string& message, std::uint16_t port) {
  static const char* const kPrefixes[] = {
      "Unable to find remote path '",
      "Unable to parse FTP LIST output '",
      "Unable to remove remote directory '",
      "Unable to remove remote path '",
      "Unable to download remote directory '",
      "Unable to upload remote directory '",
      "Unable to upload '",
      "Unable to create directory '",
      "Unable to open '",
      "Unable to process '",
      "Unable to setup curl: [",
      "Invalid path '",
  };
  if (message.rfind("Unable to perform request for 'ftp://127.0.0.1:" +
                        std::to_string(port),
                    0) == 0)
    return true;
  for (const char* prefix : kPrefixes)
    if (message.rfind(prefix, 0) == 0) return true;
  return false;
}

// What the command is called with: the options that the command line
// would give it (--local-user aside, which would change the fuzzer's own
// user), and the same as words for a report.
struct Invocation {
  FtpSettings settings;
  fs::path remote;
  fs::path local;
  std::vector<std::string> words;
};

Invocation invocation(FuzzedCommand command, const Scenario& scenario,
                      std::uint16_t port) {
  Invocation call;
  call.settings.host = "127.0.0.1";
  call.settings.port = port;
  call.settings.login = "fuzz";
  call.settings.password = "fuzz";
  call.settings.retries = scenario.retries;
  call.settings.retry_delay = 0;
  call.settings.retry_delay_step = 0;
  // Command-line words are C strings: a NUL byte ends them.
  call.remote = scenario.remote.c_str();
  static const char* const kSwitches[] = {"--list", "--download", "--remove",
                                          "--upload"};
  call.words = {"brindle", kSwitches[static_cast<int>(command)],
                "--host=127.0.0.1", "--port=" + std::to_string(port),
                "--remote-path=" + call.remote.native()};
  if (scenario.retries > 0)
    call.words.push_back("--retry=" + std::to_string(scenario.retries) +
                         " --retry-delay=0");
  if (command != FuzzedCommand::list && scenario.recursive)
    call.words.push_back("--recursive");
  if (command == FuzzedCommand::list && scenario.long_listing)
    call.words.push_back("--long-listing");
  if ((command == FuzzedCommand::download ||
       command == FuzzedCommand::upload) &&
      scenario.follow_symlinks)
    call.words.push_back("--follow-symlinks");
  if (command == FuzzedCommand::download) {
    if (scenario.local_style == "dot")
      call.local = ".";
    else if (scenario.local_style == "slash")
      call.local = sandbox().target().native() + "/";
    else
      call.local = sandbox().target();
  }
  if (command == FuzzedCommand::upload)
    call.local = sandbox().source(scenario.source);
  if (!call.local.empty())
    call.words.push_back("--local-path=" + call.local.native());
  return call;
}

void run(FuzzedCommand command, const Scenario& scenario,
         const Invocation& call) {
  switch (command) {
    case FuzzedCommand::list:
      list_command(call.settings, call.remote, scenario.long_listing);
      break;
    case FuzzedCommand::download:
      download_command(call.settings, call.remote, call.local,
                       scenario.recursive, scenario.follow_symlinks);
      break;
    case FuzzedCommand::remove:
      remove_command(call.settings, call.remote, scenario.recursive);
      break;
    case FuzzedCommand::upload:
      upload_command(call.settings, call.local, call.remote, scenario.recursive,
                     scenario.follow_symlinks);
      break;
  }
}

[[noreturn]] void report(const std::string& problem,
                         const std::vector<std::string>& words,
                         const std::vector<std::string>& commands) {
  std::cerr << "\n== " << problem << "\n== command line:";
  for (const std::string& word : words) std::cerr << " '" << word << "'";
  std::cerr << "\n== commands the server received, and its replies:\n";
  for (const std::string& line : commands) std::cerr << "   " << line << "\n";
  std::cerr << std::flush;
  std::abort();
}

// The entries of a directory of /proc/self: "fd" (the open descriptors, the
// one that reads them included) or "task" (the threads).
std::size_t count_entries(const char* directory) {
  std::error_code error;
  std::size_t count = 0;
  for (fs::directory_iterator it(fs::path("/proc/self") / directory, error);
       !error && it != fs::directory_iterator(); it.increment(error))
    ++count;
  if (error) harness_failure(directory, error.value());
  return count;
}

// Every open descriptor and what it is, for a report.
std::string descriptors() {
  std::string text;
  std::error_code error;
  for (fs::directory_iterator it("/proc/self/fd", error);
       !error && it != fs::directory_iterator(); it.increment(error)) {
    std::error_code unreadable;
    text += " " + it->path().filename().native() + " -> " +
            fs::read_symlink(it->path(), unreadable).native() + ";";
  }
  return text;
}

// Makes `directory` the working directory while it lives.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const fs::path& directory)
      : saved_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (saved_ < 0 || chdir(directory.c_str()) != 0)
      harness_failure("chdir", errno);
  }
  ~WorkingDirectory() {
    if (fchdir(saved_) != 0) harness_failure("fchdir", errno);
    close(saved_);
  }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  int saved_;
};

// BRINDLE_TEST_BATCH_BUDGET as the scenario says while it lives (set to its
// text, or unset), and unset after, so that no input inherits another's.
class BatchBudget {
 public:
  explicit BatchBudget(const std::optional<std::string>& budget) {
    unsetenv(kBatchBudgetVariable);
    // A NUL byte would end the value anyway.
    if (budget) setenv(kBatchBudgetVariable, budget->c_str(), 1);
  }
  ~BatchBudget() { unsetenv(kBatchBudgetVariable); }
  BatchBudget(const BatchBudget&) = delete;
  BatchBudget& operator=(const BatchBudget&) = delete;

 private:
  static constexpr const char* kBatchBudgetVariable =
      "BRINDLE_TEST_BATCH_BUDGET";
};

// The files that an upload of `local` to the server path `remote` sends,
// each with its content, in the way the upload treats the local tree: a
// directory's entries below it under their names, a symbolic link skipped
// unless links are followed (then its target under the link's name, if it
// resolves), and anything else read as a file.
void uploaded_files(const fs::path& local, const std::string& remote,
                    bool follow,
                    std::vector<std::pair<std::string, std::string>>& files) {
  std::error_code error;
  const fs::file_status own = fs::symlink_status(local, error);
  if (error) return;
  if (fs::is_symlink(own)) {
    if (!follow) return;
    const fs::path target = fs::canonical(local, error);
    if (!error) uploaded_files(target, remote, true, files);
  } else if (fs::is_directory(own)) {
    for (const auto& entry : fs::directory_iterator(local, error))
      uploaded_files(
          entry.path(),
          ServerTree::resolve(remote, entry.path().filename().native()), follow,
          files);
  } else {
    std::ifstream file(local, std::ios::binary);
    files.emplace_back(remote, std::string(std::istreambuf_iterator<char>(file),
                                           std::istreambuf_iterator<char>()));
  }
}

// What a command that ended normally should have left on the server, or
// the first thing it did not: a remove's target gone, its own deletion
// accepted; an upload's every file present with its content (the end of
// it, after a retry), its STOR accepted. Nothing is asked of a run in which an
// injected reply claimed success, nor of list and download.
std::string incomplete(FuzzedCommand command, const Scenario& scenario,
                       const fs::path& local, const std::string& target,
                       const ServerTree& tree, const CommandWatch& watch) {
  if (watch.lied()) return "";
  if (command == FuzzedCommand::remove) {
    if (tree.exists(target))
      return "the remove ended normally, but '" + target +
             "' is still on the server";
    if (!watch.accepted(target, {"DELE", "RMD", "XRMD"}))
      return "the remove ended normally, but the server accepted no "
             "deletion of '" +
             target + "'";
  }
  if (command == FuzzedCommand::upload) {
    // A remote path that ends in "." or ".." takes the local name.
    std::string remote = target;
    const std::string named = scenario.remote.c_str();
    const std::string last = named.substr(named.rfind('/') + 1);
    if (last == "." || last == "..")
      remote = ServerTree::resolve(target,
                                   normalize_path(local).filename().native());
    std::vector<std::pair<std::string, std::string>> files;
    uploaded_files(local, remote, scenario.follow_symlinks, files);
    for (const auto& [path, content] : files) {
      const std::optional<std::string> stored = tree.content(path);
      if (!stored)
        return "the upload ended normally, but '" + path +
               "' is not a file on the server";
      // A retried STOR reads on from where the failed attempt left the
      // local file, which is neither rewound nor reopened: what it stores
      // is the rest of the file, nothing at all once the first attempt
      // read it to its end.
      const bool retried = watch.times_received("STOR", path) > 1;
      const bool rest = stored->size() <= content.size() &&
                        content.compare(content.size() - stored->size(),
                                        stored->size(), *stored) == 0;
      if (retried ? !rest : *stored != content)
        return "the upload ended normally, but '" + path + "' holds " +
               std::to_string(stored->size()) + " bytes, not " +
               (retried ? "the end" : "all") + " of the " +
               std::to_string(content.size()) + " of its local file";
      if (!watch.accepted(path, {"STOR", "APPE", "STOU"}))
        return "the upload ended normally, but the server accepted no STOR "
               "of '" +
               path + "'";
    }
  }
  return "";
}

}  // namespace

void run_fuzzed_command(FuzzedCommand command, const std::uint8_t* data,
                        std::size_t size) {
  const Scenario scenario = decode_scenario(data, size);
  const Sandbox& local = sandbox();
  const bool download = command == FuzzedCommand::download;
  sandbox_step("sandbox", [&local] { local.clear_download_places(); });
  const Sandbox::State before = sandbox_step(
      "sandbox", [&local, download] { return local.state(download); });
  const std::size_t descriptors_before = count_entries("fd");
  const std::size_t threads_before = count_entries("task");

  // The command's paths are relative to the login directory, whether or
  // not they start with "/".
  const std::string login = ServerTree::resolve("/", scenario.login_directory);
  std::string relative = scenario.remote.c_str();
  while (!relative.empty() && relative[0] == '/') relative.erase(0, 1);
  const std::string watch_target = ServerTree::resolve(login, relative);
  CommandWatch watch(command, login, watch_target);

  std::vector<std::string> words;
  std::string failure;
  std::string message = "(ended without failure)";
  std::vector<std::string> commands;
  fs::path uploaded;
  std::optional<ServerTree> tree_after;  // when the command ended normally
  {
    FakeFtpServer server(scenario, watch);
    const Invocation call = invocation(command, scenario, server.port());
    words = call.words;
    uploaded = call.local;
    if (scenario.batch_budget)
      words.insert(words.begin(),
                   "BRINDLE_TEST_BATCH_BUDGET=" +
                       std::string(scenario.batch_budget->c_str()));
    try {
      const WorkingDirectory in(local.cwd());
      const BatchBudget budget(scenario.batch_budget);
      run(command, scenario, call);
      // The client has gone: its commands have all been answered.
      tree_after = server.tree();
    } catch (const torvane::TorvaneUtilException& error) {
      message = error.what();
      if (!is_brindle_message(error.what(), server.port()))
        failure =
            std::string("a message brindle does not give: ") + error.what();
    } catch (const std::exception& error) {
      failure = std::string("an exception of another kind: ") +
                typeid(error).name() + ": " + error.what();
    } catch (...) {
      failure = "something thrown that is no exception";
    }
    commands = server.commands();
    if (!failure.empty()) report(failure, words, commands);
  }
  if (std::getenv("BRINDLE_FUZZ_TRACE") != nullptr) {
    std::cerr << "== " << message << "\n";
    for (const std::string& line : commands) std::cerr << "   " << line << "\n";
  }
  // The server has closed its sockets and joined its threads: whatever is
  // left is the command's.
  const std::size_t descriptors_after = count_entries("fd");
  if (descriptors_after != descriptors_before)
    report("descriptors open before the command: " +
               std::to_string(descriptors_before) + ", after it: " +
               std::to_string(descriptors_after) + ":" + descriptors(),
           words, commands);
  // A thread that has been joined may still be listed for a moment.
  std::size_t threads_after = count_entries("task");
  for (int wait = 0; wait < 200 && threads_after > threads_before; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    threads_after = count_entries("task");
  }
  if (threads_after != threads_before)
    report("threads before the command: " + std::to_string(threads_before) +
               ", after it: " + std::to_string(threads_after),
           words, commands);
  // The server has stopped: the watch has seen everything.
  if (!watch.violations().empty())
    report(watch.violations().front(), words, commands);
  if (tree_after) {
    const std::string missing = incomplete(command, scenario, uploaded,
                                           watch_target, *tree_after, watch);
    if (!missing.empty()) report(missing, words, commands);
  }
  const Sandbox::State after = sandbox_step(
      "sandbox", [&local, download] { return local.state(download); });
  if (after != before) {
    std::string changed;
    for (const auto& [path, status] : after) {
      const auto earlier = before.find(path);
      if (earlier == before.end() || earlier->second != status) changed = path;
    }
    for (const auto& [path, status] : before)
      if (after.count(path) == 0) changed = path;
    report("a local change outside the download's target: " + changed, words,
           commands);
  }
  if (download) {
    const std::string link = sandbox_step(
        "sandbox", [&local] { return local.link_below_download_places(); });
    if (!link.empty())
      report("a symbolic link made by the download: " + link, words, commands);
  }
}
