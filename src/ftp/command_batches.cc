#include "ftp/command_batches.h"

#include <curl/curl.h>

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// The first release seen not to count the replies to pre-transfer commands
// is 8.14.1 (Debian 13); 8.14.0 stands for it.
constexpr unsigned int kFirstReleaseNotCounting = 0x080E00;

}  // namespace

bool counts_command_replies(unsigned int version_num, const char* forced) {
  if (forced != nullptr) {
    const std::string_view answer = forced;
    if (answer == "counted") return true;
    if (answer == "uncounted") return false;
  }
  return version_num < kFirstReleaseNotCounting;
}

bool command_replies_counted_in_this_process() {
  // The test variable lets brindle's own tests run both ways on any
  // libcurl; it is not an option for users.
  return counts_command_replies(curl_version_info(CURLVERSION_NOW)->version_num,
                                std::getenv(kCommandRepliesTestVariable));
}

std::size_t command_cost(const char* command) {
  return std::strlen(command) + kReplyMargin;
}

std::vector<CommandList> split_into_batches(CommandList commands,
                                            std::size_t budget) {
  std::vector<CommandList> batches;
  while (commands.get() != nullptr) {
    // The last node that fits: the leading NOOP and at least one command
    // after it, then as many more as stay within the budget.
    curl_slist* last = commands.get();
    std::size_t cost = command_cost(last->data);
    if (last->next != nullptr) {
      last = last->next;
      cost += command_cost(last->data);
    }
    while (last->next != nullptr &&
           cost + command_cost(last->next->data) <= budget) {
      last = last->next;
      cost += command_cost(last->data);
    }
    CommandList rest = commands.split_after(last);
    batches.push_back(std::move(commands));
    if (rest.get() != nullptr) rest.prepend("NOOP");
    commands = std::move(rest);
  }
  return batches;
}
