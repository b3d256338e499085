// brindle: manages files on an FTP server, one command per run.

#include <exception>
#include <iostream>
#include <stdexcept>

#include "cli/do_main.h"
#include "cli/fatal_error.h"
#include "util/error_stream.h"
#include "util/torvane_util_exception.h"

int main(int argc, char** argv) {
  try {
    do_main(argc, argv);
  } catch (const torvane::TorvaneUtilException& error) {
    std::cerr << error.what() << std::endl;
    return 1;
  } catch (const std::logic_error& error) {
    std::cerr << error.what() << std::endl;
    std::cerr << "Try 'brindle --help' for more information" << std::endl;
    return 1;
  } catch (const std::exception& error) {
    report_fatal_error(error);
    return 1;
  } catch (...) {
    torvane::error_stream << "UNSPECIFIED ERROR OCCURED" << std::endl;
    return 2;
  }
  return 0;
}
