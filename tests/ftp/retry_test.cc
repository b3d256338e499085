#include "ftp/retry.h"

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;

// Runs run_with_retries over scripted attempt results and response codes and
// records everything the loop does, in order: "attempt", "response" (a read
// of the response code) and "sleep N".
class RetryScript {
 public:
  RetryScript(std::uint64_t retries, std::uint64_t delay, std::uint64_t step) {
    settings_.retries = retries;
    settings_.retry_delay = delay;
    settings_.retry_delay_step = step;
  }

  // Results of the attempts in order; the last one repeats.
  RetryScript& results(std::deque<CURLcode> codes) {
    results_ = std::move(codes);
    return *this;
  }
  // The response code that every read gives.
  RetryScript& response(long code) {
    response_ = code;
    return *this;
  }

  CURLcode run() {
    return run_with_retries(
        settings_,
        [this] {
          events_.emplace_back("attempt");
          const CURLcode code = results_.front();
          if (results_.size() > 1) results_.pop_front();
          return code;
        },
        [this] {
          events_.emplace_back("response");
          return response_;
        },
        [this](unsigned int seconds) {
          events_.push_back("sleep " + std::to_string(seconds));
        });
  }

  const std::vector<std::string>& events() const { return events_; }

 private:
  FtpSettings settings_;
  std::deque<CURLcode> results_{CURLE_COULDNT_CONNECT};
  long response_ = 0;
  std::vector<std::string> events_;
};

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

TEST(RunWithRetries, MakesOneAttemptAndReadsNothingWithoutRetries) {
  RetryScript script(0, 0, 1);
  EXPECT_EQ(script.results({CURLE_COULDNT_CONNECT}).run(),
            CURLE_COULDNT_CONNECT);
  EXPECT_THAT(script.events(), ElementsAre("attempt"));

  RetryScript permanent(0, 0, 1);
  EXPECT_EQ(permanent.results({CURLE_LOGIN_DENIED}).response(450).run(),
            CURLE_LOGIN_DENIED);
  EXPECT_THAT(permanent.events(), ElementsAre("attempt"));
}

TEST(RunWithRetries, ReturnsAtOnceOnSuccess) {
  RetryScript script(3, 5, 1);
  EXPECT_EQ(script.results({CURLE_OK}).run(), CURLE_OK);
  EXPECT_THAT(script.events(), ElementsAre("attempt"));
}

TEST(RunWithRetries, RetriesWithoutSleepingWhenTheWaitIsZero) {
  RetryScript script(3, 0, 0);
  EXPECT_EQ(script.run(), CURLE_COULDNT_CONNECT);
  EXPECT_THAT(script.events(),
              ElementsAre("attempt", "attempt", "attempt", "attempt"));
}

TEST(RunWithRetries, GrowsTheWaitByTheStepFromNoWaitAtFirst) {
  RetryScript script(4, 0, 1);
  EXPECT_EQ(script.run(), CURLE_COULDNT_CONNECT);
  EXPECT_THAT(script.events(),
              ElementsAre("attempt", "attempt", "sleep 1", "attempt", "sleep 2",
                          "attempt", "sleep 3", "attempt"));
}

TEST(RunWithRetries, AddsTheDelayToEveryGrowingWait) {
  RetryScript script(3, 1, 2);
  EXPECT_EQ(script.results({CURLE_RECV_ERROR}).run(), CURLE_RECV_ERROR);
  EXPECT_THAT(script.events(),
              ElementsAre("attempt", "sleep 1", "attempt", "sleep 3", "attempt",
                          "sleep 5", "attempt"));
}

TEST(RunWithRetries, WaitsTheDelayBeforeEveryRetryWithoutAStep) {
  RetryScript script(3, 5, 0);
  EXPECT_EQ(script.results({CURLE_OPERATION_TIMEDOUT}).run(),
            CURLE_OPERATION_TIMEDOUT);
  EXPECT_THAT(script.events(),
              ElementsAre("attempt", "sleep 5", "attempt", "sleep 5", "attempt",
                          "sleep 5", "attempt"));
}

TEST(RunWithRetries, HandsTheWaitToSleepAsTheUnsignedCountItTakes) {
  RetryScript script(1, (std::uint64_t{1} << 32) + 7, 0);
  script.run();
  EXPECT_THAT(script.events(), ElementsAre("attempt", "sleep 7", "attempt"));
}

TEST(RunWithRetries, StopsRetryingAtTheFirstSuccess) {
  RetryScript script(5, 0, 1);
  EXPECT_EQ(
      script.results({CURLE_SEND_ERROR, CURLE_SEND_ERROR, CURLE_OK}).run(),
      CURLE_OK);
  EXPECT_THAT(script.events(),
              ElementsAre("attempt", "attempt", "sleep 1", "attempt"));
}

TEST(RunWithRetries, FailsAtOnceOnAPermanentError) {
  RetryScript script(3, 0, 1);
  EXPECT_EQ(script.results({CURLE_LOGIN_DENIED}).response(530).run(),
            CURLE_LOGIN_DENIED);
  EXPECT_THAT(script.events(), ElementsAre("attempt", "response"));
}

TEST(RunWithRetries, FailsAtOnceOnAPermanentErrorAfterATransientOne) {
  RetryScript script(3, 0, 0);
  EXPECT_EQ(script.results({CURLE_COULDNT_CONNECT, CURLE_QUOTE_ERROR})
                .response(550)
                .run(),
            CURLE_QUOTE_ERROR);
  EXPECT_THAT(script.events(), ElementsAre("attempt", "attempt", "response"));
}

TEST(RunWithRetries, RetriesAPermanentCodeAfterATransientReply) {
  RetryScript script(2, 0, 1);
  EXPECT_EQ(script.results({CURLE_REMOTE_ACCESS_DENIED}).response(450).run(),
            CURLE_REMOTE_ACCESS_DENIED);
  EXPECT_THAT(script.events(), ElementsAre("attempt", "response", "attempt",
                                           "response", "sleep 1", "attempt"));
}

TEST(RunWithRetries, ReadsNoResponseForATransientCode) {
  RetryScript script(2, 0, 0);
  script.results({CURLE_COULDNT_CONNECT}).response(530).run();
  EXPECT_THAT(script.events(), ElementsAre("attempt", "attempt", "attempt"));
}

}  // namespace
