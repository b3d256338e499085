#include "ftp/retry.h"

bool is_transient_code(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_CONNECT:
    case CURLE_FTP_ACCEPT_TIMEOUT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return true;
    default:
      return false;
  }
}

bool is_transient_reply(long response_code) {
  return response_code >= 400 && response_code <= 499;
}

std::uint64_t retry_wait(std::uint64_t step, std::uint64_t delay,
                         std::uint64_t retries_made) {
  return step * retries_made + delay;
}
