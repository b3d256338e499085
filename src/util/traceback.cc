#include "util/traceback.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <string>

namespace torvane {

Traceback::Traceback(std::uint64_t frames_to_skip)
    : frames_to_skip_(frames_to_skip) {
  const int captured = backtrace(frames_, static_cast<int>(kMaxFrames));
  frame_count_ = captured < 0 ? 0 : static_cast<std::uint64_t>(captured);
  if (frame_count_ < frames_to_skip_) frames_to_skip_ = frame_count_;
}

Traceback::~Traceback() { std::free(symbols_); }

FrameDemangler::~FrameDemangler() { std::free(buffer_); }

std::string FrameDemangler::line(const char* symbol) {
  std::string line(symbol);
  const auto open = line.find('(');
  if (open == std::string::npos) return line;
  const auto plus = line.find('+', open + 1);
  if (plus == std::string::npos || plus == open + 1) return line;

  const std::string mangled = line.substr(open + 1, plus - open - 1);
  int status = 0;
  char* demangled =
      abi::__cxa_demangle(mangled.c_str(), buffer_, &length_, &status);
  if (demangled == nullptr || status != 0) return line;
  buffer_ = demangled;  // possibly moved by the demangler's realloc
  return line.substr(0, open + 1) + demangled + line.substr(plus);
}

std::ostream& print_traceback(std::ostream& out, const Traceback& traceback) {
  const auto count = traceback.frame_count_;
  const auto skip = traceback.frames_to_skip_;
  if (traceback.symbols_ == nullptr) {
    std::free(traceback.symbols_);
    traceback.symbols_ =
        backtrace_symbols(traceback.frames_, static_cast<int>(count));
  }

  if (traceback.symbols_ == nullptr || skip >= count) {
    out << "Traceback addresses:" << std::endl;
    for (auto i = skip; i < count; ++i)
      out << "\t" << traceback.frames_[i] << std::endl;
    return out;
  }

  out << "Traceback:" << std::endl;
  FrameDemangler demangler;
  for (auto i = skip; i < count; ++i)
    out << "\t" << demangler.line(traceback.symbols_[i]) << std::endl;
  return out;
}

}  // namespace torvane
