// Runs one whole command of brindle in the fuzzer's process against a
// FakeFtpServer built from the input, and checks what it did:
//
// - the server's CommandWatch found no broken rule;
// - on the local side nothing outside the download's target changed (every
//   command runs beside a fixed local tree in a sandbox directory, compared
//   before and after), and a download created no symbolic link;
// - the command ended normally or with brindle's own failure, whose message
//   is one that brindle gives; anything else thrown is a finding;
// - the command left no descriptor open and no thread running (counted in
//   /proc/self before and after, once the server has closed and joined all
//   of its own).
//
// Every socket and thread of the server is gone before the next input
// starts. What the harness itself cannot set up is no finding but a
// harness failure (harness_failure.h).
//
// A broken check prints the scenario's commands and aborts, so that the
// fuzzer keeps the input. Standard output (listings, skip lines) goes to
// /dev/null.

#ifndef BRINDLE_TESTS_FUZZ_COMMAND_COMMAND_HARNESS_H_
#define BRINDLE_TESTS_FUZZ_COMMAND_COMMAND_HARNESS_H_

#include <cstddef>
#include <cstdint>

#include "command/command_watch.h"

void run_fuzzed_command(FuzzedCommand command, const std::uint8_t* data,
                        std::size_t size);

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_COMMAND_HARNESS_H_
