#include "util/error_stream.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/captured_output.h"
#include "support/child_process.h"
#include "util/torvane_util_exception.h"

namespace {

TEST(UtilityErrorStream, WritesToStandardErrorAtOnceAndToOutputAtFlush) {
  CapturedOutput captured;
  torvane::UtilityErrorStream stream;
  stream << "abc";
  EXPECT_EQ(captured.err(), "abc");
  EXPECT_EQ(captured.out(), "");
  stream.flush();
  EXPECT_EQ(captured.out(), "abc");
  EXPECT_EQ(captured.err(), "abc");
}

TEST(UtilityErrorStream, RepeatsEachFlushedBlockInOrder) {
  CapturedOutput captured;
  torvane::UtilityErrorStream stream;
  stream << "first line" << std::endl;
  std::cout << "between\n";
  stream << "second" << ' ' << 2 << std::endl;
  EXPECT_EQ(captured.err(), "first line\nsecond 2\n");
  EXPECT_EQ(captured.out(), "first line\nbetween\nsecond 2\n");
}

TEST(UtilityErrorStream, DeliversPendingTextWhenDestroyed) {
  CapturedOutput captured;
  {
    torvane::UtilityErrorStream stream;
    stream << "pending";
    EXPECT_EQ(captured.out(), "");
  }
  EXPECT_EQ(captured.out(), "pending");
}

TEST(UtilityErrorStream, AFlushWithNothingPendingAddsNothing) {
  CapturedOutput captured;
  torvane::UtilityErrorStream stream;
  stream << "x" << std::flush << std::flush;
  EXPECT_EQ(captured.out(), "x");
}

// Exposes the buffer's protected operations.
struct OpenErrorStreamBuf : torvane::UtilityErrorStreamBuf {
  using UtilityErrorStreamBuf::overflow;
  using UtilityErrorStreamBuf::sync;
};

TEST(UtilityErrorStreamBuf, EchoesEndOfFileAndWritesNothing) {
  using Traits = std::char_traits<char>;
  CapturedOutput captured;
  OpenErrorStreamBuf buffer;
  EXPECT_TRUE(
      Traits::eq_int_type(buffer.overflow(Traits::eof()), Traits::eof()));
  EXPECT_EQ(buffer.overflow('a'), 'a');
  EXPECT_EQ(buffer.sync(), 0);
  EXPECT_EQ(buffer.sync(), 0);
  EXPECT_EQ(captured.err(), "a");
  EXPECT_EQ(captured.out(), "a");
}

TEST(ProcessErrorStream, DeliversUnflushedTextAtExit) {
  const ChildResult result = run_in_child([] {
    torvane::error_stream << "written, never flushed";
    std::exit(3);
  });
  EXPECT_EQ(result.exit_status, 3);
  EXPECT_EQ(result.err, "written, never flushed");
  EXPECT_EQ(result.out, "written, never flushed");
}

TEST(ProcessErrorStream, KeepsOrderWithOtherStandardOutputLines) {
  const ChildResult result = run_in_child([] {
    std::cout << "result line" << std::endl;
    torvane::error_stream << "error line" << std::endl;
    std::cout << "after" << std::endl;
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "result line\nerror line\nafter\n");
  EXPECT_EQ(result.err, "error line\n");
}

TEST(TorvaneUtilException, CarriesItsMessageByteForByte) {
  const std::string message("Unable to x 'a\tb\xff'\n", 19);
  const torvane::TorvaneUtilException error(message);
  EXPECT_EQ(std::string(error.what()), message);
  const std::runtime_error& base = error;
  EXPECT_EQ(std::string(base.what()), message);
}

}  // namespace
