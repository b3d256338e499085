#include "util/traceback.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace traceback_test {

// Not inlined and not local, so that it shows by name in a traceback of the
// test binary (which exports its symbols).
__attribute__((noinline)) std::string print_from_named_function();

}  // namespace traceback_test

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string printed(const torvane::Traceback& traceback) {
  std::ostringstream out;
  print_traceback(out, traceback);
  return out.str();
}

TEST(Traceback, CapturesAtMostElevenFrames) {
  const torvane::Traceback traceback(0);
  EXPECT_GT(traceback.frame_count(), 0u);
  EXPECT_LE(traceback.frame_count(), 11u);
}

TEST(Traceback, PrintsOneTabIndentedLinePerFrame) {
  const torvane::Traceback traceback(0);
  const auto lines = lines_of(printed(traceback));
  ASSERT_EQ(lines.size(), traceback.frame_count() + 1);
  EXPECT_EQ(lines[0], "Traceback:");
  for (std::size_t i = 1; i < lines.size(); ++i)
    EXPECT_THAT(lines[i], StartsWith("\t"));
}

TEST(Traceback, DemanglesFunctionNames) {
  const std::string text = traceback_test::print_from_named_function();
  EXPECT_THAT(text, StartsWith("Traceback:\n"));
  EXPECT_THAT(
      text,
      HasSubstr("(traceback_test::print_from_named_function[abi:cxx11]()+0x"));
  EXPECT_THAT(text, ::testing::Not(HasSubstr("(_Z")));
}

TEST(FrameDemangler, DemanglesTheNameBetweenParenthesisAndPlus) {
  torvane::FrameDemangler demangler;
  EXPECT_EQ(demangler.line("./prog(_ZN1a1bEv+0x12) [0x4005d2]"),
            "./prog(a::b()+0x12) [0x4005d2]");
  EXPECT_EQ(
      demangler.line("./prog(_ZN9long_name15with_many_partsEi+0x1) [0x1]"),
      "./prog(long_name::with_many_parts(int)+0x1) [0x1]");
  EXPECT_EQ(demangler.line("./prog(_Z1fv+0x2) [0x2]"), "./prog(f()+0x2) [0x2]");
}

TEST(FrameDemangler, KeepsLinesWithoutADemanglableName) {
  torvane::FrameDemangler demangler;
  EXPECT_EQ(demangler.line("[0x4005d2]"), "[0x4005d2]");
  EXPECT_EQ(demangler.line("./prog(+0x12) [0x4005d2]"),
            "./prog(+0x12) [0x4005d2]");
  EXPECT_EQ(demangler.line("./prog(main+0x12) [0x1]"),
            "./prog(main+0x12) [0x1]");
  EXPECT_EQ(demangler.line("./prog(_ZN1a1bEv) [0x1]"),
            "./prog(_ZN1a1bEv) [0x1]");
  EXPECT_EQ(demangler.line("./prog+0x1(x) [0x1]"), "./prog+0x1(x) [0x1]");
}

TEST(Traceback, SkipsTheRequestedLeadingFrames) {
  const torvane::Traceback all(0);
  const torvane::Traceback skipped(2);
  EXPECT_EQ(skipped.frames_to_skip(), 2u);
  EXPECT_EQ(lines_of(printed(skipped)).size() + 2, skipped.frame_count() + 1);
}

TEST(Traceback, PrintsOnlyTheHeaderWhenEveryFrameIsSkipped) {
  const torvane::Traceback probe(0);
  const torvane::Traceback traceback(probe.frame_count());
  ASSERT_EQ(traceback.frames_to_skip(), traceback.frame_count());
  EXPECT_EQ(printed(traceback), "Traceback addresses:\n");
}

TEST(Traceback, LowersASkipCountLargerThanTheFramesCaptured) {
  const torvane::Traceback traceback(1000);
  EXPECT_EQ(traceback.frames_to_skip(), traceback.frame_count());
  EXPECT_EQ(printed(traceback), "Traceback addresses:\n");
}

TEST(Traceback, PrintsTheSameLinesTwice) {
  const torvane::Traceback traceback(1);
  EXPECT_EQ(printed(traceback), printed(traceback));
}

}  // namespace

namespace traceback_test {

std::string print_from_named_function() {
  const torvane::Traceback traceback(0);
  return printed(traceback);
}

}  // namespace traceback_test
