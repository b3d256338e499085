// Fuzzes the composition of request URLs. The first two bytes are the port,
// the rest the remote path. The URL must be the base URL followed by one
// "/"-led, fully percent-encoded element per path element, and decoding the
// elements must give the path's elements back.

#include <curl/curl.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ftp/request_url.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

bool unreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
}

CURL* shared_handle() {
  static const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(
      curl_easy_init(), &curl_easy_cleanup);
  return handle.get();
}

std::string unescape(CURL* handle, const std::string& text) {
  int length = 0;
  const std::unique_ptr<char, decltype(&curl_free)> plain(
      curl_easy_unescape(handle, text.data(), static_cast<int>(text.size()),
                         &length),
      &curl_free);
  check(plain != nullptr);
  return std::string(plain.get(), static_cast<std::size_t>(length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size < 2) return 0;
  const auto port = static_cast<std::uint16_t>(data[0] << 8 | data[1]);
  const std::filesystem::path path(
      std::string(reinterpret_cast<const char*>(data) + 2, size - 2));
  CURL* handle = shared_handle();
  check(handle != nullptr);

  const std::string url = request_url(handle, "127.0.0.1", port, path);
  const std::string base = "ftp://127.0.0.1:" + std::to_string(port);
  check(url.compare(0, base.size(), base) == 0);

  std::vector<std::string> expected;
  for (const std::filesystem::path& element : path) {
    if (!element.has_root_directory()) expected.push_back(element.native());
  }
  std::vector<std::string> encoded;
  for (std::size_t at = base.size(); at < url.size();) {
    check(url[at] == '/');
    std::size_t end = url.find('/', at + 1);
    if (end == std::string::npos) end = url.size();
    encoded.push_back(url.substr(at + 1, end - at - 1));
    at = end;
  }
  check(encoded.size() == expected.size());
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    const std::string& element = encoded[i];
    for (std::size_t j = 0; j < element.size(); ++j) {
      if (element[j] != '%') {
        check(unreserved(element[j]));
        continue;
      }
      check(j + 2 < element.size() && std::isxdigit(element[j + 1]) &&
            std::isxdigit(element[j + 2]));
      j += 2;
    }
    check(unescape(handle, encoded[i]) == expected[i]);
  }
  return 0;
}
