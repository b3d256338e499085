// The FTP client: the connection settings of one run and the transfer handle
// that every request of the run goes through.
//
// Usage for one request: set the per-request options with set_option(), then
// call perform() with the remote path. perform() always returns the handle to
// its base state (error buffer, credentials, active or passive mode), so
// options never carry over from one request to the next, while the library's
// open connections do. Every failure throws torvane::TorvaneUtilException.
// How each transfer is waited for depends on the libcurl release that runs
// (see transfer_runner.h); what the server sees does not.

#ifndef BRINDLE_FTP_FTP_CLIENT_H_
#define BRINDLE_FTP_FTP_CLIENT_H_

#include <curl/curl.h>

#include <filesystem>
#include <memory>
#include <string>

#include "ftp/ftp_settings.h"
#include "ftp/retry.h"
#include "ftp/transfer_runner.h"

class FtpClient {
 public:
  explicit FtpClient(FtpSettings settings);
  // For tests: `sleep` stands in for the platform's sleep() between retries.
  FtpClient(FtpSettings settings, RetrySleep sleep);
  // Moving hands the transfer handle (and the multi handle, if any) over and
  // points it at the new owner's error buffer; the moved-from client keeps
  // no handle.
  FtpClient(FtpClient&& other) noexcept;
  FtpClient& operator=(FtpClient&& other) noexcept;
  FtpClient(const FtpClient&) = delete;
  FtpClient& operator=(const FtpClient&) = delete;
  ~FtpClient() = default;

  const FtpSettings& settings() const { return settings_; }

  // Sets one option on the transfer handle. The caller keeps ownership of
  // whatever a pointer value refers to, until the next perform() returns.
  // Throws "Unable to setup curl: [<code>] <description>".
  template <typename Value>
  void set_option(CURLoption option, Value value) {
    check_setup(curl_easy_setopt(handle_.get(), option, value));
  }

  // Runs one request on `remote_path` with the options set so far, retrying
  // transient failures as the settings say, then resets the handle.
  // Throws "Unable to perform request for '<URL>': <library's error text>".
  void perform(const std::filesystem::path& remote_path);

  // Brings the handle into the base state, creating it when there is none.
  void reset_handle();

 private:
  struct HandleDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  };

  static void check_setup(CURLcode code);

  FtpSettings settings_;
  RetrySleep sleep_;
  // Declared before the transfer handle so that it is destroyed after it:
  // libcurl wants easy handles cleaned up before the multi handle they were
  // used with.
  TransferRunner runner_;
  std::unique_ptr<CURL, HandleDeleter> handle_;
  char error_buffer_[CURL_ERROR_SIZE] = {};
};

#endif  // BRINDLE_FTP_FTP_CLIENT_H_
