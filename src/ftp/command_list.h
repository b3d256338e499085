// An owned list of FTP command lines in the transfer library's string-list
// form, as CURLOPT_QUOTE takes it. Freed when the list goes out of scope.

#ifndef BRINDLE_FTP_COMMAND_LIST_H_
#define BRINDLE_FTP_COMMAND_LIST_H_

#include <curl/curl.h>

#include <memory>
#include <string>

class CommandList {
 public:
  // Appends one command line; throws std::bad_alloc when the library cannot.
  void append(const std::string& command);

  // The head of the list (null while empty), owned by this object.
  curl_slist* get() const { return head_.get(); }

 private:
  struct Deleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };
  std::unique_ptr<curl_slist, Deleter> head_;
};

#endif  // BRINDLE_FTP_COMMAND_LIST_H_
