#include "tests/services/vmcloudd/RawConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace vm::testing {

RawConnection::RawConnection(int port) {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

RawConnection::~RawConnection() {
  if (fd_ >= 0) ::close(fd_);
}

bool RawConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void RawConnection::shutdownWrite() { ::shutdown(fd_, SHUT_WR); }

std::string RawConnection::readAll(std::chrono::milliseconds limit) {
  std::string out;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  char buffer[4096];
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd waiting{fd_, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) break;
    ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    out.append(buffer, static_cast<std::size_t>(got));
  }
  return out;
}

bool RawConnection::closedByPeer(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  char buffer[4096];
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd waiting{fd_, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return false;
    ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return true;
  }
}

int StatusOf(std::string_view answer) {
  // "HTTP/1.1 201 Created"
  if (answer.rfind("HTTP/1.", 0) != 0 || answer.size() < 12) return 0;
  int status = 0;
  for (char c : answer.substr(9, 3)) {
    if (c < '0' || c > '9') return 0;
    status = status * 10 + (c - '0');
  }
  return status;
}

std::string Exchange(int port, std::string_view request) {
  RawConnection connection(port);
  if (!connection.connected() || !connection.send(request)) return {};
  return connection.readAll();
}

}  // namespace vm::testing
