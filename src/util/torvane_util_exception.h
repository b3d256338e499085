// The exception that carries every failure meant for the user.
//
// Program code throws it with the complete, final message; main() prints
// that message as it stands and ends the run with status 1.

#ifndef BRINDLE_UTIL_TORVANE_UTIL_EXCEPTION_H_
#define BRINDLE_UTIL_TORVANE_UTIL_EXCEPTION_H_

#include <stdexcept>
#include <string>

namespace torvane {

class TorvaneUtilException : public std::runtime_error {
 public:
  explicit TorvaneUtilException(const std::string& message)
      : std::runtime_error(message) {}
};

}  // namespace torvane

#endif  // BRINDLE_UTIL_TORVANE_UTIL_EXCEPTION_H_
