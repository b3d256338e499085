#include "ops/download.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <system_error>

#include "ftp/login_directory.h"
#include "ftp/path.h"
#include "listing/remote_listing.h"
#include "ops/child_name.h"
#include "ops/skip_line.h"
#include "util/torvane_util_exception.h"

namespace fs = std::filesystem;
using torvane::TorvaneUtilException;

namespace {

// Receive buffer of a file transfer: large blocks mean few receive calls
// and few file writes per byte, and the buffer stays small next to the
// process's libraries.
constexpr long kReceiveBufferBytes = 256L * 1024;

bool is_regular_file(const RemoteEntry& entry) {
  const auto type = entry.capture(RemoteEntry::Field::type);
  return type == "-" || (type.text.empty() &&
                         !entry.capture(RemoteEntry::Field::size).text.empty());
}

void download_link(FtpClient& client, const fs::path& remote_dir,
                   const RemoteEntry& link, const fs::path& full_path,
                   const fs::path& local_target) {
  // A target that climbs above its start ("../x") fails here, before it is
  // joined with anything.
  fs::path target = normalize_path(link.entry_name(true));
  if (target.empty()) {
    print_skip_line(full_path, "unable to resolve symbolic link");
    return;
  }
  if (!target.has_root_directory()) {
    target = remote_dir / target;
  } else {
    // An absolute target is the server's own path; requests take paths
    // relative to the login directory, which differ unless the login
    // directory is "/". A target outside the login directory cannot be
    // reached that way, and looking its text up would find another entry.
    std::optional<fs::path> reachable =
        login_relative_target(target, client.login_directory());
    if (!reachable) {
      print_skip_line(full_path, "unable to resolve symbolic link");
      return;
    }
    target = *std::move(reachable);
  }
  const RemoteEntry target_entry = find_remote_entry(client, target);
  // The target's data lands under the link's own local name.
  download_entry(client, target.parent_path(), target_entry, local_target,
                 true);
}

void download_directory(FtpClient& client, const fs::path& full_path,
                        const fs::path& local_target, bool follow_symlinks) {
  std::error_code error;
  fs::create_directories(local_target, error);
  if (error) {
    throw TorvaneUtilException("Unable to create directory '" +
                               local_target.native() + "': " + error.message());
  }
  const RemoteListing listing = list_directory(client, full_path);
  for_each_child(
      listing, full_path,
      [&](const RemoteEntry& child, std::string_view name) {
        download_entry(client, full_path, child, local_target / name,
                       follow_symlinks);
      },
      [](const fs::path& unsafe) {
        print_skip_line(unsafe, kUnsafeNameReason);
      });
}

void download_file(FtpClient& client, const fs::path& full_path,
                   const fs::path& local_target) {
  std::ofstream file(local_target, std::ios::binary | std::ios::trunc);
  if (!file.is_open()) {
    throw TorvaneUtilException("Unable to open '" + local_target.native() +
                               "' for writing: " + std::strerror(errno));
  }
  std::ostream& sink = file;
  client.set_option(CURLOPT_WRITEFUNCTION, &write_to_stream);
  client.set_option(CURLOPT_WRITEDATA, static_cast<void*>(&sink));
  client.set_option(CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  client.perform(full_path);
}

}  // namespace

void download_command(const FtpSettings& settings, const fs::path& remote_path,
                      const fs::path& local_path, bool recursive,
                      bool follow_symlinks) {
  const fs::path remote = normalize_path(remote_path);
  fs::path local = normalize_path(local_path);
  if (is_dot(local_path) || is_dot_dot(local_path)) local /= remote.filename();

  FtpClient client(settings);
  const RemoteEntry entry = find_remote_entry(client, remote);
  if (!recursive && entry.is_directory()) {
    throw TorvaneUtilException("Unable to download remote directory '" +
                               remote.native() +
                               "': recursive operation isn't allowed");
  }
  download_entry(client, remote.parent_path(), entry, local, follow_symlinks);
}

void download_entry(FtpClient& client, const fs::path& remote_dir,
                    const RemoteEntry& entry, const fs::path& local_target,
                    bool follow_symlinks) {
  const fs::path full_path = remote_dir / entry.entry_name(false);
  if (entry.capture(RemoteEntry::Field::type) == "l") {
    if (follow_symlinks)
      download_link(client, remote_dir, entry, full_path, local_target);
    else
      print_skip_line(full_path, "symbolic links aren't allowed");
  } else if (entry.is_directory()) {
    download_directory(client, full_path, local_target, follow_symlinks);
  } else if (is_regular_file(entry)) {
    download_file(client, full_path, local_target);
  } else {
    print_skip_line(full_path, "unsupported file type");
  }
}
