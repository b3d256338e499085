#include "ops/skip_line.h"

#include <iostream>

void print_skip_line(const std::filesystem::path& path,
                     std::string_view reason) {
  std::cout << "skip '" << path << "': " << reason << std::endl;
}
