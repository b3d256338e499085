// The connection settings of one run, filled from the command line.

#ifndef BRINDLE_FTP_FTP_SETTINGS_H_
#define BRINDLE_FTP_FTP_SETTINGS_H_

#include <cstdint>
#include <string>

struct FtpSettings {
  std::string host;                    // inserted into request URLs as given
  std::uint16_t port = 21;             // control port
  std::string login;                   // user name, handed over even when empty
  std::string password;                // password, handed over even when empty
  bool passive_mode = true;            // false: active data connections
  std::uint64_t retries = 0;           // retries of a failed request
  std::uint64_t retry_delay = 0;       // fixed seconds before each retry
  std::uint64_t retry_delay_step = 1;  // seconds added per retry made so far
};

#endif  // BRINDLE_FTP_FTP_SETTINGS_H_
