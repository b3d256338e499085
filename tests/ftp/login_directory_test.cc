#include "ftp/login_directory.h"

#include <gtest/gtest.h>

namespace {

using std::nullopt;
using std::optional;
using std::string;
namespace fs = std::filesystem;

TEST(IsKnownLoginDirectory, AcceptsAbsoluteUnixPaths) {
  EXPECT_TRUE(is_known_login_directory(string("/")));
  EXPECT_TRUE(is_known_login_directory(string("/home/u")));
  EXPECT_TRUE(is_known_login_directory(string("/home/u/")));
  EXPECT_TRUE(is_known_login_directory(string("/home/my \"q\" dir")));
}

TEST(IsKnownLoginDirectory, RefusesWhatIsNoAbsoluteUnixPath) {
  EXPECT_FALSE(is_known_login_directory(nullopt));
  EXPECT_FALSE(is_known_login_directory(string("")));
  EXPECT_FALSE(is_known_login_directory(string("QGPL")));
  EXPECT_FALSE(is_known_login_directory(string("C:\\x")));
  EXPECT_FALSE(is_known_login_directory(string("home/u")));
  EXPECT_FALSE(is_known_login_directory(string("/home/u\r\nDELE /x")));
  EXPECT_FALSE(is_known_login_directory(string("/home/u\n")));
  EXPECT_FALSE(is_known_login_directory(string("/home\ru")));
}

TEST(CommandPath, LoginDirectoryRootKeepsThePath) {
  EXPECT_EQ(command_path("/site/old/a.txt", string("/")), "/site/old/a.txt");
  EXPECT_EQ(command_path("/site/old/a.txt", string("//")), "/site/old/a.txt");
}

TEST(CommandPath, PutsAKnownLoginDirectoryInFront) {
  EXPECT_EQ(command_path("/site/old/a.txt", string("/home/u")),
            "/home/u/site/old/a.txt");
  EXPECT_EQ(command_path("/site/old/a.txt", string("/home/u/")),
            "/home/u/site/old/a.txt");
  EXPECT_EQ(command_path("/site/old/a.txt", string("/home/u///")),
            "/home/u/site/old/a.txt");
}

TEST(CommandPath, KeepsSpacesAndQuotesAsTheyAre) {
  EXPECT_EQ(command_path("/my dir/a \"b\".txt", string("/home/my \"q\" dir")),
            "/home/my \"q\" dir/my dir/a \"b\".txt");
}

TEST(CommandPath, UnknownLoginDirectoryMakesThePathRelative) {
  EXPECT_EQ(command_path("/site/old/a.txt", nullopt), "site/old/a.txt");
  EXPECT_EQ(command_path("/site/old/a.txt", string("QGPL")), "site/old/a.txt");
  EXPECT_EQ(command_path("/site/old/a.txt", string("C:\\x")), "site/old/a.txt");
  EXPECT_EQ(command_path("/site", string("/home\n")), "site");
}

TEST(CommandPath, RelativePathsStayAsTheyAre) {
  for (const optional<string>& login :
       {optional<string>(), optional<string>("/"), optional<string>("/home/u"),
        optional<string>("QGPL")}) {
    EXPECT_EQ(command_path("site/old/a.txt", login), "site/old/a.txt");
  }
}

TEST(LoginRelativeTarget, LoginDirectoryRootKeepsTheTarget) {
  EXPECT_EQ(login_relative_target("/srv/data", string("/")),
            fs::path("/srv/data"));
  EXPECT_EQ(login_relative_target("/", string("/")), fs::path("/"));
}

TEST(LoginRelativeTarget, TargetInsideTheLoginDirectoryLosesItsPrefix) {
  EXPECT_EQ(login_relative_target("/home/u/site/data", string("/home/u")),
            fs::path("/site/data"));
  EXPECT_EQ(login_relative_target("/home/u/site/data", string("/home/u/")),
            fs::path("/site/data"));
  EXPECT_EQ(login_relative_target("/home/u", string("/home/u")), fs::path("/"));
  EXPECT_EQ(login_relative_target("/home/u/", string("/home/u")),
            fs::path("/"));
}

TEST(LoginRelativeTarget, TargetOutsideTheLoginDirectoryIsUnreachable) {
  EXPECT_EQ(login_relative_target("/site/data", string("/home/u")), nullopt);
  EXPECT_EQ(login_relative_target("/home/uv/data", string("/home/u")), nullopt);
  EXPECT_EQ(login_relative_target("/home", string("/home/u")), nullopt);
  EXPECT_EQ(login_relative_target("/", string("/home/u")), nullopt);
}

TEST(LoginRelativeTarget, UnknownLoginDirectoryReachesNoAbsoluteTarget) {
  EXPECT_EQ(login_relative_target("/site/data", nullopt), nullopt);
  EXPECT_EQ(login_relative_target("/site/data", string("QGPL")), nullopt);
}

}  // namespace
