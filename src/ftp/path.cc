#include "ftp/path.h"

#include "util/torvane_util_exception.h"

std::filesystem::path normalize_path(const std::filesystem::path& path) {
  std::filesystem::path result;
  for (const auto& element : path) {
    if (is_dot(element)) continue;
    if (is_dot_dot(element)) {
      if (result.native().empty())
        throw torvane::TorvaneUtilException("Invalid path '" + path.native() +
                                            "'");
      result.remove_filename();  // "/a/b" -> "/a/", "a" -> "", "/" -> "/"
      continue;
    }
    result /= element;
  }
  return result;
}

bool is_dot(const std::filesystem::path& path) {
  return path.filename().native() == ".";
}

bool is_dot_dot(const std::filesystem::path& path) {
  return path.filename().native() == "..";
}
