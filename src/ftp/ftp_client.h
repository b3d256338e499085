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
//
// The client also keeps the login directory that the server named after the
// last login (login_directory()). The library returns a kept connection to
// that directory before each request, which only works when it is a known
// absolute path; once a request has succeeded without one, every later
// request logs in on a connection of its own.

#ifndef BRINDLE_FTP_FTP_CLIENT_H_
#define BRINDLE_FTP_FTP_CLIENT_H_

#include <curl/curl.h>

#include <filesystem>
#include <memory>
#include <optional>
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

  // The login directory as the server last named it in answer to PWD after
  // a login (quotes undone), whatever its form; none until a login named
  // one (before the first request, or while the server refuses PWD). See
  // ftp/login_directory.h for what can be relied on.
  const std::optional<std::string>& login_directory() const {
    return login_directory_;
  }

 private:
  struct HandleDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  };

  static void check_setup(CURLcode code);
  void prepare_retry(CURLcode failure);
  void use_unkept_connection();
  void drop_kept_connections();
  std::optional<std::string> entry_path() const;
  void learn_login_directory(CURLcode result);

  FtpSettings settings_;
  RetrySleep sleep_;
  // Declared before the transfer handle so that it is destroyed after it:
  // libcurl wants easy handles cleaned up before the multi handle they were
  // used with.
  TransferRunner runner_;
  std::unique_ptr<CURL, HandleDeleter> handle_;
  char error_buffer_[CURL_ERROR_SIZE] = {};
  std::optional<std::string> login_directory_;
  // Set once a request succeeded while the login directory was unknown.
  bool login_afresh_ = false;
};

#endif  // BRINDLE_FTP_FTP_CLIENT_H_
