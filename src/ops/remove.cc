#include "ops/remove.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "ftp/command_batches.h"
#include "ftp/login_directory.h"
#include "ftp/path.h"
#include "listing/remote_listing.h"
#include "ops/child_name.h"
#include "util/torvane_util_exception.h"

namespace fs = std::filesystem;
using torvane::TorvaneUtilException;

namespace {

// A message is read as a C string, which would end at a NUL byte; show such
// a byte as "\0" so that the whole path and the reason stay visible.
std::string printable_path(const fs::path& path) {
  std::string text;
  for (const char c : path.native()) {
    if (c == '\0')
      text += "\\0";
    else
      text += c;
  }
  return text;
}

}  // namespace

void remove_command(const FtpSettings& settings, const fs::path& remote_path,
                    bool recursive) {
  const fs::path remote = normalize_path(remote_path);
  FtpClient client(settings);
  const RemoteEntry entry = find_remote_entry(client, remote);
  if (!recursive && entry.is_directory()) {
    throw TorvaneUtilException("Unable to remove remote directory '" +
                               remote.native() +
                               "': recursive operation isn't allowed");
  }

  // The lookup has logged in, so the login directory is known here if the
  // server named one.
  const std::optional<std::string> login_directory = client.login_directory();
  CommandList commands;
  commands.append("NOOP");
  collect_removals(client, remote.parent_path(), entry, commands,
                   login_directory);

  // A list within the budget goes out as one request; a longer one as
  // several in turn, each within it (ftp/command_batches.h).
  const std::vector<CommandList> batches =
      split_into_batches(std::move(commands), batch_budget_of_this_process());
  // The library sends these commands on a reused connection before it
  // returns to the login directory, that is in the directory that the last
  // listing entered. Absolute commands do not mind and go out on that one
  // connection. Relative ones (a relative remote path, or an absolute one
  // below a login directory that the server did not name) must be resolved
  // against the login directory: only a new login starts there, so each of
  // their requests opens a new connection (CURLOPT_FRESH_CONNECT). Every one
  // but the last also closes its connection when it ends
  // (CURLOPT_FORBID_REUSE), so that no more than two sessions are open at
  // any time: the walk's, which stays in libcurl's connection cache, and
  // the one of the batch at hand.
  const bool relative = !remote.has_root_directory() ||
                        !is_known_login_directory(login_directory);
  for (std::size_t i = 0; i < batches.size(); ++i) {
    client.set_option(CURLOPT_WRITEFUNCTION, &discard_body);
    client.set_option(CURLOPT_QUOTE, batches[i].get());
    if (relative) {
      client.set_option(CURLOPT_FRESH_CONNECT, 1L);
      if (i + 1 < batches.size()) client.set_option(CURLOPT_FORBID_REUSE, 1L);
    }
    // The empty path addresses the server's base URL: the commands run
    // before any change of directory, and the listing that follows them is
    // dropped. A failed request is retried on its own: the batches before
    // it have taken effect.
    client.perform(fs::path());
  }
}

void collect_removals(FtpClient& client, const fs::path& remote_dir,
                      const RemoteEntry& entry, CommandList& commands,
                      const std::optional<std::string>& login_directory) {
  const fs::path full_path = remote_dir / entry.entry_name(false);
  if (!entry.is_directory()) {
    // Links, too, are deleted as themselves; their targets are never touched.
    commands.append("DELE " + command_path(full_path, login_directory));
    return;
  }
  const RemoteListing listing = list_directory(client, full_path);
  // A refused name ends the walk before anything has been sent.
  for_each_child(
      listing, full_path,
      [&](const RemoteEntry& child, std::string_view /*name*/) {
        collect_removals(client, full_path, child, commands, login_directory);
      },
      [](const fs::path& unsafe) {
        throw TorvaneUtilException("Unable to remove remote path '" +
                                   printable_path(unsafe) +
                                   "': " + std::string(kUnsafeNameReason));
      });
  commands.append("RMD " + command_path(full_path, login_directory));
}

std::size_t discard_body(char* /*data*/, std::size_t size, std::size_t count,
                         void* /*user*/) {
  return size * count;
}
