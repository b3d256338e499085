#include "ftp/login_directory.h"

#include <string_view>

namespace fs = std::filesystem;

namespace {

// The login directory without its trailing "/"s: empty for "/".
std::string_view without_trailing_separators(std::string_view directory) {
  while (!directory.empty() && directory.back() == '/')
    directory.remove_suffix(1);
  return directory;
}

}  // namespace

bool is_known_login_directory(
    const std::optional<std::string>& login_directory) {
  return login_directory && !login_directory->empty() &&
         login_directory->front() == '/' &&
         login_directory->find_first_of("\r\n") == std::string::npos;
}

std::string command_path(const fs::path& path,
                         const std::optional<std::string>& login_directory) {
  const std::string& text = path.native();
  if (text.empty() || text.front() != '/') return text;
  if (!is_known_login_directory(login_directory)) {
    // Relative to the directory the server put the session in.
    const std::size_t start = text.find_first_not_of('/');
    return start == std::string::npos ? std::string() : text.substr(start);
  }
  return std::string(without_trailing_separators(*login_directory)) + text;
}

std::optional<fs::path> login_relative_target(
    const fs::path& target, const std::optional<std::string>& login_directory) {
  if (!is_known_login_directory(login_directory)) return std::nullopt;
  const std::string_view base = without_trailing_separators(*login_directory);
  const std::string_view text = target.native();
  if (!text.starts_with(base)) return std::nullopt;
  const std::string_view rest = text.substr(base.size());
  if (rest.empty()) return fs::path("/");
  if (rest.front() != '/') return std::nullopt;  // "/home/uv" is not in /home/u
  return fs::path(rest);
}
