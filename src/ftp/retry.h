// The retry policy of requests: which failures are worth repeating, how long
// to wait before a repetition, and the loop that runs the attempts.

#ifndef BRINDLE_FTP_RETRY_H_
#define BRINDLE_FTP_RETRY_H_

#include <curl/curl.h>

#include <cstdint>
#include <functional>

#include "ftp/ftp_settings.h"

// True for the transfer-library failures that a later attempt may not meet:
// could not connect, accept, operation timed out, send and receive errors.
bool is_transient_code(CURLcode code);

// True for an FTP reply of the transient negative class (400 to 499).
bool is_transient_reply(long response_code);

// Seconds to wait before retry number retries_made + 1: `step` seconds for
// each retry already made plus the fixed `delay`.
std::uint64_t retry_wait(std::uint64_t step, std::uint64_t delay,
                         std::uint64_t retries_made);

// Waits a number of whole seconds between two attempts.
using RetrySleep = std::function<void(unsigned int seconds)>;

// The platform's sleep(); the time left after an interruption is ignored.
void sleep_seconds(unsigned int seconds);

// Runs `attempt` and repeats it while it fails, fewer than settings.retries
// retries have been made and the failure is transient: a transient code, or
// else a transient reply as `response_code` reads it (read only when a retry
// is still allowed and the code alone is not transient). Before retry k + 1
// it calls `sleep` with retry_wait(retry_delay_step, retry_delay, k) taken
// as the platform's unsigned count, and not at all for a wait of 0.
// Returns the result of the last attempt.
CURLcode run_with_retries(const FtpSettings& settings,
                          const std::function<CURLcode()>& attempt,
                          const std::function<long()>& response_code,
                          const RetrySleep& sleep = sleep_seconds);

#endif  // BRINDLE_FTP_RETRY_H_
