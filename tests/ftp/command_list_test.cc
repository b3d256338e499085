#include "ftp/command_list.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

std::vector<std::string> lines_of(const CommandList& commands) {
  std::vector<std::string> lines;
  for (const curl_slist* item = commands.get(); item != nullptr;
       item = item->next)
    lines.emplace_back(item->data);
  return lines;
}

TEST(CommandList, StartsEmpty) {
  const CommandList commands;
  EXPECT_EQ(commands.get(), nullptr);
}

TEST(CommandList, KeepsCommandsInOrderUnderOneHead) {
  CommandList commands;
  commands.append("NOOP");
  const curl_slist* head = commands.get();
  commands.append("DELE /a b/c");
  commands.append("RMD /a b");
  EXPECT_EQ(commands.get(), head);
  EXPECT_EQ(lines_of(commands),
            (std::vector<std::string>{"NOOP", "DELE /a b/c", "RMD /a b"}));
}

TEST(CommandList, AppendsAVeryLongListInLinearTime) {
  // A listing of 200,000 files becomes 200,000 commands; walking the list
  // from its head on every append took minutes for that many.
  constexpr int kCount = 200000;
  CommandList commands;
  commands.append("NOOP");
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kCount; ++i)
    commands.append("DELE /d/f" + std::to_string(i));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_LT(elapsed, std::chrono::seconds(5));

  std::vector<std::string> lines = lines_of(commands);
  ASSERT_EQ(lines.size(), kCount + 1u);
  EXPECT_EQ(lines.front(), "NOOP");
  EXPECT_EQ(lines[1], "DELE /d/f0");
  EXPECT_EQ(lines.back(), "DELE /d/f199999");
}

TEST(CommandList, MovedListKeepsAppendingInOrder) {
  CommandList first;
  first.append("NOOP");
  first.append("DELE /a");
  CommandList second(std::move(first));
  second.append("RMD /");
  EXPECT_EQ(lines_of(second),
            (std::vector<std::string>{"NOOP", "DELE /a", "RMD /"}));
  // The moved-from list starts afresh.
  first.append("NOOP");
  EXPECT_EQ(lines_of(first), (std::vector<std::string>{"NOOP"}));

  CommandList third;
  third.append("PWD");
  third = std::move(second);
  third.append("QUIT");
  EXPECT_EQ(lines_of(third),
            (std::vector<std::string>{"NOOP", "DELE /a", "RMD /", "QUIT"}));
}

}  // namespace
