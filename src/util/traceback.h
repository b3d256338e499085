// A call stack captured at construction, printable later.
//
// Meant as an additional base class of exception types: the fatal-error
// printer checks whether an exception is also a Traceback and, if so, prints
// the stack after the error line. Up to kMaxFrames return addresses are kept,
// innermost (the constructor itself) first.

#ifndef BRINDLE_UTIL_TRACEBACK_H_
#define BRINDLE_UTIL_TRACEBACK_H_

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

namespace torvane {

class Traceback {
 public:
  static constexpr std::uint64_t kMaxFrames = 11;

  // Captures the stack; the first frames_to_skip frames are left out when
  // printing (lowered to the number of frames captured).
  explicit Traceback(std::uint64_t frames_to_skip);
  Traceback(const Traceback&) = delete;
  Traceback& operator=(const Traceback&) = delete;
  virtual ~Traceback();

  std::uint64_t frame_count() const { return frame_count_; }
  std::uint64_t frames_to_skip() const { return frames_to_skip_; }

 private:
  friend std::ostream& print_traceback(std::ostream& out,
                                       const Traceback& traceback);

  std::uint64_t frame_count_ = 0;
  std::uint64_t frames_to_skip_;
  void* frames_[kMaxFrames] = {};
  // Symbol descriptions from backtrace_symbols(), filled on first print and
  // released with free() by the destructor.
  mutable char** symbols_ = nullptr;
};

// Rewrites lines of backtrace_symbols(), such as
// "./prog(_ZN1a1bEv+0x12) [0x4005d2]", with the name between the first "("
// and the "+" after it demangled: "./prog(a::b()+0x12) [0x4005d2]". A line
// without such a name, or whose name does not demangle, stays as it is. One
// output buffer serves all lines of one demangler.
class FrameDemangler {
 public:
  FrameDemangler() = default;
  FrameDemangler(const FrameDemangler&) = delete;
  FrameDemangler& operator=(const FrameDemangler&) = delete;
  ~FrameDemangler();

  std::string line(const char* symbol);

 private:
  char* buffer_ = nullptr;  // from the demangler, released with free()
  std::size_t length_ = 0;
};

// Writes "Traceback:" and one tab-indented line per frame, with C++ names
// demangled where possible; without symbol information (or with every frame
// skipped) writes "Traceback addresses:" and the bare addresses instead.
// Every line ends with std::endl.
std::ostream& print_traceback(std::ostream& out, const Traceback& traceback);

}  // namespace torvane

#endif  // BRINDLE_UTIL_TRACEBACK_H_
