// Fuzzes the upload command, of a small fixed local tree or one of its
// entries, against a server made of the input.

#include <cstddef>
#include <cstdint>

#include "command/command_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  run_fuzzed_command(FuzzedCommand::upload, data, size);
  return 0;
}
