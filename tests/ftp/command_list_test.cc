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

}  // namespace
