#include "support/child_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

ChildResult run_in_child(const std::function<void()>& body) {
  char out_name[] = "/tmp/brindle-child-out-XXXXXX";
  char err_name[] = "/tmp/brindle-child-err-XXXXXX";
  const int out_fd = mkstemp(out_name);
  const int err_fd = mkstemp(err_name);

  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out_fd, STDOUT_FILENO);
    dup2(err_fd, STDERR_FILENO);
    body();
    std::exit(0);
  }

  ChildResult result;
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.exit_status = WEXITSTATUS(status);
  result.out = read_file(out_name);
  result.err = read_file(err_name);
  close(out_fd);
  close(err_fd);
  unlink(out_name);
  unlink(err_name);
  return result;
}
