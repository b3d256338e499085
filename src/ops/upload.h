// The "upload" command: one local file or, recursively, a local tree to the
// server.
//
// Remote directories come into being through the library's
// create-missing-directories option when the first file inside them is sent,
// so an empty local directory leaves no trace. Files are streamed from disk;
// links are followed (to their canonical path) only when asked; anything that
// is not a directory, named pipes included, is read like a file. Skipped
// entries are reported with a skip line; the first failure ends the command.

#ifndef BRINDLE_OPS_UPLOAD_H_
#define BRINDLE_OPS_UPLOAD_H_

#include <cstddef>
#include <filesystem>

#include "ftp/ftp_client.h"
#include "ftp/ftp_settings.h"

// A remote path ending in "." or ".." receives the local file name.
void upload_command(const FtpSettings& settings,
                    const std::filesystem::path& local_path,
                    const std::filesystem::path& remote_path, bool recursive,
                    bool follow_symlinks);

// Uploads the file, directory or link `local_path` to `remote_path`.
void upload_path(FtpClient& client, const std::filesystem::path& local_path,
                 const std::filesystem::path& remote_path,
                 bool follow_symlinks);

// Read callback: reads up to size * count bytes from the std::istream given
// as the request's read data; returns the bytes read, 0 at the end.
std::size_t read_from_stream(char* buffer, std::size_t size, std::size_t count,
                             void* stream);

#endif  // BRINDLE_OPS_UPLOAD_H_
