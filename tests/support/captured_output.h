// Redirects std::cout and std::cerr into strings for the lifetime of the
// object.

#ifndef BRINDLE_TESTS_SUPPORT_CAPTURED_OUTPUT_H_
#define BRINDLE_TESTS_SUPPORT_CAPTURED_OUTPUT_H_

#include <iostream>
#include <sstream>
#include <string>

class CapturedOutput {
 public:
  CapturedOutput()
      : old_out_(std::cout.rdbuf(out_.rdbuf())),
        old_err_(std::cerr.rdbuf(err_.rdbuf())) {}
  ~CapturedOutput() {
    std::cout.rdbuf(old_out_);
    std::cerr.rdbuf(old_err_);
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  std::string out() const { return out_.str(); }
  std::string err() const { return err_.str(); }

 private:
  std::stringstream out_;
  std::stringstream err_;
  std::streambuf* old_out_;
  std::streambuf* old_err_;
};

#endif  // BRINDLE_TESTS_SUPPORT_CAPTURED_OUTPUT_H_
