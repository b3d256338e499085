// Directory listings and the lookup of one remote path.
//
// The server is never asked what a path is: everything is learnt from LIST
// answers of directories, parsed line by line into RemoteEntry values.

#ifndef BRINDLE_LISTING_REMOTE_LISTING_H_
#define BRINDLE_LISTING_REMOTE_LISTING_H_

#include <cstddef>
#include <deque>
#include <filesystem>
#include <istream>
#include <ostream>

#include "ftp/ftp_client.h"
#include "listing/remote_entry.h"

// The entries of one directory, in the order the server sent them, unfiltered.
using RemoteListing = std::deque<RemoteEntry>;

// Write callback that writes each block to the std::ostream given as the
// request's write data and reports the whole block as consumed.
std::size_t write_to_stream(char* data, std::size_t size, std::size_t count,
                            void* stream);

// Sends "LIST" (long_format) or "NLST" for `path` and streams the raw answer
// into `sink` as it arrives.
void request_listing(FtpClient& client, const std::filesystem::path& path,
                     bool long_format, std::ostream& sink);

// Reads `body` line by line, split at line feeds (a carriage return stays in
// its line; a last line without a line feed still counts), and parses each
// line into an entry at the back of the listing. Throws on the first line
// that does not parse.
RemoteListing parse_listing(std::istream& body);

// Lists `dir_path` (with "/." appended unless its file name is already ".")
// and parses every line of the answer, split at line feeds.
RemoteListing list_directory(FtpClient& client,
                             const std::filesystem::path& dir_path);

// Lists the parent of `path` and returns the first entry whose name (for a
// link, the part before " -> ") equals the file name of `path`; throws
// "Unable to find remote path '<path>'" when there is none.
RemoteEntry find_remote_entry(FtpClient& client,
                              const std::filesystem::path& path);

#endif  // BRINDLE_LISTING_REMOTE_LISTING_H_
