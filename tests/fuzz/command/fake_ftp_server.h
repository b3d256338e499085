// An FTP server inside the fuzzer's process, on 127.0.0.1, whose tree,
// listings and failures come from a scenario. Each control connection is
// served by a thread of its own; transfers are passive (EPSV, PASV).
//
// Every command goes past a CommandWatch first. The server bounds its own
// work: after the scenario's budget of commands it hangs up on every
// connection, so whatever a client does, the run ends. The destructor
// closes every connection and joins every thread.

#ifndef BRINDLE_TESTS_FUZZ_COMMAND_FAKE_FTP_SERVER_H_
#define BRINDLE_TESTS_FUZZ_COMMAND_FAKE_FTP_SERVER_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "command/command_watch.h"
#include "command/scenario.h"
#include "command/server_tree.h"

class FakeFtpServer {
 public:
  FakeFtpServer(const Scenario& scenario, CommandWatch& watch);
  ~FakeFtpServer();
  FakeFtpServer(const FakeFtpServer&) = delete;
  FakeFtpServer& operator=(const FakeFtpServer&) = delete;

  std::uint16_t port() const { return port_; }
  // Every command line received, in order, for the report of a violation.
  std::vector<std::string> commands() const;

 private:
  class Session;

  void accept_connections();
  void serve(int control);
  void track(int descriptor);
  void untrack(int descriptor);

  const Scenario& scenario_;
  CommandWatch& watch_;
  ServerTree tree_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;  // everything below, the tree and the watch
  std::uint64_t received_ = 0;
  std::vector<std::string> log_;
  std::set<int> open_;
  std::vector<std::thread> sessions_;
  std::thread acceptor_;
};

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_FAKE_FTP_SERVER_H_
