// The "remove" command: one remote file or link or, recursively, a remote
// tree.
//
// The tree is first walked with listings only, collecting "DELE <path>" for
// every non-directory and "RMD <path>" for every directory, children before
// their directory, behind a leading "NOOP". The whole list is then sent as
// the pre-transfer commands of a single request, or of several in turn when
// it passes the budget of one (ftp/command_batches.h), each beginning with
// "NOOP". A failure while walking deletes nothing. The server resolves these
// commands itself, so their paths name the walk's entries as the server sees
// them (ftp/login_directory.h).

#ifndef BRINDLE_OPS_REMOVE_H_
#define BRINDLE_OPS_REMOVE_H_

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include "ftp/command_list.h"
#include "ftp/ftp_client.h"
#include "ftp/ftp_settings.h"
#include "listing/remote_entry.h"

void remove_command(const FtpSettings& settings,
                    const std::filesystem::path& remote_path, bool recursive);

// Appends the commands that delete `entry`, listed in `remote_dir`, in
// depth-first post-order, their paths written for `login_directory` (as the
// client reported it) with command_path().
void collect_removals(FtpClient& client,
                      const std::filesystem::path& remote_dir,
                      const RemoteEntry& entry, CommandList& commands,
                      const std::optional<std::string>& login_directory);

// Write callback that drops the body of the request.
std::size_t discard_body(char* data, std::size_t size, std::size_t count,
                         void* user);

#endif  // BRINDLE_OPS_REMOVE_H_
