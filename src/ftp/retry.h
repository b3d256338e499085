// The retry policy of requests: which failures are worth repeating, and how
// long to wait before a repetition.

#ifndef BRINDLE_FTP_RETRY_H_
#define BRINDLE_FTP_RETRY_H_

#include <curl/curl.h>

#include <cstdint>

// True for the transfer-library failures that a later attempt may not meet:
// could not connect, accept, operation timed out, send and receive errors.
bool is_transient_code(CURLcode code);

// True for an FTP reply of the transient negative class (400 to 499).
bool is_transient_reply(long response_code);

// Seconds to wait before retry number retries_made + 1: `step` seconds for
// each retry already made plus the fixed `delay`.
std::uint64_t retry_wait(std::uint64_t step, std::uint64_t delay,
                         std::uint64_t retries_made);

#endif  // BRINDLE_FTP_RETRY_H_
