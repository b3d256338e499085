#include "ftp/ftp_client.h"

#include <algorithm>
#include <utility>

#include "ftp/login_directory.h"
#include "ftp/request_url.h"
#include "util/torvane_util_exception.h"

FtpClient::FtpClient(FtpSettings settings)
    : FtpClient(std::move(settings), sleep_seconds) {}

FtpClient::FtpClient(FtpSettings settings, RetrySleep sleep)
    : settings_(std::move(settings)),
      sleep_(std::move(sleep)),
      runner_(wait_path_of_this_process()) {
  reset_handle();
}

FtpClient::FtpClient(FtpClient&& other) noexcept
    : settings_(std::move(other.settings_)),
      sleep_(std::move(other.sleep_)),
      runner_(std::move(other.runner_)),
      handle_(std::move(other.handle_)),
      login_directory_(std::move(other.login_directory_)),
      login_afresh_(other.login_afresh_) {
  std::copy(std::begin(other.error_buffer_), std::end(other.error_buffer_),
            std::begin(error_buffer_));
  if (handle_)
    curl_easy_setopt(handle_.get(), CURLOPT_ERRORBUFFER, error_buffer_);
}

FtpClient& FtpClient::operator=(FtpClient&& other) noexcept {
  if (this != &other) {
    settings_ = std::move(other.settings_);
    sleep_ = std::move(other.sleep_);
    // The old transfer handle goes before the old multi handle.
    handle_ = std::move(other.handle_);
    runner_ = std::move(other.runner_);
    login_directory_ = std::move(other.login_directory_);
    login_afresh_ = other.login_afresh_;
    std::copy(std::begin(other.error_buffer_), std::end(other.error_buffer_),
              std::begin(error_buffer_));
    if (handle_)
      curl_easy_setopt(handle_.get(), CURLOPT_ERRORBUFFER, error_buffer_);
  }
  return *this;
}

void FtpClient::check_setup(CURLcode code) {
  if (code == CURLE_OK) return;
  throw torvane::TorvaneUtilException("Unable to setup curl: [" +
                                      std::to_string(static_cast<int>(code)) +
                                      "] " + curl_easy_strerror(code));
}

void FtpClient::reset_handle() {
  if (handle_)
    curl_easy_reset(handle_.get());
  else
    handle_.reset(curl_easy_init());
  if (!handle_)
    throw torvane::TorvaneUtilException("Unable to get curl handle");

  set_option(CURLOPT_ERRORBUFFER, error_buffer_);
  set_option(CURLOPT_USERNAME, settings_.login.c_str());
  set_option(CURLOPT_PASSWORD, settings_.password.c_str());
  // A null address keeps the library's passive mode; "-" selects active mode
  // on the address of the interface that carries the control connection.
  set_option(CURLOPT_FTPPORT, settings_.passive_mode ? nullptr : "-");
}

void FtpClient::perform(const std::filesystem::path& remote_path) {
  const std::string url =
      request_url(handle_.get(), settings_.host, settings_.port, remote_path);
  set_option(CURLOPT_URL, url.c_str());
  // The library caches the address of every data connection under the
  // server's address and the connection's port, a new port each time, so no
  // entry is ever used again, and it scans the whole cache before each new
  // connection: with its default of a minute, a run of 100,000 file
  // transfers spent most of its CPU time in that scan. Without the cache the
  // server's host name is looked up for each new control connection (once a
  // run, unless a request has to log in anew); the data connections use the
  // control connection's address and need no lookup.
  set_option(CURLOPT_DNS_CACHE_TIMEOUT, 0L);
  if (login_afresh_) {
    // Without a known login directory the library cannot bring a kept
    // connection back to it, and would resolve this request's path against
    // whatever directory the last request left: log in anew, and close the
    // connection afterwards rather than keep one that cannot be used.
    use_unkept_connection();
  }

  error_buffer_[0] = '\0';
  bool first_attempt = true;
  CURLcode last_result = CURLE_OK;
  const CURLcode result = run_with_retries(
      settings_,
      [this, &first_attempt, &last_result] {
        if (!first_attempt) prepare_retry(last_result);
        first_attempt = false;
        last_result = runner_.run(handle_.get(), error_buffer_);
        return last_result;
      },
      [this] {
        long response_code = 0;
        curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE,
                          &response_code);
        return response_code;
      },
      sleep_);
  learn_login_directory(result);
  reset_handle();
  if (result != CURLE_OK) {
    throw torvane::TorvaneUtilException("Unable to perform request for '" +
                                        url + "': " + error_buffer_);
  }
}

// A failed attempt may leave its connection open in whatever directory its
// CWDs reached. The library brings a kept connection back to the login
// directory only when PWD named one; without it, the retry would resolve
// the request's path against the directory the failed attempt left, so it
// logs in anew, on a connection that is not kept.
//
// An attempt that failed with one of the library's transient codes (the
// connection failed, broke or timed out) may leave behind a connection that
// the server has already closed: libcurl keeps the control connection in its
// cache even when reading the server's reply on it failed. Before it reuses
// a kept connection, libcurl 7.88 checks whether the server closed it;
// libcurl 8.23 skips that check for a connection used less than about a
// second ago, so a retry without a wait (the first one by default) would go
// out on the dead connection and fail at once, without reaching the server.
// Such a retry therefore starts without the kept connections.
void FtpClient::prepare_retry(CURLcode failure) {
  // Read before the handle is replaced: a copy knows no entry path.
  const bool known_login_directory = is_known_login_directory(entry_path());
  if (is_transient_code(failure)) drop_kept_connections();
  if (!known_login_directory) use_unkept_connection();
}

// The next request logs in on a connection of its own, closed when it ends.
void FtpClient::use_unkept_connection() {
  set_option(CURLOPT_FRESH_CONNECT, 1L);
  set_option(CURLOPT_FORBID_REUSE, 1L);
}

// Replaces the handle with a copy of it: the same options (callbacks, data
// pointers, error buffer, everything the request set) without the library's
// cache of open connections, which closes with the old handle. (On the wait
// path through a multi handle, for libcurl before 8.4.0, the connections
// belong to the multi handle and stay; those releases check them anyway.)
void FtpClient::drop_kept_connections() {
  CURL* copy = curl_easy_duphandle(handle_.get());
  if (copy == nullptr)
    throw torvane::TorvaneUtilException("Unable to get curl handle");
  handle_.reset(copy);
}

// The library's answer to PWD after its last login, if it has one.
std::optional<std::string> FtpClient::entry_path() const {
  const char* path = nullptr;
  if (curl_easy_getinfo(handle_.get(), CURLINFO_FTP_ENTRY_PATH, &path) !=
          CURLE_OK ||
      path == nullptr)
    return std::nullopt;
  return std::string(path);
}

// Reads the login directory that the library learnt from PWD: the reset
// that follows a request forgets it.
void FtpClient::learn_login_directory(CURLcode result) {
  if (std::optional<std::string> path = entry_path())
    login_directory_ = std::move(path);
  // A connection that is closed when the request ends takes its entry path
  // with it, so an answer once given is kept; only a request that succeeded
  // has certainly logged in, so only it can tell that there is none.
  if (result == CURLE_OK && !is_known_login_directory(login_directory_))
    login_afresh_ = true;
}
