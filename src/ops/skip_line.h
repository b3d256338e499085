// The line that reports an entry left out of a transfer:
// "skip '<path>': <reason>" on standard output, with <path> written by the
// standard path inserter (double-quoted, inner quotes and backslashes
// escaped), then a line feed and a flush.

#ifndef BRINDLE_OPS_SKIP_LINE_H_
#define BRINDLE_OPS_SKIP_LINE_H_

#include <filesystem>
#include <string_view>

void print_skip_line(const std::filesystem::path& path,
                     std::string_view reason);

#endif  // BRINDLE_OPS_SKIP_LINE_H_
