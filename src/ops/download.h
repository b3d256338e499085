// The "download" command: one remote file or, recursively, a remote tree to
// the local disk.
//
// Entries are classified from their LIST line: link, directory, regular file
// (type "-", or a DOS line with a size), anything else unsupported. Files are
// streamed to disk; links are followed only when asked; directories are walked
// depth-first in server order. Skipped entries are reported with a skip line;
// the first failure ends the command, leaving what was already written.

#ifndef BRINDLE_OPS_DOWNLOAD_H_
#define BRINDLE_OPS_DOWNLOAD_H_

#include <filesystem>

#include "ftp/ftp_client.h"
#include "ftp/ftp_settings.h"
#include "listing/remote_entry.h"

// A local path ending in "." or ".." receives the remote file name.
void download_command(const FtpSettings& settings,
                      const std::filesystem::path& remote_path,
                      const std::filesystem::path& local_path, bool recursive,
                      bool follow_symlinks);

// Downloads `entry`, listed in `remote_dir`, to `local_target`.
void download_entry(FtpClient& client, const std::filesystem::path& remote_dir,
                    const RemoteEntry& entry,
                    const std::filesystem::path& local_target,
                    bool follow_symlinks);

#endif  // BRINDLE_OPS_DOWNLOAD_H_
