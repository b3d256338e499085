#include "util/run_as_user.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace torvane {

const char* program_name = nullptr;

namespace {

constexpr std::size_t kMessageBufferSize = 4096;

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};
using MallocText = std::unique_ptr<char, FreeDeleter>;

void write_to(std::FILE* stream, const char* prefix, const char* text,
              bool add_newline) {
  if (prefix != nullptr) std::fprintf(stream, "%s: ", prefix);
  std::fputs(text, stream);
  if (add_newline) std::fputc('\n', stream);
  std::fflush(stream);
}

}  // namespace

int write_error_message(const char* text, int exit_status) {
  const char* prefix = nullptr;
  if (program_name != nullptr) {
    const char* slash = std::strrchr(program_name, '/');
    prefix = slash != nullptr ? slash + 1 : program_name;
  }
  const std::size_t length = std::strlen(text);
  const bool add_newline = length == 0 || text[length - 1] != '\n';
  write_to(stderr, prefix, text, add_newline);
  write_to(stdout, prefix, text, add_newline);
  if (exit_status != 0) std::exit(exit_status);
  return 0;
}

void report_error(int exit_status, int /*flags*/, const char* format, ...) {
  const int saved_errno = errno;

  std::size_t size = kMessageBufferSize;
  MallocText text(static_cast<char*>(std::malloc(size)));
  if (!text) {
    write_error_message("Can't allocate memory for error message", exit_status);
    return;
  }

  std::va_list args;
  va_start(args, format);
  std::va_list retry_args;
  va_copy(retry_args, args);
  const int needed = std::vsnprintf(text.get(), size, format, args);
  va_end(args);
  if (needed > 0 && static_cast<std::size_t>(needed) >= size) {
    // Too long for the first buffer: format again into one that fits, or keep
    // the message cut short when the larger buffer cannot be had.
    if (char* larger = static_cast<char*>(
            std::realloc(text.get(), static_cast<std::size_t>(needed) + 1))) {
      // realloc() has already released the old block: forget it unfreed.
      static_cast<void>(text.release());
      text.reset(larger);
      size = static_cast<std::size_t>(needed) + 1;
      std::vsnprintf(text.get(), size, format, retry_args);
    }
  }
  va_end(retry_args);

  errno = saved_errno;
  if (saved_errno != 0) {
    const std::size_t length = std::strlen(text.get());
    const std::size_t room = size - length;
    const int suffix =
        std::snprintf(text.get() + length, room, "\nSystem error %d: %s",
                      saved_errno, std::strerror(saved_errno));
    if (suffix < 0 || static_cast<std::size_t>(suffix) >= room)
      text.get()[length] = '\0';  // the suffix does not fit: leave it out
  }

  // The buffer is released before a failing report ends the process, so
  // nothing is left allocated at exit.
  write_error_message(text.get(), 0);
  text.reset();
  if (exit_status != 0) std::exit(exit_status);
}

int lookup_user(const char* name, uid_t* uid, gid_t* gid, const char** home) {
  const passwd* account = getpwnam(name);
  if (account == nullptr) {
    report_error(0, 0, "Unable to getpwnam for user %s", name);
    return -1;
  }
  if (uid != nullptr) *uid = account->pw_uid;
  if (gid != nullptr) *gid = account->pw_gid;
  if (home != nullptr) *home = account->pw_dir;
  return 0;
}

int run_as_user(const char* name, int flags) {
  auto uid = static_cast<uid_t>(-1);
  auto gid = static_cast<gid_t>(-1);
  const char* home = nullptr;

  if (lookup_user(name, &uid, &gid, &home) == -1)
    report_error(1, 0, "User '%s' not found", name);
  if ((flags & RUN_AS_CHDIR) != 0 && chdir(home) == -1)
    report_error(1, 0, "Cannot chdir to '%s' homedir '%s'", name, home);
  if ((flags & RUN_AS_CHROOT) != 0 && chroot(home) == -1)
    report_error(1, 0, "Cannot chroot to '%s' homedir '%s'", name, home);
  if ((flags & RUN_AS_ALLOW_ROOT) == 0 && uid == 0)
    report_error(1, 0, "Cannot run as forbidden uid: %d\n", 0);
  // Groups first: once the user id has changed they can no longer be set.
  if (initgroups(name, gid) == -1)
    report_error(1, 0, "Unable to init new groups for user '%s': %s", name,
                 std::strerror(errno));
  if (setgid(gid) != 0)
    report_error(1, 0, "Failed to setgid: %d\n", static_cast<int>(gid));
  if (setuid(uid) != 0)
    report_error(1, 0, "Failed to setuid: %d\n", static_cast<int>(uid));
  return 0;
}

int run_as_local_user(const char* name, bool change_dir, bool allow_root) {
  int flags = 0;
  if (allow_root) flags |= RUN_AS_ALLOW_ROOT;
  if (change_dir) flags |= RUN_AS_CHDIR;
  return run_as_user(name, flags);
}

uid_t user_id_by_name(const char* name) {
  errno = 0;
  if (const passwd* account = getpwnam(name)) return account->pw_uid;
  report_error(0, 0, "Unable to find uid for user %s: %s", name,
               std::strerror(errno));
  return 0;
}

gid_t group_id_by_name(const char* text) {
  bool numeric = true;
  for (const char* c = text; *c != '\0'; ++c)
    if (*c < '0' || *c > '9') numeric = false;

  if (!numeric) {
    errno = 0;
    if (const group* found = getgrnam(text)) return found->gr_gid;
    report_error(0, 0, "getgrnam(%s): %s", text, std::strerror(errno));
    return 0;
  }
  int id = 0;
  std::sscanf(text, "%d", &id);
  errno = 0;
  if (getgrgid(static_cast<gid_t>(id)) != nullptr)
    return static_cast<gid_t>(id);
  report_error(0, 0, "getgrgid(%d): %s", id, std::strerror(errno));
  return 0;
}

unsigned user_or_group_id(const char* name, bool want_group) {
  uid_t uid = 0;
  gid_t gid = 0;
  if (lookup_user(name, want_group ? nullptr : &uid,
                  want_group ? &gid : nullptr, nullptr) == -1)
    return 0;
  return want_group ? gid : uid;
}

const char* user_name_by_id(uid_t uid) {
  static char name[4096];
  if (const passwd* account = getpwuid(uid)) {
    std::strncpy(name, account->pw_name, sizeof name - 1);
    name[sizeof name - 1] = '\0';
  } else {
    std::snprintf(name, sizeof name, "%u", static_cast<unsigned>(uid));
  }
  return name;
}

}  // namespace torvane
