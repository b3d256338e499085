// An FTP server inside the fuzzer's process, on 127.0.0.1, whose tree,
// listings and failures come from a scenario. Each control connection is
// served by a thread of its own; transfers are passive (EPSV, PASV).
//
// Every command goes past a CommandWatch first. The server bounds its own
// work: after the scenario's budget of commands it hangs up on every
// connection, so whatever a client does, the run ends; it serves a few
// connections at once at most, and joins the thread of each that ends. The
// destructor closes every connection and listener and joins every thread:
// nothing of the server outlives it. Its listeners reuse the ports of the
// process's earlier ones, and a connection that the client closed first is
// reset (fake_ftp_server.cc says why): however many inputs a fuzzer runs,
// it takes no more than a few ports. A socket or thread that cannot be set
// up is a harness failure (harness_failure.h).

#ifndef BRINDLE_TESTS_FUZZ_COMMAND_FAKE_FTP_SERVER_H_
#define BRINDLE_TESTS_FUZZ_COMMAND_FAKE_FTP_SERVER_H_

#include <atomic>
#include <cstdint>
#include <list>
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
  // Every command line received, in order, each followed by the server's
  // reply ("  -> 250 deleted"), for the report of a violation.
  std::vector<std::string> commands() const;
  // The server's tree as the commands left it.
  ServerTree tree() const;

 private:
  class Session;
  struct SessionThread {
    std::thread thread;
    bool ended = false;  // under mutex_
  };

  void accept_connections();
  // Serves the `connection`th control connection; sets `ended` last.
  void serve(int control, std::uint64_t connection, bool& ended);
  void track(int descriptor);
  void untrack(int descriptor);

  const Scenario& scenario_;
  CommandWatch& watch_;
  ServerTree tree_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;       // everything below, the tree and the watch
  std::uint64_t received_ = 0;     // commands, over all connections
  std::uint64_t connections_ = 0;  // control connections accepted
  std::vector<std::string> log_;
  std::set<int> open_;
  std::list<SessionThread> sessions_;
  std::thread acceptor_;
};

#endif  // BRINDLE_TESTS_FUZZ_COMMAND_FAKE_FTP_SERVER_H_
