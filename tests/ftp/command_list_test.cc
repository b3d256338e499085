#include "ftp/command_list.h"

#include <gtest/gtest.h>

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

TEST(CommandList, KeepsAVeryLongListInOrder) {
  // A listing of 200,000 files becomes 200,000 commands under one head.
  constexpr int kCount = 200000;
  CommandList commands;
  commands.append("NOOP");
  for (int i = 0; i < kCount; ++i)
    commands.append("DELE /d/f" + std::to_string(i));

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
  // The moved-from list starts afresh: using it is what is tested here.
  first.append("NOOP");  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(lines_of(first), (std::vector<std::string>{"NOOP"}));

  CommandList third;
  third.append("PWD");
  third = std::move(second);
  third.append("QUIT");
  EXPECT_EQ(lines_of(third),
            (std::vector<std::string>{"NOOP", "DELE /a", "RMD /", "QUIT"}));
}

TEST(CommandList, PrependPutsACommandFirst) {
  CommandList commands;
  commands.prepend("RMD /a");
  commands.prepend("NOOP");
  commands.append("QUIT");
  EXPECT_EQ(lines_of(commands),
            (std::vector<std::string>{"NOOP", "RMD /a", "QUIT"}));
}

TEST(CommandList, SplitAfterANodeLeavesTwoListsThatAppendInOrder) {
  CommandList first;
  first.append("NOOP");
  first.append("DELE /a");
  first.append("DELE /b");
  first.append("RMD /");
  CommandList second = first.split_after(first.get()->next);
  first.append("DELE /c");
  second.append("QUIT");
  EXPECT_EQ(lines_of(first),
            (std::vector<std::string>{"NOOP", "DELE /a", "DELE /c"}));
  EXPECT_EQ(lines_of(second),
            (std::vector<std::string>{"DELE /b", "RMD /", "QUIT"}));
}

TEST(CommandList, SplitAfterTheLastNodeGivesAnEmptyList) {
  CommandList commands;
  commands.append("NOOP");
  commands.append("DELE /a");
  const CommandList rest = commands.split_after(commands.get()->next);
  EXPECT_EQ(rest.get(), nullptr);
  EXPECT_EQ(lines_of(commands), (std::vector<std::string>{"NOOP", "DELE /a"}));
}

}  // namespace
