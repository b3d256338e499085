#include "listing/remote_listing.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "util/torvane_util_exception.h"

namespace {

RemoteListing parse(const std::string& body) {
  std::istringstream stream(body);
  return parse_listing(stream);
}

std::string parse_failure(const std::string& body) {
  try {
    parse(body);
  } catch (const torvane::TorvaneUtilException& error) {
    return error.what();
  }
  return "parsed";
}

TEST(ParseListing, ReadsALastLineWithoutLineFeed) {
  const RemoteListing listing = parse(
      "drwxr-xr-x 2 u g 4096 Jan 5 12:34 docs\n"
      "-rw-r--r-- 1 u g 10 Jan 5 12:35 a.txt");
  ASSERT_EQ(listing.size(), 2u);
  EXPECT_EQ(listing[0].entry_name(false), "docs");
  EXPECT_TRUE(listing[0].is_directory());
  EXPECT_EQ(listing[1].entry_name(false), "a.txt");
  EXPECT_EQ(listing[1].line(), "-rw-r--r-- 1 u g 10 Jan 5 12:35 a.txt");
}

TEST(ParseListing, GivesNoEntriesForAnEmptyBody) {
  EXPECT_TRUE(parse("").empty());
}

TEST(ParseListing, SplitsOnlyAtLineFeeds) {
  const RemoteListing listing = parse(
      "-rw-r--r-- 1 u g 5 Jan 1 2020 a\r\n"
      "-rw-r--r-- 1 u g 5 Jan 1 2020 b\rc\n");
  ASSERT_EQ(listing.size(), 2u);
  EXPECT_EQ(listing[0].entry_name(false), "a\r");
  EXPECT_EQ(listing[1].entry_name(false), "b\rc");
}

TEST(ParseListing, KeepsDuplicatesAndDotEntriesInServerOrder) {
  const RemoteListing listing = parse(
      "drwxr-xr-x 2 u g 6 Jan 1 2020 .\n"
      "-rw-r--r-- 1 u g 5 Jan 1 2020 x\n"
      "drwxr-xr-x 2 u g 6 Jan 1 2020 ..\n"
      "-rw-r--r-- 1 u g 7 Jan 1 2020 x\n");
  ASSERT_EQ(listing.size(), 4u);
  EXPECT_EQ(listing[0].entry_name(false), ".");
  EXPECT_EQ(listing[2].entry_name(false), "..");
  EXPECT_EQ(listing[1].capture(RemoteEntry::Field::size).text, "5");
  EXPECT_EQ(listing[3].capture(RemoteEntry::Field::size).text, "7");
}

TEST(ParseListing, FailsAsAWholeOnASummaryLine) {
  EXPECT_EQ(parse_failure("total 8\n-rw-r--r-- 1 u g 5 Jan 1 2020 a\n"),
            "Unable to parse FTP LIST output 'total 8'");
}

TEST(ParseListing, FailsOnAnEmptyLineInside) {
  EXPECT_EQ(parse_failure("-rw-r--r-- 1 u g 5 Jan 1 2020 a\n\n"
                          "-rw-r--r-- 1 u g 5 Jan 1 2020 b\n"),
            "Unable to parse FTP LIST output ''");
}

}  // namespace
