// Request URLs: "ftp://" host ":" port, then each element of the remote path
// percent-encoded and preceded by "/". Relative and absolute paths give the
// same URL; "/" and the empty path give the bare base URL; a trailing
// separator gives a trailing "/".

#ifndef BRINDLE_FTP_REQUEST_URL_H_
#define BRINDLE_FTP_REQUEST_URL_H_

#include <curl/curl.h>

#include <cstdint>
#include <filesystem>
#include <string>

// `handle` is used only for curl_easy_escape().
std::string request_url(CURL* handle, const std::string& host,
                        std::uint16_t port,
                        const std::filesystem::path& remote_path);

#endif  // BRINDLE_FTP_REQUEST_URL_H_
