#include "command/fake_ftp_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <utility>

#include "command/harness_failure.h"

namespace {

constexpr std::size_t kMaxLine = 1 << 20;
constexpr std::size_t kMaxUpload = 1 << 20;
constexpr int kAcceptMillis = 2000;
// How long the server waits, after its reply to QUIT, for the client to
// close the connection.
constexpr int kQuitMillis = 1000;
// Control connections served at once; one more is hung up on. A client
// holds one at a time, and a retry's new connection may meet the old one
// still being noticed closed.
constexpr std::size_t kMaxSessions = 8;
// Ports that LoopbackPorts keeps for reuse: the control listener and one
// passive listener per session.
constexpr std::size_t kKeptPorts = kMaxSessions + 1;

// The ports of this process's listening sockets.
//
// A TCP connection leaves a socket in TIME_WAIT for a minute on the side
// that closes it first, and bind() to port 0 hands out only a port that no
// socket is on at all, TIME_WAIT included. The server closes every listing
// and download connection first, and it used to listen for each EPSV or
// PASV on a new port of the kernel's choice: two command fuzzers left some
// 500 such sockets a second, each on a port of its own, and within a minute
// or two the 28,232 ports of Linux's ephemeral range were all taken and
// bind() failed with EADDRINUSE. So a listener here takes a port that an
// earlier listener of this process had and that none has now, binding with
// SO_REUSEADDR, which Linux allows beside sockets in TIME_WAIT (never beside
// another listener); only when there is none does it take a new port from
// the kernel, and keeps that for later. The process then holds as many
// ports as it ever had listeners at once, whatever the number of inputs.
class LoopbackPorts {
 public:
  // A listening socket on 127.0.0.1 and its port.
  std::pair<int, std::uint16_t> listen() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = known_.begin(); it != known_.end();) {
      if (taken_.count(*it) > 0) {
        ++it;
        continue;
      }
      const int fd = listen_at(*it);
      if (fd >= 0) {
        taken_.insert(*it);
        return {fd, *it};
      }
      // Someone else's now: forget it.
      if (errno != EADDRINUSE) harness_failure("bind", errno);
      it = known_.erase(it);
    }
    const int fd = listen_at(0);
    if (fd < 0) harness_failure("bind", errno);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      harness_failure("getsockname", errno);
    const std::uint16_t port = ntohs(address.sin_port);
    if (known_.size() < kKeptPorts) known_.push_back(port);
    taken_.insert(port);
    return {fd, port};
  }

  // Closes a listener that listen() gave.
  void close_listener(int fd, std::uint16_t port) {
    close(fd);
    std::lock_guard<std::mutex> lock(mutex_);
    taken_.erase(port);
  }

 private:
  // A listener on `port` (0: the kernel's choice), or -1 with errno from a
  // bind() that failed.
  static int listen_at(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) harness_failure("socket", errno);
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
      harness_failure("setsockopt SO_REUSEADDR", errno);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      const int error = errno;
      close(fd);
      errno = error;
      return -1;
    }
    if (::listen(fd, 8) != 0) harness_failure("listen", errno);
    return fd;
  }

  std::mutex mutex_;
  std::vector<std::uint16_t> known_;
  std::set<std::uint16_t> taken_;
};

LoopbackPorts& loopback_ports() {
  static LoopbackPorts ports;
  return ports;
}

// Closes a connection whose peer has closed its end already (a read gave
// end of file): with SO_LINGER at zero the close resets the connection, and
// neither side keeps it. An orderly close would leave the peer's socket in
// TIME_WAIT for a minute, on a port of the kernel's choice, which bind() to
// port 0 could not have either. Everything the peer sent has been read.
void close_after_peer(int fd) {
  const linger abort{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  close(fd);
}

void send_all(int fd, const std::string& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t n =
        send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
}

// Waits for one connection on `listener` for `millis` (-1: until one comes
// or the listener is shut down); -1 when none came. A failure that leaves
// the server unable to take connections (no descriptors, no memory) is the
// harness's. Replies go out at once: a reply held back for the client's
// acknowledgement of the one before would cost every command a delayed-ACK
// wait.
int accept_within(int listener, int millis) {
  pollfd waiting{listener, POLLIN, 0};
  const int ready = poll(&waiting, 1, millis);
  if (ready < 0 && errno != EINTR) harness_failure("poll", errno);
  if (ready != 1) return -1;
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    // EINVAL: the listener was shut down; the others: the connection went.
    if (errno == EINVAL || errno == EAGAIN || errno == ECONNABORTED ||
        errno == EINTR || errno == EPROTO || errno == EPERM)
      return -1;
    harness_failure("accept", errno);
  }
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

// "ddd text" or "ddd" with a first digit of 2 to 5, on one line.
bool is_final_reply(const std::string& text) {
  if (text.size() < 3 || text.find_first_of("\r\n") != std::string::npos)
    return false;
  for (int i = 0; i < 3; ++i)
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  return text[0] >= '2' && text[0] <= '5' &&
         (text.size() == 3 || text[3] == ' ');
}

bool takes_path(const std::string& verb) {
  static const std::set<std::string> verbs = {
      "CWD", "LIST", "NLST", "RETR", "STOR", "APPE", "STOU", "DELE",
      "RMD", "MKD",  "SIZE", "MDTM", "RNFR", "RNTO", "XMKD", "XRMD"};
  return verbs.count(verb) > 0;
}

// LIST and NLST may carry "ls" options before the path.
std::string without_options(const std::string& argument) {
  if (argument.empty() || argument[0] != '-') return argument;
  const std::size_t blank = argument.find(' ');
  return blank == std::string::npos ? "" : argument.substr(blank + 1);
}

std::string quoted_directory(const std::string& directory,
                             const std::string& style) {
  if (style == "refused") return "550 PWD not allowed";
  if (style == "bare") return "257 " + directory + " is the current directory";
  if (style == "relative") return "257 \"QGPL\" is the current library";
  std::string text = directory;
  if (style == "trailing" && text != "/") text += "/";
  std::string doubled;
  for (const char c : text) {
    doubled += c;
    if (c == '"') doubled += '"';
  }
  return "257 \"" + doubled + "\" is the current directory";
}

}  // namespace

// One control connection: its directory, its passive listener, and the
// commands it receives.
class FakeFtpServer::Session {
 public:
  // `connection`: how many control connections the server had accepted,
  // this one included.
  Session(FakeFtpServer& server, int control, std::uint64_t connection)
      : server_(server), control_(control), connection_(connection) {}

  // How a connection ended: the client closed it first, or the server
  // hung up, or the client closed it after the reply to QUIT.
  enum class End { client_closed, server_closed, quit };

  // Serves commands until the connection ends.
  End run() {
    reply("220 fuzzed server ready");
    std::string line;
    while (read_line(line)) {
      if (handle(line)) continue;
      if (!quit_) return End::server_closed;
      // The client closes its end once it has the reply to QUIT; a server
      // that closed first would race it.
      pollfd waiting{control_, POLLIN, 0};
      char byte;
      return poll(&waiting, 1, kQuitMillis) == 1 &&
                     recv(control_, &byte, 1, 0) == 0
                 ? End::quit
                 : End::server_closed;
    }
    return peer_closed_ ? End::client_closed : End::server_closed;
  }

  // Called with the server's mutex held.
  void close_passive() {
    if (passive_ >= 0) {
      server_.untrack(passive_);
      loopback_ports().close_listener(passive_, passive_port_);
      passive_ = -1;
    }
  }

 private:
  // Sends a reply to the command at hand, which the watch and the log hear
  // of (all but the greeting); `injected` when a fault gives it.
  void reply(const std::string& text, bool injected = false) {
    if (!verb_.empty()) {
      server_.watch_.replied(verb_, path_, text, injected);
      server_.log_.push_back("  -> " + text.substr(0, text.find('\n')));
    }
    send_all(control_, text + "\r\n");
  }

  bool read_line(std::string& line) {
    for (;;) {
      const std::size_t end = pending_.find('\n');
      if (end != std::string::npos) {
        line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return true;
      }
      if (pending_.size() > kMaxLine) return false;
      char block[4096];
      const ssize_t n = recv(control_, block, sizeof block, 0);
      if (n == 0) peer_closed_ = true;
      if (n <= 0) return false;
      pending_.append(block, static_cast<std::size_t>(n));
    }
  }

  // The data connection of a transfer, or -1.
  int open_data() {
    if (passive_ < 0) return -1;
    const int data = accept_within(passive_, kAcceptMillis);
    close_passive();
    if (data >= 0) server_.track(data);
    return data;
  }

  // `peer_closed`: the client closed its end first.
  void close_data(int data, bool peer_closed) {
    server_.untrack(data);
    if (peer_closed)
      close_after_peer(data);
    else
      close(data);
  }

  // What a transfer that is cut halfway sends of `body`.
  static std::string half(const std::string& body) {
    return body.substr(0, body.size() / 2);
  }

  // Sends `body` on a data connection; `cut` stops halfway. False when no
  // data connection came.
  bool send_body(const std::string& body, bool cut) {
    const int data = open_data();
    if (data < 0) return false;
    send_all(data, cut ? half(body) : body);
    close_data(data, false);
    return true;
  }

  std::optional<std::string> receive_body() {
    const int data = open_data();
    if (data < 0) return {};
    std::string body;
    char block[16384];
    ssize_t n;
    while ((n = recv(data, block, sizeof block, 0)) > 0 &&
           body.size() < kMaxUpload)
      body.append(block, static_cast<std::size_t>(n));
    close_data(data, n == 0);
    return body;
  }

  // False when the connection is to end.
  bool handle(const std::string& line) {
    std::lock_guard<std::mutex> lock(server_.mutex_);
    server_.log_.push_back(line);
    ++commands_;
    const std::uint64_t number = ++server_.received_;
    if (number > server_.scenario_.budget) {
      server_.watch_.fault();
      return false;
    }
    const std::size_t blank = line.find(' ');
    verb_ = line.substr(0, blank);
    for (char& c : verb_)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const std::string argument =
        blank == std::string::npos ? "" : line.substr(blank + 1);
    path_.clear();
    if (takes_path(verb_)) {
      const std::string named = verb_ == "LIST" || verb_ == "NLST"
                                    ? without_options(argument)
                                    : argument;
      path_ = ServerTree::resolve(cwd_, named);
    }
    server_.watch_.received(verb_, argument, path_);

    bool cut = false;
    const ScenarioFault* fault = scheduled_fault();
    if (fault != nullptr) {
      server_.watch_.fault();
      switch (fault->action) {
        case ScenarioFault::Action::drop:
          return false;
        case ScenarioFault::Action::reply:
          close_passive();
          // A positive reply without a listing reads as an empty one.
          if (verb_ == "LIST")
            server_.watch_.listed(
                path_, "",
                is_final_reply(fault->reply) && fault->reply[0] == '2');
          reply(fault->reply, true);
          // Anything but a complete final reply would leave the client
          // waiting for one until its own timeout: hang up instead.
          return is_final_reply(fault->reply);
        case ScenarioFault::Action::cut:
          cut = true;
          break;
      }
    }
    return answer(verb_, argument, path_, cut);
  }

  // The fault for this command of this connection, if any. A fault's place
  // counts the commands of each control connection from 1, so that every
  // connection meets the same schedule: a remove that sends its batches on
  // fresh logins (relative paths) gets a fault at the same point of each
  // batch's session, a retry on a new connection meets it again, and "C:"
  // picks out one connection (the Cth the server accepted), for a fault
  // that a retry gets past. The watch's epoch, by which it allows a retry's
  // repetitions, still runs over the whole run: it counts every fault and
  // hang-up, on whichever connection.
  const ScenarioFault* scheduled_fault() const {
    const auto& faults = server_.scenario_.faults;
    for (const FaultPlace place :
         {FaultPlace{connection_, commands_}, FaultPlace{0, commands_}}) {
      const auto found = faults.find(place);
      if (found != faults.end()) return &found->second;
    }
    return nullptr;
  }

  bool answer(const std::string& verb, const std::string& argument,
              const std::string& path, bool cut) {
    ServerTree& tree = server_.tree_;
    const Scenario& scenario = server_.scenario_;
    if (verb == "USER") {
      reply("331 password please");
    } else if (verb == "PASS") {
      cwd_ = ServerTree::resolve("/", scenario.login_directory);
      reply("230 logged in");
    } else if (verb == "PWD" || verb == "XPWD") {
      reply(quoted_directory(cwd_, scenario.pwd_style));
    } else if (verb == "CWD") {
      if (tree.is_directory(path)) {
        cwd_ = path;
        reply("250 directory changed");
      } else {
        reply("550 no such directory");
      }
    } else if (verb == "CDUP") {
      cwd_ = ServerTree::resolve(cwd_, "..");
      path_ = cwd_;
      server_.watch_.received(verb, "", cwd_);
      reply("250 directory changed");
    } else if (verb == "EPSV" || verb == "PASV") {
      if (verb == "EPSV" && !scenario.epsv) {
        reply("500 EPSV not understood");
        return true;
      }
      close_passive();
      const auto [fd, port] = loopback_ports().listen();
      passive_ = fd;
      passive_port_ = port;
      server_.track(fd);
      if (verb == "EPSV") {
        reply("229 Entering Extended Passive Mode (|||" + std::to_string(port) +
              "|)");
      } else {
        reply("227 Entering Passive Mode (127,0,0,1," +
              std::to_string(port / 256) + "," + std::to_string(port % 256) +
              ")");
      }
    } else if (verb == "LIST" || verb == "NLST") {
      const std::optional<std::string> body =
          verb == "LIST" ? tree.list(path) : tree.name_list(path);
      if (!body && !scenario.missing_is_empty) {
        close_passive();
        if (verb == "LIST") server_.watch_.listed(path, "", false);
        reply("550 no such file or directory");
        return true;
      }
      reply("150 here it comes");
      const std::string text = body.value_or("");
      const bool sent = send_body(text, cut);
      if (verb == "LIST") {
        // What went out: nothing without a data connection, half when cut.
        std::string delivered;
        if (sent) delivered = cut ? half(text) : text;
        server_.watch_.listed(path, delivered, sent && !cut);
      }
      if (cut) return false;
      reply(sent ? "226 transfer complete" : "425 no data connection");
    } else if (verb == "RETR") {
      const std::optional<std::string> content = tree.content(path);
      if (!content) {
        close_passive();
        reply("550 not a plain file");
        return true;
      }
      reply("150 here it comes");
      const bool sent = send_body(*content, cut);
      if (cut) return false;
      reply(sent ? "226 transfer complete" : "425 no data connection");
    } else if (verb == "STOR" || verb == "APPE") {
      reply("150 send it");
      std::optional<std::string> content = receive_body();
      if (cut) return false;
      if (!content) {
        reply("425 no data connection");
      } else if (tree.store(path, std::move(*content))) {
        reply("226 stored");
      } else {
        reply("553 cannot store there");
      }
    } else if (verb == "MKD" || verb == "XMKD") {
      reply(tree.make_directory(path) ? "257 \"" + path + "\" created"
                                      : "550 cannot create");
    } else if (verb == "DELE") {
      reply(tree.remove_file(path) ? "250 deleted" : "550 cannot delete");
    } else if (verb == "RMD" || verb == "XRMD") {
      reply(tree.remove_directory(path) ? "250 removed" : "550 cannot remove");
    } else if (verb == "SIZE") {
      const std::optional<std::string> content = tree.content(path);
      reply(content ? "213 " + std::to_string(content->size())
                    : "550 not a plain file");
    } else if (verb == "MDTM") {
      reply(tree.content(path) ? "213 20200101000000" : "550 not a plain file");
    } else if (verb == "TYPE" || verb == "MODE" || verb == "STRU" ||
               verb == "OPTS" || verb == "NOOP") {
      reply("200 ok");
    } else if (verb == "REST") {
      reply("350 restarting at " + argument);
    } else if (verb == "SYST") {
      reply("215 UNIX Type: L8");
    } else if (verb == "FEAT") {
      reply("211-Features:\r\n EPSV\r\n SIZE\r\n211 End");
    } else if (verb == "ABOR") {
      reply("226 nothing to abort");
    } else if (verb == "QUIT") {
      reply("221 goodbye");
      quit_ = true;
      return false;
    } else {
      reply("502 not implemented");
    }
    return true;
  }

  FakeFtpServer& server_;
  int control_;
  std::uint64_t connection_;
  std::uint64_t commands_ = 0;  // received on this connection
  std::string verb_;            // of the command at hand, in capitals
  std::string path_;            // that it names, or empty
  int passive_ = -1;
  std::uint16_t passive_port_ = 0;
  std::string cwd_ = "/";
  std::string pending_;
  bool quit_ = false;
  bool peer_closed_ = false;  // a read gave end of file
};

FakeFtpServer::FakeFtpServer(const Scenario& scenario, CommandWatch& watch)
    : scenario_(scenario), watch_(watch), tree_(scenario) {
  std::tie(listener_, port_) = loopback_ports().listen();
  try {
    acceptor_ = std::thread([this] { accept_connections(); });
  } catch (const std::system_error& error) {
    harness_failure("thread", error.code().value());
  }
}

FakeFtpServer::~FakeFtpServer() {
  stopping_ = true;
  // Wakes the acceptor: a listening socket that is shut down reads ready.
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const int fd : open_) shutdown(fd, SHUT_RDWR);
  }
  for (SessionThread& session : sessions_) session.thread.join();
  loopback_ports().close_listener(listener_, port_);
}

std::vector<std::string> FakeFtpServer::commands() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return log_;
}

ServerTree FakeFtpServer::tree() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tree_;
}

void FakeFtpServer::track(int descriptor) {
  // Called with mutex_ held (from a command) or before any session exists.
  open_.insert(descriptor);
}

void FakeFtpServer::untrack(int descriptor) { open_.erase(descriptor); }

void FakeFtpServer::accept_connections() {
  while (!stopping_) {
    const int control = accept_within(listener_, -1);
    if (control < 0) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    // Sessions that have ended are joined here, so that at most
    // kMaxSessions threads of this server exist at any time.
    for (auto it = sessions_.begin(); it != sessions_.end();) {
      if (it->ended) {
        it->thread.join();
        it = sessions_.erase(it);
      } else {
        ++it;
      }
    }
    if (received_ >= scenario_.budget || sessions_.size() >= kMaxSessions) {
      // Out of budget, or too many connections at once: hung up on.
      watch_.fault();
      close(control);
      continue;
    }
    open_.insert(control);
    sessions_.emplace_back();
    SessionThread& session = sessions_.back();
    const std::uint64_t connection = ++connections_;
    try {
      session.thread = std::thread([this, control, connection, &session] {
        serve(control, connection, session.ended);
      });
    } catch (const std::system_error& error) {
      harness_failure("thread", error.code().value());
    }
  }
}

void FakeFtpServer::serve(int control, std::uint64_t connection, bool& ended) {
  Session session(*this, control, connection);
  const Session::End end = session.run();
  std::lock_guard<std::mutex> lock(mutex_);
  session.close_passive();
  // A connection that ends without QUIT is a fault that a retry may follow.
  if (end != Session::End::quit) watch_.fault();
  open_.erase(control);
  if (end == Session::End::server_closed)
    close(control);
  else
    close_after_peer(control);
  ended = true;
}
