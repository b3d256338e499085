// The connection settings of one run, filled from the command line.

#ifndef BRINDLE_FTP_FTP_SETTINGS_H_
#define BRINDLE_FTP_FTP_SETTINGS_H_

#include <cstdint>
#include <string>
#include <type_traits>

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

// The fields stay in the order above, which is the order in which the
// settings are documented. Designated initialisers must name fields in
// declaration order, so this stops compiling when a field moves; a record
// built by aggregate initialisation should name its fields the same way.
static_assert(std::is_same_v<decltype(FtpSettings{.host = {},
                                                  .port = {},
                                                  .login = {},
                                                  .password = {},
                                                  .passive_mode = {},
                                                  .retries = {},
                                                  .retry_delay = {},
                                                  .retry_delay_step = {}}),
                             FtpSettings>,
              "FtpSettings declares its fields in the documented order");

#endif  // BRINDLE_FTP_FTP_SETTINGS_H_
