#include "listing/remote_entry.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "util/torvane_util_exception.h"

namespace {

using Field = RemoteEntry::Field;

std::string field(const RemoteEntry& entry, Field which) {
  return std::string(entry.capture(which).text);
}

std::string parse_failure(const std::string& line) {
  try {
    RemoteEntry entry(line);
  } catch (const torvane::TorvaneUtilException& error) {
    return error.what();
  }
  return "parsed";
}

TEST(RemoteEntry, KeepsThePatternTextVerbatim) {
  EXPECT_STREQ(
      RemoteEntry::pattern_text(),
      "^((?<type>[-bcCdDlMnpPs?])(?<permission>[-r][-w][-xsS][-r][-w][-xsS]"
      "[-r][-w][-xsStT])\\s+(?<filecode>\\d+)\\s+(?<owner>\\S+)\\s+"
      "(?<group>\\S+)\\s+(?<size>\\d+)\\s+(?<date>(\\w{3}\\s+\\d{1,2}\\s+"
      "\\d{1,2}:\\d{2})|(\\w{3}\\s+\\d{1,2}\\s+\\d{4}))\\s+(?<name>.+))|"
      "((?<date>\\d{1,4}[\\.-]\\d{2}[\\.-]\\d{1,4}\\s+\\d{1,2}:\\d{2}"
      "([AP]M)?)\\s+((?<type>[^0-9\\s]+)|(?<size>\\d+))\\s+(?<name>.+))$");
}

TEST(RemoteEntry, ParsesAUnixDirectoryLine) {
  const RemoteEntry entry(
      "drwxr-xr-x   2 web   web       4096 Jan  5 12:34 docs");
  EXPECT_EQ(field(entry, Field::type), "d");
  EXPECT_EQ(field(entry, Field::permission), "rwxr-xr-x");
  EXPECT_EQ(field(entry, Field::filecode), "2");
  EXPECT_EQ(field(entry, Field::owner), "web");
  EXPECT_EQ(field(entry, Field::group), "web");
  EXPECT_EQ(field(entry, Field::size), "4096");
  EXPECT_EQ(field(entry, Field::date), "Jan  5 12:34");
  EXPECT_EQ(field(entry, Field::name), "docs");
  EXPECT_TRUE(entry.is_directory());
  EXPECT_EQ(entry.entry_name(false), "docs");
}

TEST(RemoteEntry, KeepsTheLineAsReceived) {
  const std::string line = "-rw-r--r-- 1 u g 5 Jan 1 2020 f";
  EXPECT_EQ(RemoteEntry(line).line(), line);
}

TEST(RemoteEntry, SplitsASymbolicLinkIntoNameAndTarget) {
  const RemoteEntry entry(
      "lrwxrwxrwx 1 u g 11 Mar 10  2020 current -> releases/7");
  EXPECT_EQ(field(entry, Field::type), "l");
  EXPECT_EQ(field(entry, Field::date), "Mar 10  2020");
  EXPECT_EQ(entry.entry_name(false), "current");
  EXPECT_EQ(entry.entry_name(true), "releases/7");
  EXPECT_FALSE(entry.is_directory());
}

TEST(RemoteEntry, SplitsALinkAtTheFirstArrow) {
  const RemoteEntry entry("lrwxrwxrwx 1 u g 5 Jan 1 2020 a -> b -> c");
  EXPECT_EQ(entry.entry_name(false), "a");
  EXPECT_EQ(entry.entry_name(true), "b -> c");
}

TEST(RemoteEntry, AnArrowInARegularFileNameIsPartOfTheName) {
  const RemoteEntry entry("-rw-r--r-- 1 u g 5 Jan 1 2020 a -> b");
  EXPECT_EQ(entry.entry_name(false), "a -> b");
  EXPECT_EQ(entry.entry_name(true), "a -> b");
}

TEST(RemoteEntry, ALinkWithoutArrowYieldsItsNameFromTheFourthCharacter) {
  const RemoteEntry entry("lrwxrwxrwx 1 u g 5 Jan 1 2020 abcdef");
  EXPECT_EQ(entry.entry_name(false), "abcdef");
  EXPECT_EQ(entry.entry_name(true), "def");
}

TEST(RemoteEntry, AShortLinkNameWithoutArrowIsOutOfRangeForTheTarget) {
  const RemoteEntry entry("lrwxrwxrwx 1 u g 5 Jan 1 2020 ab");
  EXPECT_EQ(entry.entry_name(false), "ab");
  EXPECT_THROW(entry.entry_name(true), std::out_of_range);
  EXPECT_EQ(RemoteEntry("lrwxrwxrwx 1 u g 5 Jan 1 2020 abc").entry_name(true),
            "");
}

TEST(RemoteEntry, ParsesADosDirectoryLine) {
  const RemoteEntry entry("01-15-21  10:30AM       <DIR>          Reports");
  EXPECT_EQ(field(entry, Field::type), "<DIR>");
  EXPECT_FALSE(entry.capture(Field::size).matched);
  EXPECT_EQ(field(entry, Field::size), "");
  EXPECT_EQ(field(entry, Field::date), "01-15-21  10:30AM");
  EXPECT_EQ(field(entry, Field::name), "Reports");
  EXPECT_TRUE(entry.is_directory());
}

TEST(RemoteEntry, ParsesADosFileLine) {
  const RemoteEntry entry("2021-01-15  22:05  1048576 big file.bin");
  EXPECT_FALSE(entry.capture(Field::type).matched);
  EXPECT_EQ(field(entry, Field::type), "");
  EXPECT_EQ(field(entry, Field::size), "1048576");
  EXPECT_EQ(field(entry, Field::date), "2021-01-15  22:05");
  EXPECT_EQ(field(entry, Field::name), "big file.bin");
  EXPECT_FALSE(entry.is_directory());
  EXPECT_FALSE(entry.capture(Field::permission).matched);
  EXPECT_FALSE(entry.capture(Field::owner).matched);
}

TEST(RemoteEntry, ParsesAFifoAsNeitherDirectoryNorLink) {
  const RemoteEntry entry("prw-r--r-- 1 u g 0 Jan 1 2020 fifo");
  EXPECT_EQ(field(entry, Field::type), "p");
  EXPECT_FALSE(entry.is_directory());
  EXPECT_EQ(entry.entry_name(true), "fifo");
}

TEST(RemoteEntry, AcceptsEveryUnixTypeCharacter) {
  for (const char type : std::string("-bcCdDlMnpPs?")) {
    const RemoteEntry entry(std::string(1, type) +
                            "rwxrwxrwx 1 u g 0 Jan 1 2020 x");
    EXPECT_EQ(field(entry, Field::type), std::string(1, type));
  }
  EXPECT_EQ(
      parse_failure("xrwxrwxrwx 1 u g 0 Jan 1 2020 x"),
      "Unable to parse FTP LIST output 'xrwxrwxrwx 1 u g 0 Jan 1 2020 x'");
}

TEST(RemoteEntry, AcceptsSpecialPermissionBits) {
  EXPECT_EQ(
      field(RemoteEntry("drwsr-Sr-t 1 u g 0 Jan 1 2020 x"), Field::permission),
      "rwsr-Sr-t");
  EXPECT_EQ(
      field(RemoteEntry("-rwxrwxrwT 1 u g 0 Jan 1 2020 x"), Field::permission),
      "rwxrwxrwT");
}

TEST(RemoteEntry, LosesLeadingBlanksOfTheNameAndKeepsTrailingOnes) {
  EXPECT_EQ(
      RemoteEntry("-rw-r--r-- 1 u g 5 Jan 1 2020    spaced").entry_name(false),
      "spaced");
  EXPECT_EQ(
      RemoteEntry("-rw-r--r-- 1 u g 5 Jan 1 2020 trail  ").entry_name(false),
      "trail  ");
}

TEST(RemoteEntry, KeepsACarriageReturnAtTheEndOfTheName) {
  EXPECT_EQ(RemoteEntry("-rw-r--r-- 1 u g 5 Jan 1 2020 f\r").entry_name(false),
            "f\r");
}

TEST(RemoteEntry, RejectsASummaryLine) {
  EXPECT_EQ(parse_failure("total 12"),
            "Unable to parse FTP LIST output 'total 12'");
}

TEST(RemoteEntry, RejectsAnEmptyLine) {
  EXPECT_EQ(parse_failure(""), "Unable to parse FTP LIST output ''");
}

TEST(RemoteEntry, RejectsAclAndSecurityContextMarkers) {
  EXPECT_EQ(
      parse_failure("-rw-r--r--+ 1 u g 5 Jan 1 2020 f"),
      "Unable to parse FTP LIST output '-rw-r--r--+ 1 u g 5 Jan 1 2020 f'");
  EXPECT_EQ(
      parse_failure("-rw-r--r--. 1 u g 5 Jan 1 2020 f"),
      "Unable to parse FTP LIST output '-rw-r--r--. 1 u g 5 Jan 1 2020 f'");
}

TEST(RemoteEntry, RejectsAMonthWordThatIsNotThreeCharacters) {
  EXPECT_EQ(
      parse_failure("-rw-r--r-- 1 u g 5 June 1 2020 f"),
      "Unable to parse FTP LIST output '-rw-r--r-- 1 u g 5 June 1 2020 f'");
}

TEST(RemoteEntry, RejectsALineWithoutName) {
  EXPECT_EQ(parse_failure("-rw-r--r-- 1 u g 5 Jan 1 2020"),
            "Unable to parse FTP LIST output '-rw-r--r-- 1 u g 5 Jan 1 2020'");
  EXPECT_EQ(parse_failure("-rw-r--r-- 1 u g 5 Jan 1 2020 "),
            "Unable to parse FTP LIST output '-rw-r--r-- 1 u g 5 Jan 1 2020 '");
}

TEST(RemoteEntry, RejectsLeadingBlanksBeforeTheType) {
  EXPECT_EQ(
      parse_failure(" -rw-r--r-- 1 u g 5 Jan 1 2020 f"),
      "Unable to parse FTP LIST output ' -rw-r--r-- 1 u g 5 Jan 1 2020 f'");
}

TEST(RemoteEntry, ReportsTheLineByteForByteInTheFailure) {
  EXPECT_EQ(parse_failure("bad\rline\t\xff"),
            "Unable to parse FTP LIST output 'bad\rline\t\xff'");
}

TEST(RemoteEntry, FieldsSurviveCopyAndMove) {
  std::string line = "lrwxrwxrwx 1 u g 4 Jan 1 2020 cur -> release-2";
  RemoteEntry original(line);
  RemoteEntry copy = original;
  RemoteEntry moved = std::move(original);
  original = RemoteEntry("-rw-r--r-- 1 u g 5 Jan 1 2020 other");
  EXPECT_EQ(copy.entry_name(false), "cur");
  EXPECT_EQ(copy.entry_name(true), "release-2");
  EXPECT_EQ(moved.entry_name(false), "cur");
  EXPECT_EQ(field(moved, Field::owner), "u");
  EXPECT_EQ(moved.line(), line);
}

TEST(RemoteEntry, ComparesCapturesAsText) {
  const RemoteEntry entry("drwxr-xr-x 2 u g 4096 Jan 5 12:34 docs");
  EXPECT_TRUE(entry.capture(Field::type) == "d");
  EXPECT_FALSE(entry.capture(Field::type) == "l");
}

TEST(RemoteEntry, AcceptsDosDatesWithDotsAndTwentyFourHourTimes) {
  const RemoteEntry entry("15.01.2021 22:05 <DIR> Old Stuff");
  EXPECT_EQ(field(entry, Field::date), "15.01.2021 22:05");
  EXPECT_TRUE(entry.is_directory());
  EXPECT_EQ(entry.entry_name(false), "Old Stuff");
}

TEST(RemoteEntry, TreatsOtherDosTagsAsNeitherDirectoryNorFile) {
  const RemoteEntry entry("01-15-21  10:30AM  <JUNCTION>  Link");
  EXPECT_EQ(field(entry, Field::type), "<JUNCTION>");
  EXPECT_FALSE(entry.is_directory());
  EXPECT_FALSE(entry.capture(Field::size).matched);
}

}  // namespace
