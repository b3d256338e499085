#include "command/harness_failure.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

void harness_failure(const char* what, int error) {
  std::fprintf(stderr, "fuzz harness: %s: %s (errno %d)\n", what,
               std::strerror(error), error);
  std::fflush(stderr);
  _exit(kHarnessFailureStatus);
}
