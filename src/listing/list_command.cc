#include "listing/list_command.h"

#include <iostream>

#include "ftp/ftp_client.h"
#include "ftp/path.h"
#include "listing/remote_listing.h"

void list_command(const FtpSettings& settings,
                  const std::filesystem::path& remote_path, bool long_listing) {
  std::filesystem::path target = normalize_path(remote_path);
  // Normalising removed a trailing "." or resolved a "..": put the "." back
  // so that the request still asks for the directory's contents.
  if (is_dot(remote_path) || is_dot_dot(remote_path)) target /= ".";

  FtpClient client(settings);
  if (is_dot(target)) {
    request_listing(client, target, long_listing, std::cout);
    std::cout.flush();
    return;
  }

  const RemoteEntry entry = find_remote_entry(client, target);
  if (long_listing)
    std::cout << entry.line();
  else
    std::cout << entry.entry_name(false);
  std::cout << '\n' << std::flush;
}
