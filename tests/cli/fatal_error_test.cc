#include "cli/fatal_error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "support/captured_output.h"
#include "util/error_stream.h"
#include "util/traceback.h"

namespace {

using ::testing::MatchesRegex;

std::string report_of(const std::exception& error) {
  CapturedOutput captured;
  report_fatal_error(error);
  EXPECT_EQ(captured.out(), captured.err());  // both channels, same text
  return captured.err();
}

// A standard exception whose what() is a null pointer.
class NullMessage : public std::exception {
 public:
  const char* what() const noexcept override { return nullptr; }
};

// An exception that also carries a traceback.
class TracedError : public std::runtime_error, public torvane::Traceback {
 public:
  TracedError() : std::runtime_error("traced"), torvane::Traceback(0) {}
};

TEST(ReportFatalError, NamesTheDynamicTypeAndTheMessage) {
  EXPECT_EQ(report_of(std::runtime_error("disk on fire")),
            "Fatal error: std::runtime_error(disk on fire)\n");
  const std::exception& base = std::out_of_range("index 3");
  EXPECT_EQ(report_of(base), "Fatal error: std::out_of_range(index 3)\n");
}

TEST(ReportFatalError, ShowsNamespacesOfLibraryTypes) {
  const std::filesystem::filesystem_error error(
      "status", "/x", std::make_error_code(std::errc::permission_denied));
  EXPECT_EQ(report_of(error),
            "Fatal error: std::filesystem::__cxx11::filesystem_error("
            "filesystem error: status: Permission denied [/x])\n");
}

TEST(ReportFatalError, StopsWritingAtANullMessage) {
  CapturedOutput captured;
  report_fatal_error(NullMessage());
  EXPECT_EQ(captured.err(), "Fatal error: (anonymous namespace)::NullMessage(");
  EXPECT_TRUE(torvane::error_stream.bad());
  torvane::error_stream.clear();
  torvane::error_stream.flush();
}

TEST(ReportFatalError, PrintsTheTracebackOfATracedException) {
  const std::string report = report_of(TracedError());
  EXPECT_THAT(report, MatchesRegex("Fatal error: \\(anonymous namespace\\)::"
                                   "TracedError\\(traced\\)\n"
                                   "Traceback:\n(\t[^\n]*\n)+"));
}

}  // namespace
