// Fuzzes lexical path normalisation. A path either fails with the "Invalid
// path" message or normalises to a path without "." or ".." elements that
// normalises to itself again; is_dot and is_dot_dot look only at the last
// element.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ftp/path.h"
#include "util/torvane_util_exception.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::filesystem::path path(
      std::string(reinterpret_cast<const char*>(data), size));
  check(is_dot(path) == (path.filename() == "."));
  check(is_dot_dot(path) == (path.filename() == ".."));
  check(!(is_dot(path) && is_dot_dot(path)));
  try {
    const std::filesystem::path normal = normalize_path(path);
    for (const std::filesystem::path& element : normal)
      check(element != "." && element != "..");
    check(normal.is_absolute() == path.is_absolute());
    check(normalize_path(normal) == normal);
    check(!is_dot(normal) && !is_dot_dot(normal));
  } catch (const torvane::TorvaneUtilException& error) {
    // what() ends at the first NUL byte of the path.
    const std::string message = "Invalid path '" + path.native() + "'";
    check(std::string(error.what()) == message.c_str());
    check(path.is_relative());
  }
  return 0;
}
