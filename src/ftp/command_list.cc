#include "ftp/command_list.h"

#include <new>

void CommandList::append(const std::string& command) {
  // A one-node list of its own, linked in after the current tail: appending
  // to the whole list would walk it from the head every time, which makes a
  // tree of many entries take quadratic time to collect.
  curl_slist* node = curl_slist_append(nullptr, command.c_str());
  if (node == nullptr) throw std::bad_alloc();
  if (tail_ == nullptr)
    head_.reset(node);
  else
    tail_->next = node;
  tail_ = node;
}
