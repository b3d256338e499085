#include "ftp/request_url.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

class RequestUrl : public ::testing::Test {
 protected:
  std::string url(const std::string& path, const std::string& host = "H",
                  std::uint16_t port = 21) {
    return request_url(handle_.get(), host, port, path);
  }

 private:
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle_{
      curl_easy_init(), &curl_easy_cleanup};
};

TEST_F(RequestUrl, JoinsTheElementsOfAnAbsolutePath) {
  EXPECT_EQ(url("/dir/file.txt"), "ftp://H:21/dir/file.txt");
}

TEST_F(RequestUrl, RelativeAndAbsolutePathsGiveTheSameUrl) {
  EXPECT_EQ(url("dir/file.txt"), "ftp://H:21/dir/file.txt");
}

TEST_F(RequestUrl, KeepsATrailingSeparator) {
  EXPECT_EQ(url("/dir/sub/"), "ftp://H:21/dir/sub/");
}

TEST_F(RequestUrl, RootAndEmptyPathGiveTheBaseUrl) {
  EXPECT_EQ(url("/"), "ftp://H:21");
  EXPECT_EQ(url(""), "ftp://H:21");
}

TEST_F(RequestUrl, PercentEncodesEachElement) {
  EXPECT_EQ(url("/my file#1"), "ftp://H:21/my%20file%231");
  EXPECT_EQ(url("/50%/a+b/~x_y-z.w"), "ftp://H:21/50%25/a%2Bb/~x_y-z.w");
  EXPECT_EQ(url("/caf\xc3\xa9"), "ftp://H:21/caf%C3%A9");
}

TEST_F(RequestUrl, SendsDotElementsAsTheyAre) {
  EXPECT_EQ(url("/srv/site/."), "ftp://H:21/srv/site/.");
  EXPECT_EQ(url("a/../b"), "ftp://H:21/a/../b");
}

TEST_F(RequestUrl, RepeatedSeparatorsAddNoEmptyElements) {
  EXPECT_EQ(url("//a///b"), "ftp://H:21/a/b");
}

TEST_F(RequestUrl, HostGoesInAsGivenAndPortInDecimal) {
  EXPECT_EQ(url("/x", "ftp.example.org", 2121), "ftp://ftp.example.org:2121/x");
  EXPECT_EQ(url("/x", "127.0.0.1", 0), "ftp://127.0.0.1:0/x");
}

TEST_F(RequestUrl, EncodesAControlByteInsteadOfCuttingTheElement) {
  EXPECT_EQ(url(std::string("/a\0b", 4)), "ftp://H:21/a%00b");
  EXPECT_EQ(url("/a\rb"), "ftp://H:21/a%0Db");
}

}  // namespace
