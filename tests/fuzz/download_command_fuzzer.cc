// Fuzzes the download command, of one entry and of trees, with and without
// --follow-symlinks, against a server made of the input.

#include <cstddef>
#include <cstdint>

#include "command/command_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  run_fuzzed_command(FuzzedCommand::download, data, size);
  return 0;
}
