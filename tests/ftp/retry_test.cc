#include "ftp/retry.h"

#include <gtest/gtest.h>

namespace {

TEST(IsTransientCode, AcceptsTheFiveConnectionFailures) {
  EXPECT_TRUE(is_transient_code(CURLE_COULDNT_CONNECT));     // 7
  EXPECT_TRUE(is_transient_code(CURLE_FTP_ACCEPT_TIMEOUT));  // 12
  EXPECT_TRUE(is_transient_code(CURLE_OPERATION_TIMEDOUT));  // 28
  EXPECT_TRUE(is_transient_code(CURLE_SEND_ERROR));          // 55
  EXPECT_TRUE(is_transient_code(CURLE_RECV_ERROR));          // 56
}

TEST(IsTransientCode, RejectsEveryOtherCode) {
  int transient = 0;
  for (int code = 0; code < CURL_LAST; ++code)
    if (is_transient_code(static_cast<CURLcode>(code))) ++transient;
  EXPECT_EQ(transient, 5);
  EXPECT_FALSE(is_transient_code(CURLE_LOGIN_DENIED));
  EXPECT_FALSE(is_transient_code(CURLE_COULDNT_RESOLVE_HOST));
  EXPECT_FALSE(is_transient_code(CURLE_QUOTE_ERROR));
}

TEST(IsTransientReply, AcceptsTheTransientNegativeReplyClass) {
  EXPECT_TRUE(is_transient_reply(400));
  EXPECT_TRUE(is_transient_reply(421));
  EXPECT_TRUE(is_transient_reply(450));
  EXPECT_TRUE(is_transient_reply(499));
}

TEST(IsTransientReply, RejectsOtherReplies) {
  EXPECT_FALSE(is_transient_reply(0));
  EXPECT_FALSE(is_transient_reply(399));
  EXPECT_FALSE(is_transient_reply(500));
  EXPECT_FALSE(is_transient_reply(530));
  EXPECT_FALSE(is_transient_reply(550));
}

TEST(RetryWait, GrowsByTheStepForEachRetryMade) {
  EXPECT_EQ(retry_wait(1, 0, 0), 0u);
  EXPECT_EQ(retry_wait(1, 0, 1), 1u);
  EXPECT_EQ(retry_wait(1, 0, 2), 2u);
  EXPECT_EQ(retry_wait(1, 0, 3), 3u);
}

TEST(RetryWait, IsConstantWithoutAStep) {
  EXPECT_EQ(retry_wait(0, 5, 0), 5u);
  EXPECT_EQ(retry_wait(0, 5, 7), 5u);
  EXPECT_EQ(retry_wait(0, 0, 9), 0u);
}

TEST(RetryWait, UsesUnsigned64BitArithmetic) {
  EXPECT_EQ(retry_wait(UINT64_MAX, 2, 1), 1u);
}

}  // namespace
