#include "ftp/command_list.h"

#include <new>

namespace {

curl_slist* new_node(const std::string& command) {
  curl_slist* node = curl_slist_append(nullptr, command.c_str());
  if (node == nullptr) throw std::bad_alloc();
  return node;
}

}  // namespace

void CommandList::append(const std::string& command) {
  // A one-node list of its own, linked in after the current tail: appending
  // to the whole list would walk it from the head every time, which makes a
  // tree of many entries take quadratic time to collect.
  curl_slist* node = new_node(command);
  if (tail_ == nullptr)
    head_.reset(node);
  else
    tail_->next = node;
  tail_ = node;
}

void CommandList::prepend(const std::string& command) {
  curl_slist* node = new_node(command);
  node->next = head_.release();
  head_.reset(node);
  if (tail_ == nullptr) tail_ = node;
}

CommandList CommandList::split_after(curl_slist* node) {
  CommandList rest;
  if (node->next == nullptr) return rest;
  rest.head_.reset(node->next);
  rest.tail_ = tail_;
  node->next = nullptr;
  tail_ = node;
  return rest;
}
