// The login directory: where the server puts a session after login, as the
// server's answer to PWD names it (libcurl asks and keeps the answer).
//
// Every remote path of this program is relative to the login directory, as
// the path of an FTP URL is: "/" is the login directory itself. On a server
// that chroots its users the login directory is the server's "/" and the two
// readings agree; on one that does not (login directory "/home/u"), a path
// inside a command that the server resolves itself (DELE, RMD) or a symbolic
// link's absolute target is the server's own absolute path. These functions
// translate between the two, and are pure.

#ifndef BRINDLE_FTP_LOGIN_DIRECTORY_H_
#define BRINDLE_FTP_LOGIN_DIRECTORY_H_

#include <filesystem>
#include <optional>
#include <string>

// True when `login_directory` can be relied on: a text that starts with "/"
// and holds no CR or LF. A server that refused PWD (no text) or answered with
// something that is no absolute Unix path ("QGPL", "C:\x") leaves it unknown.
bool is_known_login_directory(
    const std::optional<std::string>& login_directory);

// The text that names `path` (a path relative to the login directory) in a
// command that the server resolves against its own root or its current
// directory:
// - a relative `path` is returned unchanged;
// - an absolute one, with a known login directory, follows that directory
//   with its trailing "/"s removed ("/home/u" and "/site/a" give
//   "/home/u/site/a"; login directory "/" leaves `path` as it is);
// - an absolute one, with an unknown login directory, loses its leading
//   "/", so that the server resolves it against the login directory.
std::string command_path(const std::filesystem::path& path,
                         const std::optional<std::string>& login_directory);

// The path, relative to the login directory, of an absolute symbolic link
// target as the server sees it: `target` itself for login directory "/";
// below a longer login directory, the part of `target` inside it ("/" for the
// login directory itself). None when the login directory is unknown or
// `target` lies outside it: no path relative to the login directory reaches
// it.
std::optional<std::filesystem::path> login_relative_target(
    const std::filesystem::path& target,
    const std::optional<std::string>& login_directory);

#endif  // BRINDLE_FTP_LOGIN_DIRECTORY_H_
