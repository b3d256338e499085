#include "ops/child_name.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

TEST(ClassifyChildName, PassesOverTheDirectoryAndItsParent) {
  EXPECT_EQ(classify_child_name("."), ChildName::self_or_parent);
  EXPECT_EQ(classify_child_name(".."), ChildName::self_or_parent);
}

TEST(ClassifyChildName, RefusesNamesThatAreNotOnePathElement) {
  const std::string refused[] = {
      "/",
      "a/b",
      "../evil",
      "a/../../evil",
      "/etc/passwd",
      "dir/",
      "./x",
      "//",
      std::string(1, '\0'),
      std::string("a\0b", 3),
      std::string("..\0x", 4),
      std::string("name\0", 5),
  };
  for (const std::string& name : refused) {
    EXPECT_EQ(classify_child_name(name), ChildName::unsafe)
        << "name of " << name.size() << " bytes: " << fs::path(name);
  }
}

TEST(ClassifyChildName, AcceptsEveryOtherName) {
  const std::string accepted[] = {
      "...",         "..a",        "a..",  ". ",        " ..",
      ".hidden",     "..\\evil",   "a\\b", "my file#1", " lead",
      "trail ",      "name\r",     "a\rb", "\r",        "tab\there",
      "caf\xc3\xa9", "ff\xff\xfe", "\x80", "-rf",       "x -> y",
  };
  for (const std::string& name : accepted) {
    EXPECT_EQ(classify_child_name(name), ChildName::ordinary)
        << "name " << fs::path(name);
  }
}

RemoteListing listing_of(const std::string& body) {
  std::istringstream stream(body);
  return parse_listing(stream);
}

// What a walk did, one line per call, in order.
struct Walk {
  std::vector<std::string> calls;

  void run(const RemoteListing& listing, const fs::path& directory) {
    for_each_child(
        listing, directory,
        [this](const RemoteEntry& child, std::string_view name) {
          calls.push_back("visit " + std::string(name) + " (" + child.line() +
                          ")");
        },
        [this](const fs::path& path) {
          calls.push_back("refuse " + path.native());
        });
  }
};

TEST(ForEachChild, VisitsOrdinaryNamesAndRefusesUnsafeOnesInListingOrder) {
  const RemoteListing listing = listing_of(
      "drwxr-xr-x 2 u g 6 Jan 1 2020 .\n"
      "-rw-r--r-- 1 u g 1 Jan 1 2020 a.txt\n"
      "-rw-r--r-- 1 u g 2 Jan 1 2020 ../evil\n"
      "drwxr-xr-x 2 u g 6 Jan 1 2020 ..\n"
      "lrwxrwxrwx 1 u g 3 Jan 1 2020 link -> /etc\n"
      "lrwxrwxrwx 1 u g 3 Jan 1 2020 x/y -> z\n"
      "drwxr-xr-x 2 u g 6 Jan 1 2020 my dir\n");
  Walk walk;
  walk.run(listing, "/pub");
  EXPECT_EQ(walk.calls,
            (std::vector<std::string>{
                "visit a.txt (-rw-r--r-- 1 u g 1 Jan 1 2020 a.txt)",
                "refuse /pub/../evil",
                "visit link (lrwxrwxrwx 1 u g 3 Jan 1 2020 link -> /etc)",
                "refuse /pub/x/y",
                "visit my dir (drwxr-xr-x 2 u g 6 Jan 1 2020 my dir)",
            }));
}

TEST(ForEachChild, JoinsARefusedNameToTheDirectoryAsItIs) {
  const RemoteListing listing =
      listing_of("-rw-r--r-- 1 u g 1 Jan 1 2020 a" + std::string(1, '\0') +
                 "b\n-rw-r--r-- 1 u g 1 Jan 1 2020 /abs\n");
  Walk walk;
  walk.run(listing, "rel/dir");
  EXPECT_EQ(walk.calls, (std::vector<std::string>{
                            "refuse rel/dir/a" + std::string(1, '\0') + "b",
                            "refuse /abs",
                        }));
}

TEST(ForEachChild, VisitsANameThatTheListingRepeatsOnceAtItsFirstLine) {
  const RemoteListing listing = listing_of(
      "-rw-r--r-- 1 u g 1 Jan 1 2020 a\n"
      "drwxr-xr-x 2 u g 6 Jan 1 2020 b\n"
      "lrwxrwxrwx 1 u g 1 Jan 1 2020 a -> b\n"
      "-rw-r--r-- 1 u g 2 Jan 1 2020 b\n"
      "-rw-r--r-- 1 u g 3 Jan 1 2020 x/y\n"
      "-rw-r--r-- 1 u g 3 Jan 1 2020 x/y\n");
  Walk walk;
  walk.run(listing, "/d");
  EXPECT_EQ(walk.calls, (std::vector<std::string>{
                            "visit a (-rw-r--r-- 1 u g 1 Jan 1 2020 a)",
                            "visit b (drwxr-xr-x 2 u g 6 Jan 1 2020 b)",
                            "refuse /d/x/y",
                            "refuse /d/x/y",
                        }));
}

TEST(ForEachChild, PassesOverDotEntriesWhateverTheirType) {
  const RemoteListing listing = listing_of(
      "-rw-r--r-- 1 u g 1 Jan 1 2020 .\n"
      "lrwxrwxrwx 1 u g 1 Jan 1 2020 .. -> /\n"
      "01-15-21  10:30AM       <DIR>          .\n");
  Walk walk;
  walk.run(listing, "/d");
  EXPECT_EQ(walk.calls, std::vector<std::string>{});
}

TEST(ForEachChild, AnExceptionFromRefuseEndsTheWalk) {
  const RemoteListing listing = listing_of(
      "-rw-r--r-- 1 u g 1 Jan 1 2020 first\n"
      "-rw-r--r-- 1 u g 1 Jan 1 2020 a/b\n"
      "-rw-r--r-- 1 u g 1 Jan 1 2020 never\n");
  std::vector<std::string> visited;
  EXPECT_THROW(for_each_child(
                   listing, "/d",
                   [&visited](const RemoteEntry&, std::string_view name) {
                     visited.emplace_back(name);
                   },
                   [](const fs::path& path) {
                     throw std::runtime_error("refused " + path.native());
                   }),
               std::runtime_error);
  EXPECT_EQ(visited, std::vector<std::string>{"first"});
}

}  // namespace
