// An owned list of FTP command lines in the transfer library's string-list
// form, as CURLOPT_QUOTE takes it. Freed when the list goes out of scope.

#ifndef BRINDLE_FTP_COMMAND_LIST_H_
#define BRINDLE_FTP_COMMAND_LIST_H_

#include <curl/curl.h>

#include <memory>
#include <string>
#include <utility>

class CommandList {
 public:
  CommandList() = default;
  // A moved-from list is empty and may be appended to again.
  CommandList(CommandList&& other) noexcept
      : head_(std::move(other.head_)),
        tail_(std::exchange(other.tail_, nullptr)) {}
  CommandList& operator=(CommandList&& other) noexcept {
    head_ = std::move(other.head_);
    tail_ = std::exchange(other.tail_, nullptr);
    return *this;
  }

  // Appends one command line in constant time; throws std::bad_alloc when the
  // library cannot.
  void append(const std::string& command);

  // Puts one command line in front of the others; throws std::bad_alloc
  // when the library cannot.
  void prepend(const std::string& command);

  // Moves the commands that follow `node`, a node of this list, into a list
  // of their own, which is returned; `node` becomes this list's last one.
  CommandList split_after(curl_slist* node);

  // The head of the list (null while empty), owned by this object.
  curl_slist* get() const { return head_.get(); }

 private:
  struct Deleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };
  std::unique_ptr<curl_slist, Deleter> head_;
  // The last node of the list (null while empty), so that an append does not
  // walk the whole list as the library's own append does.
  curl_slist* tail_ = nullptr;
};

#endif  // BRINDLE_FTP_COMMAND_LIST_H_
