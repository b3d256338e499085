// Requests whose replies grow with the work, spread over several requests
// once the work passes a budget: a long list of pre-transfer commands
// (CURLOPT_QUOTE), and the creation of a long chain of missing directories
// (CURLOPT_FTP_CREATE_MISSING_DIRS), whose "MKD" replies echo ever longer
// paths.
//
// Two costs of libcurl grow with one request's commands. libcurl finds each
// next pre-transfer command by walking the list from its head, so one
// request of n commands costs it n²/2 steps: a remove of 100,001 entries in
// one request took 32 to 40 s of CPU with libcurl 8.14.1, against a few
// seconds in batches. And libcurl 7.88.1 (Debian 12) counts the server's
// replies to these commands against its limit of 300 KiB on the response
// headers of one request: a request of some nine thousand short "DELE"s
// fails midway ("Too large response headers: 307210 > 307200"), after the
// commands before that point have run. Both counts start afresh with every
// request. So work that fits the budget below goes out as one request, and
// longer work as several in turn, each a whole number of commands within
// it, on every libcurl.

#ifndef BRINDLE_FTP_COMMAND_BATCHES_H_
#define BRINDLE_FTP_COMMAND_BATCHES_H_

#include <cstddef>
#include <filesystem>
#include <vector>

#include "ftp/command_list.h"

// What the commands of one request may cost, in bytes: half of libcurl
// 7.88's limit of 307,200, which leaves the other half for the login, the
// request's own commands and any reply longer than its estimate.
inline constexpr std::size_t kBatchBudget = 153600;

// The variable that sets another budget, in bytes, for tests only: a
// decimal number from 1 on, so that small trees split too. Any other value,
// or none, leaves kBatchBudget.
inline constexpr const char* kBatchBudgetTestVariable =
    "BRINDLE_TEST_BATCH_BUDGET";

// The budget that `forced` (the test variable's value, or null) gives:
// its number when it is a whole decimal number from 1 on that fits a
// std::size_t, else kBatchBudget.
std::size_t batch_budget(const char* forced);

// The budget of this process, honouring the test variable.
std::size_t batch_budget_of_this_process();

// What a command adds to the estimate besides its own length, which a reply
// may echo ("250 Deleted <path>"): room for the reply code and its text.
inline constexpr std::size_t kReplyMargin = 64;

// The estimated cost of one command line: its length plus kReplyMargin.
std::size_t command_cost(const char* command);

// Splits `commands`, which begins with "NOOP", into consecutive batches, in
// order, each holding as many whole commands as fit within `budget`. Every
// batch begins with "NOOP" (later ones get one of their own, which counts
// towards their cost) and holds at least one command after it, even one that
// alone exceeds the budget. A list that fits comes back unchanged as the
// only batch; an empty one comes back as no batch at all. Linear in the
// length of the list.
std::vector<CommandList> split_into_batches(CommandList commands,
                                            std::size_t budget);

// How a request to a path in `directory` whose directories may all be
// missing creates them within `budget`: the numbers of leading elements of
// `directory` (its root "/" not counted) to create, each by a request of its
// own, before that request creates the rest. None when one request can
// create them all, as for any directory of 4,000 bytes in up to 69 levels. A
// request that creates a directory costs, for every element it passes through,
// kReplyMargin, and for every element it creates, three replies (the refused
// "CWD", "MKD" and "CWD"), the "MKD" reply echoing the server's path of the new
// directory: `login_directory_length` bytes (the length of the login directory,
// 0 where it is unknown) and the path of its first elements. Every step creates
// at least one directory.
std::vector<std::size_t> directory_steps(const std::filesystem::path& directory,
                                         std::size_t login_directory_length,
                                         std::size_t budget);

#endif  // BRINDLE_FTP_COMMAND_BATCHES_H_
