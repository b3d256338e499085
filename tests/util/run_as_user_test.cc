#include "util/run_as_user.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

std::string system_error(int number) {
  return "\nSystem error " + std::to_string(number) + ": " +
         std::strerror(number);
}

TEST(WriteErrorMessage, WritesToBothChannelsWithOneLineFeed) {
  const ChildResult result = run_in_child([] {
    torvane::write_error_message("plain", 0);
    torvane::write_error_message("ends in newline\n", 0);
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "plain\nends in newline\n");
  EXPECT_EQ(result.out, "plain\nends in newline\n");
}

TEST(WriteErrorMessage, EndsTheProcessWithANonZeroStatus) {
  const ChildResult result = run_in_child([] {
    torvane::write_error_message("fatal", 4);
    torvane::write_error_message("never written", 0);
  });
  EXPECT_EQ(result.exit_status, 4);
  EXPECT_EQ(result.err, "fatal\n");
  EXPECT_EQ(result.out, "fatal\n");
}

TEST(WriteErrorMessage, PrefixesTheBaseNameOfTheProgramNameWhenSet) {
  const ChildResult result = run_in_child([] {
    torvane::program_name = "/usr/local/bin/tool";
    torvane::write_error_message("message", 0);
    torvane::program_name = "bare";
    torvane::write_error_message("again", 0);
  });
  EXPECT_EQ(result.err, "tool: message\nbare: again\n");
  EXPECT_EQ(result.out, "tool: message\nbare: again\n");
}

TEST(ReportError, FormatsWithoutSuffixWhenErrnoIsClear) {
  const ChildResult result = run_in_child([] {
    errno = 0;
    torvane::report_error(0, 0, "value %d of '%s'", 7, "x");
  });
  EXPECT_EQ(result.out, "value 7 of 'x'\n");
  EXPECT_EQ(result.err, "value 7 of 'x'\n");
}

TEST(ReportError, AddsTheSystemErrorOfTheCurrentErrno) {
  const ChildResult result = run_in_child([] {
    errno = ENOENT;
    torvane::report_error(0, 0, "Unable to open %s", "f");
    // The error number is left as it was found.
    if (errno != ENOENT) std::exit(9);
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "Unable to open f" + system_error(ENOENT) + "\n");
  EXPECT_EQ(result.err, result.out);
}

TEST(ReportError, ShowsAnEmptyLineBeforeTheSuffixOfANewlineTerminatedFormat) {
  const ChildResult result = run_in_child([] {
    errno = EPERM;
    torvane::report_error(0, 0, "Failed to setuid: %d\n", 1000);
  });
  EXPECT_EQ(result.out,
            "Failed to setuid: 1000\n" + system_error(EPERM) + "\n");
}

TEST(ReportError, EndsTheProcessWithANonZeroStatus) {
  const ChildResult result = run_in_child([] {
    errno = 0;
    torvane::report_error(5, 0, "gone");
    torvane::report_error(0, 0, "never written");
  });
  EXPECT_EQ(result.exit_status, 5);
  EXPECT_EQ(result.out, "gone\n");
}

TEST(ReportError, FormatsMessagesLongerThanTheFirstBuffer) {
  const std::string long_text(5000, 'x');
  const ChildResult result = run_in_child([&long_text] {
    errno = EACCES;
    torvane::report_error(0, 0, "%s", long_text.c_str());
  });
  // The buffer is enlarged to fit the message exactly, so the suffix no
  // longer fits and is left out.
  EXPECT_EQ(result.out, long_text + "\n");
}

TEST(ReportError, KeepsTheSuffixWhenItFitsBehindANearlyFullMessage) {
  const std::string text(4000, 'y');
  const ChildResult result = run_in_child([&text] {
    errno = EACCES;
    torvane::report_error(0, 0, "%s", text.c_str());
  });
  EXPECT_EQ(result.out, text + system_error(EACCES) + "\n");
}

TEST(LookupUser, FillsOnlyTheOutputsGiven) {
  uid_t uid = 12345;
  gid_t gid = 12345;
  const char* home = nullptr;
  EXPECT_EQ(torvane::lookup_user("root", &uid, &gid, &home), 0);
  EXPECT_EQ(uid, 0u);
  EXPECT_EQ(gid, 0u);
  ASSERT_NE(home, nullptr);
  EXPECT_STREQ(home, "/root");
  EXPECT_EQ(torvane::lookup_user("root", nullptr, nullptr, nullptr), 0);
}

TEST(LookupUser, ReportsAnUnknownAccountWithoutExiting) {
  const ChildResult result = run_in_child([] {
    errno = 0;
    uid_t uid = 77;
    const int found =
        torvane::lookup_user("no-such-account-x", &uid, nullptr, nullptr);
    std::printf("result %d uid %u\n", found, static_cast<unsigned>(uid));
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "Unable to getpwnam for user no-such-account-x\n");
  EXPECT_EQ(
      result.out,
      "Unable to getpwnam for user no-such-account-x\nresult -1 uid 77\n");
}

TEST(RunAsUser, AnUnknownAccountIsReportedTwiceAndEndsWithStatusOne) {
  const ChildResult result = run_in_child([] {
    errno = 0;
    torvane::run_as_local_user("no-such-account-x", false, false);
    std::printf("still running\n");
  });
  EXPECT_EQ(result.exit_status, 1);
  const std::string expected =
      "Unable to getpwnam for user no-such-account-x\n"
      "User 'no-such-account-x' not found\n";
  EXPECT_EQ(result.err, expected);
  EXPECT_EQ(result.out, expected);
}

TEST(RunAsUser, RefusesTheSuperuserUnlessAllowed) {
  const ChildResult result = run_in_child([] {
    errno = 0;
    torvane::run_as_local_user("root", false, false);
  });
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "Cannot run as forbidden uid: 0\n");
  EXPECT_EQ(result.out, "Cannot run as forbidden uid: 0\n");
}

// The account's ids and home, as the account database has them.
struct Account {
  uid_t uid = 0;
  gid_t gid = 0;
  std::string home;
};

Account account(const char* name) {
  Account found;
  const char* home = nullptr;
  EXPECT_EQ(torvane::lookup_user(name, &found.uid, &found.gid, &home), 0);
  found.home = home != nullptr ? home : "";
  return found;
}

void print_credentials_and_directory() {
  char cwd[4096] = {};
  if (getcwd(cwd, sizeof cwd) == nullptr) std::strcpy(cwd, "?");
  std::printf("uid %u euid %u gid %u cwd %s\n", static_cast<unsigned>(getuid()),
              static_cast<unsigned>(geteuid()), static_cast<unsigned>(getgid()),
              cwd);
}

TEST(RunAsUser, SwitchesCredentialsAndStaysInTheDirectory) {
  if (geteuid() != 0) GTEST_SKIP() << "switching users needs root";
  const ChildResult result = run_in_child([] {
    if (chdir("/tmp") != 0) std::exit(9);
    torvane::run_as_local_user("nobody", false, false);
    print_credentials_and_directory();
  });
  const Account nobody = account("nobody");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "uid " + std::to_string(nobody.uid) + " euid " +
                            std::to_string(nobody.uid) + " gid " +
                            std::to_string(nobody.gid) + " cwd /tmp\n");
}

TEST(RunAsUser, ChangesIntoTheHomeDirectoryWhenAsked) {
  if (geteuid() != 0) GTEST_SKIP() << "switching users needs root";
  const Account daemon = account("daemon");
  if (chdir(daemon.home.c_str()) != 0)
    GTEST_SKIP() << "daemon has no home here";
  ASSERT_EQ(chdir("/"), 0);
  const ChildResult result = run_in_child([] {
    torvane::run_as_user("daemon", torvane::RUN_AS_CHDIR);
    print_credentials_and_directory();
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "uid " + std::to_string(daemon.uid) + " euid " +
                            std::to_string(daemon.uid) + " gid " +
                            std::to_string(daemon.gid) + " cwd " + daemon.home +
                            "\n");
}

TEST(RunAsUser, ReportsAHomeDirectoryThatCannotBeEntered) {
  const ChildResult result = run_in_child(
      [] { torvane::run_as_user("nobody", torvane::RUN_AS_CHDIR); });
  const Account nobody = account("nobody");
  if (access(nobody.home.c_str(), F_OK) == 0)
    GTEST_SKIP() << "nobody has a home here";
  EXPECT_EQ(result.exit_status, 1);
  const std::string expected = "Cannot chdir to 'nobody' homedir '" +
                               nobody.home + "'" + system_error(ENOENT) + "\n";
  EXPECT_EQ(result.err, expected);
  EXPECT_EQ(result.out, expected);
}

TEST(RunAsUser, AllowsTheSuperuserWhenAsked) {
  if (geteuid() != 0) GTEST_SKIP() << "switching to root needs root";
  const ChildResult result = run_in_child([] {
    torvane::run_as_local_user("root", false, true);
    std::printf("uid %u\n", static_cast<unsigned>(getuid()));
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "uid 0\n");
}

TEST(RunAsUser, FailsToInitGroupsWithoutTheRightToSwitch) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root to drop to an ordinary user first";
  const ChildResult result = run_in_child([] {
    torvane::run_as_user("nobody", 0);
    errno = 0;
    torvane::run_as_local_user("daemon", false, false);
  });
  EXPECT_EQ(result.exit_status, 1);
  const std::string expected = "Unable to init new groups for user 'daemon': " +
                               std::string(std::strerror(EPERM)) +
                               system_error(EPERM) + "\n";
  EXPECT_EQ(result.err, expected);
  EXPECT_EQ(result.out, expected);
}

TEST(AccountHelpers, FindUsersAndGroups) {
  EXPECT_EQ(torvane::user_id_by_name("root"), 0u);
  EXPECT_EQ(torvane::group_id_by_name("root"), 0u);
  EXPECT_EQ(torvane::group_id_by_name("0"), 0u);
  EXPECT_EQ(torvane::user_or_group_id("root", false), 0u);
  EXPECT_STREQ(torvane::user_name_by_id(0), "root");
  EXPECT_STREQ(torvane::user_name_by_id(4000000000u), "4000000000");
}

TEST(AccountHelpers, ReportUnknownNamesAndReturnZero) {
  const ChildResult result = run_in_child([] {
    const auto uid = torvane::user_id_by_name("no-such-account-x");
    const auto gid_by_name = torvane::group_id_by_name("no-such-group-x");
    const auto gid_by_number = torvane::group_id_by_name("3999999");
    const auto id = torvane::user_or_group_id("no-such-account-x", true);
    std::fprintf(stderr, "%u %u %u %u\n", static_cast<unsigned>(uid),
                 static_cast<unsigned>(gid_by_name),
                 static_cast<unsigned>(gid_by_number), id);
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err,
            "Unable to find uid for user no-such-account-x: Success\n"
            "getgrnam(no-such-group-x): Success\n"
            "getgrgid(3999999): Success\n"
            "Unable to getpwnam for user no-such-account-x\n"
            "0 0 0 0\n");
}

}  // namespace
