#include "cli/fatal_error.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "util/error_stream.h"
#include "util/traceback.h"

void report_fatal_error(const std::exception& error) {
  const char* name = typeid(error).name();
  if (*name == '*') ++name;

  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);

  auto& out = torvane::error_stream;
  out << "Fatal error: " << (status == 0 && demangled ? demangled.get() : name);
  // A null what() sets the stream's bad bit, like any null C string written
  // to a standard stream, and nothing more reaches that stream.
  out << "(" << error.what() << ")" << std::endl;
  demangled.reset();

  if (const auto* traceback = dynamic_cast<const torvane::Traceback*>(&error))
    torvane::print_traceback(out, *traceback);
}
