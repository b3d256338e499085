#include "ftp/command_list.h"

#include <new>

void CommandList::append(const std::string& command) {
  curl_slist* head = curl_slist_append(head_.get(), command.c_str());
  if (head == nullptr) throw std::bad_alloc();
  // Appending to a non-empty list keeps its head; the first append makes one.
  if (!head_) head_.reset(head);
}
