// A failure of the fuzzing harness itself (a socket, a thread, the local
// sandbox that it could not set up), as opposed to a finding about the
// command under test.
//
// libFuzzer takes every crash, abort and exit() during an input to be that
// input's fault and saves it as a reproducer; a harness that runs out of
// ports or threads would thus file a "finding" that no run of brindle
// reproduces. harness_failure() instead prints
//
//   fuzz harness: <what>: <strerror> (errno N)
//
// and ends the process with _exit(kHarnessFailureStatus): _exit runs no
// atexit handler, so libFuzzer neither sees the exit nor writes an
// artifact, and the status (EX_OSERR of sysexits.h, "an operating system
// error") is none of libFuzzer's own (77 for a finding, 70 for a timeout)
// nor that of a clean run (0). scripts/fuzz.sh reports it as the harness's
// failure.

#ifndef BRINDLE_TESTS_FUZZ_COMMAND_HARNESS_FAILURE_H_
#define BRINDLE_TESTS_FUZZ_COMMAND_HARNESS_FAILURE_H_

inline constexpr int kHarnessFailureStatus = 71;

// `what` names the call that failed; `error` is its errno.
[[noreturn]] void harness_failure(const char* what, int error);

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_HARNESS_FAILURE_H_
