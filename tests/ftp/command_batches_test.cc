#include "ftp/command_batches.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

CommandList list_of(const Lines& lines) {
  CommandList commands;
  for (const std::string& line : lines) commands.append(line);
  return commands;
}

std::vector<Lines> lines_of(const std::vector<CommandList>& batches) {
  std::vector<Lines> result;
  for (const CommandList& batch : batches) {
    Lines lines;
    for (const curl_slist* item = batch.get(); item != nullptr;
         item = item->next)
      lines.emplace_back(item->data);
    result.push_back(std::move(lines));
  }
  return result;
}

std::size_t cost_of(const Lines& lines) {
  std::size_t cost = 0;
  for (const std::string& line : lines) cost += command_cost(line.c_str());
  return cost;
}

TEST(CommandBatches, BudgetIsTheDefaultUnlessTheTestVariableSetsOne) {
  EXPECT_EQ(batch_budget(nullptr), kBatchBudget);
  EXPECT_EQ(batch_budget("1"), 1u);
  EXPECT_EQ(batch_budget("600"), 600u);
  EXPECT_EQ(batch_budget("1000000000"), 1000000000u);
}

TEST(CommandBatches, TestVariableThatIsNoPositiveNumberLeavesTheDefault) {
  for (const char* value : {"", "0", "000", "-1", "+5", " 5", "5 ", "5k",
                            "0x10", "1.5", "99999999999999999999999999"}) {
    EXPECT_EQ(batch_budget(value), kBatchBudget) << "'" << value << "'";
  }
}

TEST(CommandBatches, CostIsLengthPlusMargin) {
  EXPECT_EQ(command_cost("NOOP"), 4 + kReplyMargin);
  EXPECT_EQ(command_cost(""), kReplyMargin);
  EXPECT_EQ(command_cost(std::string(4000, 'x').c_str()), 4000 + kReplyMargin);
}

TEST(CommandBatches, BudgetIsHalfOfLibcurlsLimit) {
  EXPECT_EQ(kBatchBudget * 2, 300u * 1024u);
}

TEST(CommandBatches, EmptyListGivesNoBatch) {
  EXPECT_TRUE(split_into_batches(CommandList(), 1000).empty());
}

TEST(CommandBatches, ListThatFitsComesBackWhole) {
  const Lines lines = {"NOOP", "DELE /a", "DELE /b", "RMD /"};
  CommandList commands = list_of(lines);
  const curl_slist* head = commands.get();
  const std::vector<CommandList> batches =
      split_into_batches(std::move(commands), cost_of(lines));
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(batches[0].get(), head);
  EXPECT_EQ(lines_of(batches), std::vector<Lines>{lines});
}

TEST(CommandBatches, OneByteOverTheBudgetMovesTheLastCommandOn) {
  const Lines lines = {"NOOP", "DELE /a", "DELE /b", "RMD /"};
  const std::vector<CommandList> batches =
      split_into_batches(list_of(lines), cost_of(lines) - 1);
  EXPECT_EQ(
      lines_of(batches),
      (std::vector<Lines>{{"NOOP", "DELE /a", "DELE /b"}, {"NOOP", "RMD /"}}));
}

TEST(CommandBatches, EveryBatchStaysWithinTheBudgetAndKeepsTheOrder) {
  Lines lines = {"NOOP"};
  for (int i = 0; i < 10000; ++i)
    lines.push_back("DELE /tree/d" + std::to_string(i / 100) + "/file" +
                    std::to_string(i));
  lines.push_back("RMD /tree");
  constexpr std::size_t kBudget = 20000;

  const std::vector<Lines> batches =
      lines_of(split_into_batches(list_of(lines), kBudget));

  Lines joined = {"NOOP"};
  for (const Lines& batch : batches) {
    ASSERT_GE(batch.size(), 2u);
    EXPECT_EQ(batch.front(), "NOOP");
    EXPECT_LE(cost_of(batch), kBudget);
    joined.insert(joined.end(), batch.begin() + 1, batch.end());
  }
  EXPECT_EQ(joined, lines);
  // As few batches as the budget allows: each but the last is full, so the
  // next command would not have fitted.
  for (std::size_t i = 0; i + 1 < batches.size(); ++i)
    EXPECT_GT(cost_of(batches[i]) + command_cost(batches[i + 1][1].c_str()),
              kBudget);
}

TEST(CommandBatches, CommandOverTheBudgetGoesAloneBehindItsNoop) {
  const std::string huge = "DELE /" + std::string(4000, 'x');
  const Lines lines = {"NOOP", "DELE /a", huge, "DELE /b"};
  const std::vector<CommandList> batches =
      split_into_batches(list_of(lines), 200);
  EXPECT_EQ(lines_of(batches),
            (std::vector<Lines>{
                {"NOOP", "DELE /a"}, {"NOOP", huge}, {"NOOP", "DELE /b"}}));
}

TEST(CommandBatches, ManyThousandsOfLongPathsStayWithinTheRealBudget) {
  // Paths of 4,000 bytes, as deep trees have them: 37 to a batch.
  Lines lines = {"NOOP"};
  for (int i = 0; i < 1000; ++i)
    lines.push_back("DELE /" + std::string(3990, 'p') + std::to_string(i));
  const std::vector<Lines> batches =
      lines_of(split_into_batches(list_of(lines), kBatchBudget));
  std::size_t commands = 0;
  for (const Lines& batch : batches) {
    EXPECT_LE(cost_of(batch), kBatchBudget);
    commands += batch.size() - 1;
  }
  EXPECT_EQ(commands, 1000u);
  EXPECT_EQ(batches.size(), 28u);
}

// `levels` directories named `name`, one inside the other, below "/".
std::filesystem::path chain(const std::string& name, std::size_t levels) {
  std::filesystem::path directory = "/";
  for (std::size_t i = 0; i < levels; ++i) directory /= name;
  return directory;
}

// The model's cost of the request that creates levels (from, to] of a chain
// of equal names, the first `from` existing already.
std::size_t creation_cost(std::size_t name_length, std::size_t login_length,
                          std::size_t from, std::size_t to) {
  std::size_t cost = from * kReplyMargin;
  for (std::size_t k = from + 1; k <= to; ++k)
    cost += login_length + k * (name_length + 1) + 3 * kReplyMargin;
  return cost;
}

TEST(DirectorySteps, ShortPathsNeedNone) {
  EXPECT_TRUE(directory_steps("", 0, kBatchBudget).empty());
  EXPECT_TRUE(directory_steps("/", 0, kBatchBudget).empty());
  EXPECT_TRUE(directory_steps("/data/2024/11/24", 11, kBatchBudget).empty());
  EXPECT_TRUE(directory_steps("rel/a/b/", 11, kBatchBudget).empty());
}

TEST(DirectorySteps, FourThousandBytesInSixtyNineLevelsNeedNone) {
  // 69 names of 57 bytes and their separators: 4,002 bytes.
  EXPECT_TRUE(directory_steps(chain(std::string(57, 'n'), 69), 0, kBatchBudget)
                  .empty());
  EXPECT_FALSE(directory_steps(chain(std::string(57, 'n'), 75), 0, kBatchBudget)
                   .empty());
}

TEST(DirectorySteps, DeepChainGoesInStepsThatEachFit) {
  // 1,333 levels of "ab": 3,999 bytes, as deep as a path of that length
  // gets with names of two bytes.
  constexpr std::size_t kLevels = 1333;
  constexpr std::size_t kLogin = 11;  // "/home/alice"
  const std::vector<std::size_t> steps =
      directory_steps(chain("ab", kLevels), kLogin, kBatchBudget);
  ASSERT_FALSE(steps.empty());
  std::size_t done = 0;
  for (const std::size_t end : steps) {
    ASSERT_GT(end, done);
    EXPECT_LE(creation_cost(2, kLogin, done, end), kBatchBudget);
    // As few steps as the budget allows: one level more would not fit.
    EXPECT_GT(creation_cost(2, kLogin, done, end + 1), kBatchBudget);
    done = end;
  }
  ASSERT_LT(done, kLevels);
  EXPECT_LE(creation_cost(2, kLogin, done, kLevels), kBatchBudget);
}

TEST(DirectorySteps, LongLoginDirectoryCountsInEveryReply) {
  const std::filesystem::path directory = chain(std::string(57, 'n'), 69);
  EXPECT_TRUE(directory_steps(directory, 0, kBatchBudget).empty());
  EXPECT_FALSE(directory_steps(directory, 1000, kBatchBudget).empty());
}

TEST(DirectorySteps, EveryStepCreatesAtLeastOneDirectory) {
  EXPECT_EQ(directory_steps("/a/b/c", 0, 1), (std::vector<std::size_t>{1, 2}));
}

}  // namespace
