#include "ftp/request_url.h"

#include <climits>
#include <memory>
#include <new>

std::string request_url(CURL* handle, const std::string& host,
                        std::uint16_t port,
                        const std::filesystem::path& remote_path) {
  std::string url = "ftp://" + host + ":" + std::to_string(port);
  for (const auto& element : remote_path) {
    if (element.has_root_directory()) continue;  // the leading "/"
    const std::string& text = element.native();
    // The whole element is encoded, every byte but letters, digits and
    // "-._~" becoming "%XX".
    const int length =
        text.size() > INT_MAX ? INT_MAX : static_cast<int>(text.size());
    std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_easy_escape(handle, text.data(), length), &curl_free);
    if (!escaped) throw std::bad_alloc();
    url += '/';
    url += escaped.get();
  }
  return url;
}
