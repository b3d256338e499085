#include "util/traceback.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
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
  // Both tracebacks are taken at the same call site, so they hold the same
  // frames; only what is printed of them differs.
  std::vector<std::vector<std::string>> lines;
  std::vector<std::uint64_t> skips;
  for (const std::uint64_t skip : {0u, 2u}) {
    const torvane::Traceback traceback(skip);
    skips.push_back(traceback.frames_to_skip());
    lines.push_back(lines_of(printed(traceback)));
  }
  const auto& all = lines[0];
  const auto& skipped = lines[1];
  EXPECT_EQ(skips, (std::vector<std::uint64_t>{0, 2}));
  ASSERT_GE(skipped.size(), 2u);
  ASSERT_EQ(skipped.size() + 2, all.size());
  EXPECT_EQ(skipped[0], "Traceback:");
  EXPECT_EQ(std::vector<std::string>(skipped.begin() + 1, skipped.end()),
            std::vector<std::string>(all.begin() + 3, all.end()));
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
  // The symbols are looked up on the first print and kept for the second.
  const torvane::Traceback traceback(1);
  const std::string first = printed(traceback);
  const std::string second = printed(traceback);
  ASSERT_EQ(lines_of(first).size(), traceback.frame_count());
  EXPECT_THAT(first, StartsWith("Traceback:\n\t"));
  EXPECT_EQ(second, first);
}

}  // namespace

namespace traceback_test {

std::string print_from_named_function() {
  const torvane::Traceback traceback(0);
  return printed(traceback);
}

}  // namespace traceback_test
