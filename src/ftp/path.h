// Lexical normalisation of remote and local paths ("/" separated).
//
// normalize_path() drops "." elements and resolves ".." against the element
// before it, without asking the file system or the server. A trailing
// separator is kept; ".." at the root of an absolute path stays at the root;
// ".." with nothing left to remove in a relative path throws
// "Invalid path '<path as given>'".

#ifndef BRINDLE_FTP_PATH_H_
#define BRINDLE_FTP_PATH_H_

#include <filesystem>

std::filesystem::path normalize_path(const std::filesystem::path& path);

// True when the path's file name (empty when it ends in "/") is ".".
bool is_dot(const std::filesystem::path& path);

// True when the path's file name is "..".
bool is_dot_dot(const std::filesystem::path& path);

#endif  // BRINDLE_FTP_PATH_H_
