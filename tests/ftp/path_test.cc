#include "ftp/path.h"

#include <gtest/gtest.h>

#include "util/torvane_util_exception.h"

namespace {

std::string normalized(const std::string& path) {
  return normalize_path(path).native();
}

std::string invalid_path_message(const std::string& path) {
  try {
    normalize_path(path);
  } catch (const torvane::TorvaneUtilException& error) {
    return error.what();
  }
  return "no exception";
}

TEST(NormalizePath, ResolvesDotDotAgainstThePreviousElement) {
  EXPECT_EQ(normalized("/a/b/../c"), "/a/c");
}

TEST(NormalizePath, DropsDotsAndKeepsATrailingSeparator) {
  EXPECT_EQ(normalized("/a/./b/"), "/a/b/");
}

TEST(NormalizePath, TrailingDotDotLeavesASeparator) {
  EXPECT_EQ(normalized("/a/b/.."), "/a/");
}

TEST(NormalizePath, TrailingDotIsDropped) {
  EXPECT_EQ(normalized("/a/b/."), "/a/b");
}

TEST(NormalizePath, DotDotAtTheRootOfAnAbsolutePathIsAbsorbed) {
  EXPECT_EQ(normalized("/.."), "/");
  EXPECT_EQ(normalized("/../../x"), "/x");
}

TEST(NormalizePath, RelativePathsMayClimbBackToTheirStart) {
  EXPECT_EQ(normalized("a/.."), "");
  EXPECT_EQ(normalized("."), "");
  EXPECT_EQ(normalized(""), "");
}

TEST(NormalizePath, ClimbingAboveARelativeStartFails) {
  EXPECT_EQ(invalid_path_message(".."), "Invalid path '..'");
  EXPECT_EQ(invalid_path_message("a/../.."), "Invalid path 'a/../..'");
  EXPECT_EQ(invalid_path_message("./../x/"), "Invalid path './../x/'");
}

TEST(NormalizePath, RepeatedSeparatorsCollapse) {
  EXPECT_EQ(normalized("/a//b"), "/a/b");
}

TEST(NormalizePath, OnlyWholeDotElementsCount) {
  EXPECT_EQ(normalized("/..a/a../.b/b."), "/..a/a../.b/b.");
}

TEST(NormalizePath, RelativePathsStayRelative) {
  EXPECT_EQ(normalized("a/./b/../c"), "a/c");
}

TEST(IsDot, LooksAtTheFileNameOnly) {
  EXPECT_TRUE(is_dot("a/."));
  EXPECT_TRUE(is_dot("."));
  EXPECT_FALSE(is_dot("a/"));
  EXPECT_FALSE(is_dot(".."));
  EXPECT_FALSE(is_dot(".a"));
}

TEST(IsDotDot, LooksAtTheFileNameOnly) {
  EXPECT_TRUE(is_dot_dot(".."));
  EXPECT_TRUE(is_dot_dot("/x/.."));
  EXPECT_FALSE(is_dot_dot("/"));
  EXPECT_FALSE(is_dot_dot("../"));
  EXPECT_FALSE(is_dot_dot("..."));
}

}  // namespace
