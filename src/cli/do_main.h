// The command-line front end.
//
// Parses the command line in two passes (first the command switches, then the
// options of the one chosen command), prints help, switches to the local user
// named by --local-user, takes missing credentials from FTP_LOGIN and
// FTP_PASSWORD, and calls the command's handler. Every failure leaves as an
// exception: the option library's errors and std::logic_error for command-line
// mistakes, torvane::TorvaneUtilException for the handlers' own failures.

#ifndef BRINDLE_CLI_DO_MAIN_H_
#define BRINDLE_CLI_DO_MAIN_H_

int do_main(int argc, char** argv);

#endif  // BRINDLE_CLI_DO_MAIN_H_
