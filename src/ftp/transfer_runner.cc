#include "ftp/transfer_runner.h"

#include <sys/select.h>

#include <cstdlib>
#include <string_view>

#include "util/torvane_util_exception.h"

namespace {

// The first release whose curl_easy_perform() does not stall (8.4.0).
constexpr unsigned int kFirstReleaseWithoutStall = 0x080400;

// Upper bound of one wait for libcurl's sockets, in milliseconds: a safety
// net for any state in which libcurl has more to do without saying so, at
// about a hundred wake-ups a second while a server keeps it waiting.
constexpr int kPollBoundMs = 10;

// Keeps `easy` in `multi` for as long as it lives. libcurl needs the easy
// handle out of the multi handle before it is reset, cleaned up or added
// again.
class Attachment {
 public:
  Attachment(CURLM* multi, CURL* easy) : multi_(multi), easy_(easy) {}
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;
  ~Attachment() { curl_multi_remove_handle(multi_, easy_); }

 private:
  CURLM* multi_;
  CURL* easy_;
};

// Ends a transfer on a failure of the multi interface: the code that
// curl_easy_perform() returns for it, and its description as the error text.
CURLcode multi_failure(CURLMcode code, CURLcode otherwise,
                       char (&error_buffer)[CURL_ERROR_SIZE]) {
  const std::string_view text = curl_multi_strerror(code);
  const std::size_t length = text.copy(error_buffer, CURL_ERROR_SIZE - 1);
  error_buffer[length] = '\0';
  return code == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : otherwise;
}

// Whether libcurl, with a transfer still running, waits for neither a socket
// nor a timer: then nothing outside can wake it, and it has more to do now.
// (curl_multi_fdset() leaves out sockets at or above FD_SETSIZE; for them
// this answers true, which costs one extra curl_multi_perform() before each
// wait, as curl_multi_poll() itself still watches them.)
CURLMcode waits_for_nothing(CURLM* multi, bool& nothing) {
  fd_set read_set;
  fd_set write_set;
  fd_set error_set;
  FD_ZERO(&read_set);
  FD_ZERO(&write_set);
  FD_ZERO(&error_set);
  int max_fd = -1;
  CURLMcode code =
      curl_multi_fdset(multi, &read_set, &write_set, &error_set, &max_fd);
  if (code != CURLM_OK) return code;
  long timeout_ms = -1;
  code = curl_multi_timeout(multi, &timeout_ms);
  nothing = max_fd == -1 && timeout_ms == -1;
  return code;
}

}  // namespace

WaitPath choose_wait_path(unsigned int version_num, const char* forced) {
  if (forced != nullptr) {
    const std::string_view name = forced;
    if (name == "easy") return WaitPath::easy;
    if (name == "multi") return WaitPath::multi;
  }
  return version_num < kFirstReleaseWithoutStall ? WaitPath::multi
                                                 : WaitPath::easy;
}

WaitPath wait_path_of_this_process() {
  // The test variable exists for brindle's own tests, which run each wait
  // path on any libcurl; it is not an option for users.
  return choose_wait_path(curl_version_info(CURLVERSION_NOW)->version_num,
                          std::getenv(kWaitPathTestVariable));
}

TransferRunner::TransferRunner(WaitPath path) {
  if (path == WaitPath::easy) return;
  multi_.reset(curl_multi_init());
  if (!multi_) throw torvane::TorvaneUtilException("Unable to get curl handle");
}

CURLcode TransferRunner::run(CURL* easy,
                             char (&error_buffer)[CURL_ERROR_SIZE]) {
  if (!multi_) return curl_easy_perform(easy);
  return run_through_multi(easy, error_buffer);
}

// This wait loop exists because of libcurl releases before 8.4.0 (Debian 12
// ships 7.88.1). When the reply to a command of the "do" phase, such as the
// 229 answer to EPSV, is already there when libcurl first looks, their multi
// state machine finishes that phase in one step and moves to its "do more"
// state (which opens the data connection) without asking to be run again.
// It then waits for no socket and no timer, and curl_easy_perform() sleeps
// in poll() until its one-second tick: a second lost per file, on most files
// of a tree when the machine is busy. libcurl 8.4.0 goes on at once (curl
// pull request 12042). Here, a transfer that is still running while libcurl
// waits for nothing is performed again at once; otherwise the loop waits in
// curl_multi_poll() for libcurl's sockets and timers, never longer than
// kPollBoundMs. Everything else (options, commands, connection reuse,
// result, error text) is libcurl's own, as with curl_easy_perform().
// Delete this loop, the multi handle and WaitPath once no supported system
// ships a libcurl older than 8.4.0.
CURLcode TransferRunner::run_through_multi(
    CURL* easy, char (&error_buffer)[CURL_ERROR_SIZE]) {
  CURLM* multi = multi_.get();
  CURLMcode code = curl_multi_add_handle(multi, easy);
  if (code != CURLM_OK)
    return multi_failure(code, CURLE_FAILED_INIT, error_buffer);
  const Attachment attachment(multi, easy);

  // At most one immediate repetition in a row, so that a state that keeps
  // waiting for nothing falls back to the bounded wait instead of spinning.
  bool repeated = false;
  for (;;) {
    int running = 0;
    code = curl_multi_perform(multi, &running);
    if (code != CURLM_OK) break;
    if (running == 0) {
      int queued = 0;
      while (const CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg == CURLMSG_DONE && message->easy_handle == easy)
          return message->data.result;
      }
      // Nothing runs and no result came: never report that as a success.
      code = CURLM_INTERNAL_ERROR;
      break;
    }
    bool nothing = false;
    code = waits_for_nothing(multi, nothing);
    if (code != CURLM_OK) break;
    if (nothing && !repeated) {
      repeated = true;
      continue;
    }
    repeated = false;
    code = curl_multi_poll(multi, nullptr, 0, kPollBoundMs, nullptr);
    if (code != CURLM_OK) break;
  }
  return multi_failure(code, CURLE_BAD_FUNCTION_ARGUMENT, error_buffer);
}
