// The report of an unexpected exception, written to torvane::error_stream:
// "Fatal error: <demangled type name>(<what()>)" and a line feed, then the
// stack when the exception also derives from torvane::Traceback.

#ifndef BRINDLE_CLI_FATAL_ERROR_H_
#define BRINDLE_CLI_FATAL_ERROR_H_

#include <exception>

void report_fatal_error(const std::exception& error);

#endif  // BRINDLE_CLI_FATAL_ERROR_H_
