#include "ftp/retry.h"

#include <unistd.h>

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

void sleep_seconds(unsigned int seconds) { sleep(seconds); }

CURLcode run_with_retries(const FtpSettings& settings,
                          const std::function<CURLcode()>& attempt,
                          const std::function<long()>& response_code,
                          const RetrySleep& sleep) {
  CURLcode result = attempt();
  for (std::uint64_t retries_made = 0; result != CURLE_OK; ++retries_made) {
    if (retries_made >= settings.retries) break;
    if (!is_transient_code(result) && !is_transient_reply(response_code()))
      break;
    const std::uint64_t wait = retry_wait(settings.retry_delay_step,
                                          settings.retry_delay, retries_made);
    if (wait != 0) sleep(static_cast<unsigned int>(wait));
    result = attempt();
  }
  return result;
}
