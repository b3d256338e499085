// Fuzzes the LIST line parser: one input is one line. Whatever the line, the
// parser either throws its own parse failure or yields an entry whose fields
// and names all lie inside the line; entry_name(true) may additionally throw
// std::out_of_range for a short link name without " -> ".

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "listing/remote_entry.h"
#include "util/torvane_util_exception.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

bool inside(std::string_view part, const std::string& line) {
  return part.empty() ||
         (part.data() >= line.data() &&
          part.data() + part.size() <= line.data() + line.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  std::string line(reinterpret_cast<const char*>(data), size);
  const std::string copy = line;
  try {
    const RemoteEntry entry(std::move(line));
    check(entry.line() == copy);
    for (int field = 0; field <= static_cast<int>(RemoteEntry::Field::name);
         ++field) {
      const RemoteEntry::Capture capture =
          entry.capture(static_cast<RemoteEntry::Field>(field));
      check(inside(capture.text, entry.line()));
      check(capture.matched || capture.text.empty());
    }
    const std::string name = entry.entry_name(false);
    check(!name.empty() || entry.capture(RemoteEntry::Field::type) == "l");
    check(copy.find(name) != std::string::npos);
    try {
      const std::string target = entry.entry_name(true);
      check(copy.find(target) != std::string::npos);
    } catch (const std::out_of_range&) {
      check(entry.capture(RemoteEntry::Field::type) == "l");
    }
    static_cast<void>(entry.is_directory());

    // Fields must survive a copy and a move of the entry.
    RemoteEntry copied = entry;
    const RemoteEntry moved = std::move(copied);
    check(moved.entry_name(false) == name);
    check(moved.is_directory() == entry.is_directory());
  } catch (const torvane::TorvaneUtilException& error) {
    // what() ends at the first NUL byte of the line.
    const std::string message =
        "Unable to parse FTP LIST output '" + copy + "'";
    check(std::string(error.what()) == message.c_str());
  }
  return 0;
}
