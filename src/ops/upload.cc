#include "ops/upload.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "ftp/command_batches.h"
#include "ftp/path.h"
#include "ops/skip_line.h"
#include "util/torvane_util_exception.h"

namespace fs = std::filesystem;
using torvane::TorvaneUtilException;

namespace {

// Send buffer of a file transfer: large blocks mean few file reads and few
// send calls per byte, and the buffer stays small next to the process's
// libraries.
constexpr long kSendBufferBytes = 256L * 1024;

void upload_link(FtpClient& client, const fs::path& local_path,
                 const fs::path& remote_path) {
  std::error_code error;
  const fs::path target = fs::canonical(local_path, error);
  if (error) {
    print_skip_line(local_path,
                    "unable to resolve symbolic link, " + error.message());
    return;
  }
  // The target's content is sent under the link's remote name.
  upload_path(client, target, remote_path, true);
}

void upload_directory(FtpClient& client, const fs::path& local_path,
                      const fs::path& remote_path, bool follow_symlinks) {
  std::error_code error;
  fs::directory_iterator entry(local_path, error);
  if (error) {
    throw TorvaneUtilException("Unable to process '" + local_path.native() +
                               "': " + error.message());
  }
  for (; entry != fs::directory_iterator();) {
    const fs::path child = entry->path();
    upload_path(client, child, remote_path / child.filename(), follow_symlinks);
    entry.increment(error);
    if (error) {
      throw TorvaneUtilException("Unable to process '" + child.native() +
                                 "': " + error.message());
    }
  }
}

// A file deep below directories that may all be missing would have its
// request's "MKD" replies, which echo ever longer paths, pass the budget of
// one request (see ftp/command_batches.h). Such a chain is created first, a
// part at a time, by requests that only enter the directories of a leading
// part of the path, creating those that are missing, and transfer nothing.
// Any other file path needs none of them.
void create_directories_in_steps(FtpClient& client,
                                 const fs::path& remote_path) {
  const fs::path directory = remote_path.parent_path();
  const std::optional<std::string>& login = client.login_directory();
  const std::size_t login_length = login ? login->size() : 0;
  const std::vector<std::size_t> steps =
      directory_steps(directory, login_length, batch_budget_of_this_process());
  auto next = steps.begin();
  fs::path leading;
  std::size_t levels = 0;
  for (const fs::path& element : directory.relative_path()) {
    if (next == steps.end()) break;
    if (element.empty()) continue;
    leading /= element;
    if (++levels != *next) continue;
    client.set_option(CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
    client.set_option(CURLOPT_NOBODY, 1L);
    // A trailing "/": the path names a directory to enter, not a file.
    client.perform(leading / "");
    ++next;
  }
}

void upload_file(FtpClient& client, const fs::path& local_path,
                 const fs::path& remote_path) {
  std::ifstream file(local_path, std::ios::binary);
  if (!file.is_open()) {
    throw TorvaneUtilException("Unable to open '" + local_path.native() +
                               "' for reading: " + std::strerror(errno));
  }
  std::istream& source = file;
  create_directories_in_steps(client, remote_path);
  client.set_option(CURLOPT_UPLOAD, 1L);
  client.set_option(CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
  client.set_option(CURLOPT_READFUNCTION, &read_from_stream);
  client.set_option(CURLOPT_READDATA, static_cast<void*>(&source));
  client.set_option(CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes);
  client.perform(remote_path);
}

}  // namespace

void upload_command(const FtpSettings& settings, const fs::path& local_path,
                    const fs::path& remote_path, bool recursive,
                    bool follow_symlinks) {
  const fs::path local = normalize_path(local_path);
  fs::path remote = normalize_path(remote_path);
  if (is_dot(remote_path) || is_dot_dot(remote_path))
    remote /= local.filename();

  FtpClient client(settings);
  // The throwing status query: only "not found" becomes this program's own
  // message; any other error escapes as the library's file system error.
  // The status follows links, so a link to a directory counts as one.
  const fs::file_status status = fs::status(local);
  if (status.type() == fs::file_type::not_found ||
      status.type() == fs::file_type::none) {
    throw TorvaneUtilException("Unable to upload '" + local.native() +
                               "': file not found");
  }
  if (!recursive && fs::is_directory(status)) {
    throw TorvaneUtilException("Unable to upload remote directory '" +
                               local.native() +
                               "': recursive operation isn't allowed");
  }
  upload_path(client, local, remote, follow_symlinks);
}

void upload_path(FtpClient& client, const fs::path& local_path,
                 const fs::path& remote_path, bool follow_symlinks) {
  // One query: for anything but a link, the status of the path itself is
  // the status that following links would give.
  const fs::file_status own = fs::symlink_status(local_path);
  if (fs::is_symlink(own)) {
    if (follow_symlinks)
      upload_link(client, local_path, remote_path);
    else
      print_skip_line(local_path, "symbolic links aren't allowed");
  } else if (fs::is_directory(own)) {
    upload_directory(client, local_path, remote_path, follow_symlinks);
  } else {
    upload_file(client, local_path, remote_path);
  }
}

std::size_t read_from_stream(char* buffer, std::size_t size, std::size_t count,
                             void* stream) {
  auto* source = static_cast<std::istream*>(stream);
  source->read(buffer, static_cast<std::streamsize>(size * count));
  return static_cast<std::size_t>(source->gcount());
}
