// Switching the process to a local account, and the error reports that go
// with it.
//
// Reports are written to standard error and then to standard output, each
// completed by a line feed; a report with a non-zero exit status ends the
// process through exit() with that status.

#ifndef BRINDLE_UTIL_RUN_AS_USER_H_
#define BRINDLE_UTIL_RUN_AS_USER_H_

#include <sys/types.h>

namespace torvane {

// Flags of run_as_user().
constexpr int RUN_AS_CHDIR = 1;       // change into the account's home
constexpr int RUN_AS_ALLOW_ROOT = 2;  // allow user id 0
constexpr int RUN_AS_CHROOT = 4;      // change root to the account's home

// When set, reports are prefixed with its base name and ": ". Unset (null)
// unless a caller sets it; brindle never does.
extern const char* program_name;

// Switches to the account `name`: optional chdir and chroot into its home,
// then initgroups, setgid, setuid. Every failure is reported with exit status
// 1, so this returns (0) only on success.
int run_as_user(const char* name, int flags);

// run_as_user() with RUN_AS_ALLOW_ROOT when `allow_root`, RUN_AS_CHDIR when
// `change_dir`; never RUN_AS_CHROOT.
int run_as_local_user(const char* name, bool change_dir, bool allow_root);

// Looks `name` up with getpwnam() and fills the outputs given (non-null).
// `home` points into the C library's record until the next account lookup.
// Returns 0 when found; otherwise reports "Unable to getpwnam for user <name>"
// without exiting and returns -1.
int lookup_user(const char* name, uid_t* uid, gid_t* gid, const char** home);

// Formats a report printf-style, adds "\nSystem error <errno>: <strerror>"
// when errno is set, and writes it with write_error_message(). `flags` is not
// used. Does not return when exit_status is non-zero.
void report_error(int exit_status, int flags, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Writes `text` (plus a line feed unless it ends with one) to standard error,
// then to standard output, flushing each. Returns 0, or exits with
// exit_status when that is non-zero.
int write_error_message(const char* text, int exit_status);

// Account helpers. They report failures without exiting.
uid_t user_id_by_name(const char* name);   // 0 when unknown
gid_t group_id_by_name(const char* text);  // name or decimal id; 0 when unknown
unsigned user_or_group_id(const char* name, bool want_group);  // 0 if unknown
// The account name of `uid`, or the number when there is none, in a static
// buffer that the next call overwrites.
const char* user_name_by_id(uid_t uid);

}  // namespace torvane

#endif  // BRINDLE_UTIL_RUN_AS_USER_H_
