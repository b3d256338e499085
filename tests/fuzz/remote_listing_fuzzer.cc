// Fuzzes the splitting of a whole LIST answer into lines and entries. The
// result is either the parse failure of one of the body's lines or one entry
// per line, in order, each holding exactly that line.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "listing/remote_listing.h"
#include "util/torvane_util_exception.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

// The body's lines as a reader splitting at line feeds sees them.
std::vector<std::string> lines_of(const std::string& body) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < body.size()) {
    std::size_t end = body.find('\n', start);
    if (end == std::string::npos) end = body.size();
    lines.push_back(body.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> lines = lines_of(body);
  std::istringstream stream(body);
  try {
    const RemoteListing listing = parse_listing(stream);
    check(listing.size() == lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i)
      check(listing[i].line() == lines[i]);
  } catch (const torvane::TorvaneUtilException& error) {
    bool names_a_line = false;
    for (const std::string& line : lines) {
      // what() ends at the first NUL byte of the line.
      const std::string message =
          "Unable to parse FTP LIST output '" + line + "'";
      if (std::string(error.what()) == message.c_str()) names_a_line = true;
    }
    check(names_a_line);
  }
  return 0;
}
