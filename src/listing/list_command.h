// The "list" command.
//
// A remote path whose last element is "." or ".." asks for a directory's
// contents: the server's NLST answer (LIST with long_listing) is copied to
// standard output byte for byte. Any other path asks for the path's own entry,
// looked up in its parent's listing: its name (for a link, the part before
// " -> ") or, with long_listing, its raw LIST line, then a line feed.

#ifndef BRINDLE_LISTING_LIST_COMMAND_H_
#define BRINDLE_LISTING_LIST_COMMAND_H_

#include <filesystem>

#include "ftp/ftp_settings.h"

void list_command(const FtpSettings& settings,
                  const std::filesystem::path& remote_path, bool long_listing);

#endif  // BRINDLE_LISTING_LIST_COMMAND_H_
