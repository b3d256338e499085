// An output stream for error reports that shows on both output channels.
//
// Every character written reaches standard error at once; at each flush the
// text written since the previous flush is repeated on standard output as one
// block. Text never flushed is delivered to standard output when the stream
// is destroyed, which for torvane::error_stream is at process exit (also when
// the process ends through exit()).

#ifndef BRINDLE_UTIL_ERROR_STREAM_H_
#define BRINDLE_UTIL_ERROR_STREAM_H_

#include <ostream>
#include <streambuf>
#include <string>

namespace torvane {

// Stream buffer without put area: every character goes through overflow().
class UtilityErrorStreamBuf : public std::streambuf {
 public:
  UtilityErrorStreamBuf() = default;
  UtilityErrorStreamBuf(const UtilityErrorStreamBuf&) = delete;
  UtilityErrorStreamBuf& operator=(const UtilityErrorStreamBuf&) = delete;
  ~UtilityErrorStreamBuf() override;

 protected:
  // Flushes standard error, copies the pending text to standard output and
  // flushes it. Always returns 0.
  int sync() override;

  // Writes c to standard error and remembers it for the next sync().
  // Returns c; end-of-file is returned unchanged and writes nothing.
  int_type overflow(int_type c) override;

 private:
  void deliver_pending();

  std::string pending_;
};

class UtilityErrorStream : public std::ostream {
 public:
  UtilityErrorStream();
  ~UtilityErrorStream() override = default;

 private:
  UtilityErrorStreamBuf buffer_;
};

// The process-wide error stream, alive from static initialisation to exit.
extern UtilityErrorStream error_stream;

}  // namespace torvane

#endif  // BRINDLE_UTIL_ERROR_STREAM_H_
