// Runs a piece of code in a forked child with its standard output and
// standard error captured, for tests of code that ends the process or that
// writes to the process-wide streams at exit.

#ifndef BRINDLE_TESTS_SUPPORT_CHILD_PROCESS_H_
#define BRINDLE_TESTS_SUPPORT_CHILD_PROCESS_H_

#include <functional>
#include <string>

struct ChildResult {
  int exit_status = -1;  // -1 when the child did not exit normally
  std::string out;       // what it wrote to standard output
  std::string err;       // what it wrote to standard error
};

// Forks, runs `body` in the child and ends the child with exit(0) if `body`
// returns; exit() runs the destructors of static objects as a return from
// main() would.
ChildResult run_in_child(const std::function<void()>& body);

#endif  // BRINDLE_TESTS_SUPPORT_CHILD_PROCESS_H_
