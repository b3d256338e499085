#include "ops/child_name.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ClassifyChildName, PassesOverTheDirectoryAndItsParent) {
  EXPECT_EQ(classify_child_name("."), ChildName::self_or_parent);
  EXPECT_EQ(classify_child_name(".."), ChildName::self_or_parent);
}

TEST(ClassifyChildName, RefusesNamesThatAreNotOnePathElement) {
  EXPECT_EQ(classify_child_name("../evil"), ChildName::unsafe);
  EXPECT_EQ(classify_child_name("a/../../evil"), ChildName::unsafe);
  EXPECT_EQ(classify_child_name("/etc/passwd"), ChildName::unsafe);
  EXPECT_EQ(classify_child_name("dir/"), ChildName::unsafe);
  EXPECT_EQ(classify_child_name(std::string("..\0x", 4)), ChildName::unsafe);
}

TEST(ClassifyChildName, AcceptsEveryOtherName) {
  EXPECT_EQ(classify_child_name(".hidden"), ChildName::ordinary);
  EXPECT_EQ(classify_child_name("..."), ChildName::ordinary);
  EXPECT_EQ(classify_child_name("..\\evil"), ChildName::ordinary);
  EXPECT_EQ(classify_child_name("my file#1"), ChildName::ordinary);
  EXPECT_EQ(classify_child_name("name\r"), ChildName::ordinary);
}

}  // namespace
