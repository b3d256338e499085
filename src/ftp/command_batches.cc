#include "ftp/command_batches.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

std::size_t batch_budget(const char* forced) {
  if (forced == nullptr || *forced == '\0') return kBatchBudget;
  std::size_t budget = 0;
  for (const char* digit = forced; *digit != '\0'; ++digit) {
    if (*digit < '0' || *digit > '9') return kBatchBudget;
    const auto value = static_cast<std::size_t>(*digit - '0');
    if (budget > (std::numeric_limits<std::size_t>::max() - value) / 10)
      return kBatchBudget;
    budget = budget * 10 + value;
  }
  return budget == 0 ? kBatchBudget : budget;
}

std::size_t batch_budget_of_this_process() {
  // The test variable lets brindle's own tests and fuzzers split small
  // lists; it is not an option for users.
  return batch_budget(std::getenv(kBatchBudgetTestVariable));
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

std::vector<std::size_t> directory_steps(const std::filesystem::path& directory,
                                         std::size_t login_directory_length,
                                         std::size_t budget) {
  // The cost of creating each element, in order, as the first one that a
  // request creates.
  std::vector<std::size_t> creation;
  std::size_t prefix_length = 0;
  for (const std::filesystem::path& element : directory.relative_path()) {
    if (element.empty()) continue;
    prefix_length += 1 + element.native().size();
    creation.push_back(login_directory_length + prefix_length +
                       3 * kReplyMargin);
  }
  std::vector<std::size_t> steps;
  std::size_t done = 0;
  while (done < creation.size()) {
    // Passing through the directories that exist by now, then as many
    // creations as fit, and at least one.
    std::size_t cost = done * kReplyMargin + creation[done];
    std::size_t end = done + 1;
    while (end < creation.size() && cost + creation[end] <= budget)
      cost += creation[end++];
    if (end == creation.size()) break;
    steps.push_back(end);
    done = end;
  }
  return steps;
}
