// A loopback port that refuses connections: bound, never listening, and kept
// bound for the lifetime of the object so that nobody else takes it.

#ifndef BRINDLE_TESTS_SUPPORT_REFUSING_PORT_H_
#define BRINDLE_TESTS_SUPPORT_REFUSING_PORT_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

class RefusingPort {
 public:
  RefusingPort() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      ADD_FAILURE() << "cannot bind a loopback port: " << std::strerror(errno);
    socklen_t length = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~RefusingPort() { close(fd_); }
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  std::uint16_t port() const { return port_; }

 private:
  int fd_;
  std::uint16_t port_ = 0;
};

#endif  // BRINDLE_TESTS_SUPPORT_REFUSING_PORT_H_
