// The transfer callbacks of listings, downloads, uploads and removals.

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "listing/remote_listing.h"
#include "ops/remove.h"
#include "ops/skip_line.h"
#include "ops/upload.h"
#include "support/captured_output.h"

namespace {

TEST(WriteToStream, WritesTheWholeBlockAndReportsItConsumed) {
  std::ostringstream sink;
  char data[] = "abc\0def";
  EXPECT_EQ(write_to_stream(data, 1, 7, &sink), 7u);
  EXPECT_EQ(write_to_stream(data, 7, 1, &sink), 7u);
  EXPECT_EQ(sink.str(), std::string("abc\0defabc\0def", 14));
}

TEST(WriteToStream, ReportsTheBlockConsumedWhateverTheStreamState) {
  std::ostringstream sink;
  sink.setstate(std::ios::badbit);
  char data[] = "xyz";
  EXPECT_EQ(write_to_stream(data, 1, 3, &sink), 3u);
}

TEST(ReadFromStream, ReadsUpToTheBufferSizeThenZeroAtTheEnd) {
  std::istringstream source(std::string("0123456789", 10));
  char buffer[4];
  EXPECT_EQ(read_from_stream(buffer, 1, 4, &source), 4u);
  EXPECT_EQ(std::string(buffer, 4), "0123");
  EXPECT_EQ(read_from_stream(buffer, 2, 2, &source), 4u);
  EXPECT_EQ(std::string(buffer, 4), "4567");
  EXPECT_EQ(read_from_stream(buffer, 1, 4, &source), 2u);
  EXPECT_EQ(std::string(buffer, 2), "89");
  EXPECT_EQ(read_from_stream(buffer, 1, 4, &source), 0u);
}

TEST(DiscardBody, ConsumesEverything) {
  char data[] = "ignored";
  EXPECT_EQ(discard_body(data, 3, 5, nullptr), 15u);
}

TEST(SkipLine, QuotesThePathWithTheStandardInserter) {
  CapturedOutput captured;
  print_skip_line("/pub/link", "symbolic links aren't allowed");
  print_skip_line(R"(a "q"\b)", "unsupported file type");
  EXPECT_EQ(captured.out(),
            "skip '\"/pub/link\"': symbolic links aren't allowed\n"
            "skip '\"a \\\"q\\\"\\\\b\"': unsupported file type\n");
  EXPECT_EQ(captured.err(), "");
}

}  // namespace
