// Runs one transfer of an easy handle to its end and returns its result code.
//
// With libcurl 8.4.0 and later this is curl_easy_perform(). Older releases
// can sleep up to a second inside curl_easy_perform() before a data
// connection, so for them the runner keeps a multi handle of its own and
// drives the transfer through it with a wait loop that does not stall (see
// transfer_runner.cc). Either way the result code, the text in the handle's
// error buffer and CURLINFO_RESPONSE_CODE are those of the transfer.

#ifndef BRINDLE_FTP_TRANSFER_RUNNER_H_
#define BRINDLE_FTP_TRANSFER_RUNNER_H_

#include <curl/curl.h>

#include <memory>

// How a transfer is waited for: curl_easy_perform(), or the multi handle and
// brindle's own wait loop.
enum class WaitPath { easy, multi };

// The variable that forces a wait path, for tests only: "easy" or "multi".
// Any other value, or none, leaves the choice to the libcurl release.
inline constexpr const char* kWaitPathTestVariable = "BRINDLE_TEST_WAIT_LOOP";

// The wait path for a libcurl of `version_num` (as curl_version_info() gives
// it: 0xXXYYZZ): multi before 8.4.0, easy from then on, unless `forced`
// (the test variable's value, or null) names one.
WaitPath choose_wait_path(unsigned int version_num, const char* forced);

// The wait path for the libcurl this process runs with (not the headers it
// was built with), honouring the test variable.
WaitPath wait_path_of_this_process();

class TransferRunner {
 public:
  // Creates the multi handle for WaitPath::multi. Throws
  // torvane::TorvaneUtilException "Unable to get curl handle" when it cannot.
  explicit TransferRunner(WaitPath path);

  WaitPath path() const { return multi_ ? WaitPath::multi : WaitPath::easy; }

  // Runs the transfer that `easy` is set up for. `error_buffer` must be the
  // one registered with `easy` as CURLOPT_ERRORBUFFER. The multi path adds
  // `easy` to the multi handle and always removes it again before it
  // returns, so `easy` may be reset or cleaned up afterwards. A failure of
  // the multi interface itself ends the transfer with the code that
  // curl_easy_perform() gives for it (CURLE_OUT_OF_MEMORY, else
  // CURLE_FAILED_INIT when the handle could not be added and
  // CURLE_BAD_FUNCTION_ARGUMENT later) and the multi interface's description
  // of the failure in `error_buffer`.
  CURLcode run(CURL* easy, char (&error_buffer)[CURL_ERROR_SIZE]);

 private:
  struct MultiDeleter {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };

  CURLcode run_through_multi(CURL* easy, char (&error_buffer)[CURL_ERROR_SIZE]);

  // Empty on the easy path. Holds the connection cache on the multi path, so
  // it lives as long as the runner: one control connection for a whole run.
  std::unique_ptr<CURLM, MultiDeleter> multi_;
};

#endif  // BRINDLE_FTP_TRANSFER_RUNNER_H_
