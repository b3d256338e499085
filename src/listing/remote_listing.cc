#include "listing/remote_listing.h"

#include <optional>
#include <sstream>
#include <string>

#include "util/torvane_util_exception.h"

std::size_t write_to_stream(char* data, std::size_t size, std::size_t count,
                            void* stream) {
  const std::size_t bytes = size * count;
  static_cast<std::ostream*>(stream)->write(
      data, static_cast<std::streamsize>(bytes));
  return bytes;
}

void request_listing(FtpClient& client, const std::filesystem::path& path,
                     bool long_format, std::ostream& sink) {
  client.set_option(CURLOPT_DIRLISTONLY, 1L);
  client.set_option(CURLOPT_WRITEFUNCTION, &write_to_stream);
  client.set_option(CURLOPT_WRITEDATA, static_cast<void*>(&sink));
  // The custom command wins over the NLST that list-only would choose.
  client.set_option(CURLOPT_CUSTOMREQUEST, long_format ? "LIST" : "NLST");
  client.perform(path);
}

RemoteListing parse_listing(std::istream& body) {
  RemoteListing listing;
  for (std::string line; std::getline(body, line);)
    listing.emplace_back(std::move(line));
  return listing;
}

namespace {

// The whole LIST answer of `dir_path`. Listing "dir/." makes the request
// enter "dir" before sending LIST.
std::stringstream fetch_listing(FtpClient& client,
                                const std::filesystem::path& dir_path) {
  std::stringstream buffer;
  request_listing(client,
                  dir_path.filename() == "." ? dir_path : dir_path / ".", true,
                  buffer);
  return buffer;
}

}  // namespace

RemoteListing list_directory(FtpClient& client,
                             const std::filesystem::path& dir_path) {
  std::stringstream buffer = fetch_listing(client, dir_path);
  return parse_listing(buffer);
}

RemoteEntry find_remote_entry(FtpClient& client,
                              const std::filesystem::path& path) {
  // A file name is a single path element without a separator, so it equals
  // an entry's name taken as a path exactly when the two texts are equal: a
  // name holding "/" has a root or more than one element. Comparing the
  // texts spares building and splitting a path for every entry of what may
  // be a very long listing.
  const std::string wanted = path.filename().native();
  // The parent is listed and read exactly as list_directory does, but only
  // the first entry of that name is kept: every line is still parsed, so a
  // line that does not parse fails the lookup wherever it stands, and is
  // then dropped instead of being held in a listing of the whole directory.
  std::stringstream buffer = fetch_listing(client, path.parent_path());
  std::optional<RemoteEntry> found;
  for (std::string line; std::getline(buffer, line);) {
    RemoteEntry entry(std::move(line));
    if (!found && entry.entry_name(false) == wanted) found = std::move(entry);
  }
  if (found) return *std::move(found);
  throw torvane::TorvaneUtilException("Unable to find remote path '" +
                                      path.native() + "'");
}
