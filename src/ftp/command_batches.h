// Requests whose replies grow with the work, split into several where the
// running libcurl cannot take all the replies of one: a long list of
// pre-transfer commands (CURLOPT_QUOTE), and the creation of a long chain
// of missing directories (CURLOPT_FTP_CREATE_MISSING_DIRS), whose "MKD"
// replies echo ever longer paths.
//
// libcurl 7.88.1 as Debian 12 ships it counts the server's replies to these
// commands against its limit of 300 KiB on the response headers of one
// request: a request of some nine thousand short "DELE"s fails midway ("Too
// large response headers: 307210 > 307200", or a receive error), after the
// commands before that point have run. The count starts afresh with every
// request, so there a long list goes out as several requests, each a whole
// number of commands well inside the limit. libcurl 8.14.1 (Debian 13) does
// not count these replies, and the list goes out as one request. Releases in
// between have not been checked and split as well, which costs a few
// requests and changes nothing else. Delete the split once no supported
// system ships a libcurl older than 8.14.0.

#ifndef BRINDLE_FTP_COMMAND_BATCHES_H_
#define BRINDLE_FTP_COMMAND_BATCHES_H_

#include <cstddef>
#include <filesystem>
#include <vector>

#include "ftp/command_list.h"

// The variable that decides, for tests only, whether replies are taken to
// count ("counted") or not ("uncounted"). Any other value, or none, leaves
// the answer to the libcurl release.
inline constexpr const char* kCommandRepliesTestVariable =
    "BRINDLE_TEST_COMMAND_REPLIES";

// Whether a libcurl of `version_num` (as curl_version_info() gives it:
// 0xXXYYZZ) counts the replies to pre-transfer commands against its limit:
// before 8.14.0 it does, from then on not, unless `forced` (the test
// variable's value, or null) says otherwise.
bool counts_command_replies(unsigned int version_num, const char* forced);

// The same for the libcurl this process runs with, honouring the test
// variable.
bool command_replies_counted_in_this_process();

// What the commands of one request may cost, in bytes: half of libcurl's
// limit of 307,200, which leaves the other half for the login, the
// request's own commands and any reply longer than its estimate.
inline constexpr std::size_t kBatchBudget = 153600;

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
// only batch; an empty one comes back as no batch at all.
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
