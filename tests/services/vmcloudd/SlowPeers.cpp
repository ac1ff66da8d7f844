#include "tests/services/vmcloudd/SlowPeers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace vm::testing {

struct SlowPeers::Connection {
  Peer peer;
  int fd = -1;
  std::size_t sent = 0;  // trickle bytes sent
};

SlowPeers::SlowPeers(int port, std::vector<Peer> peers, std::chrono::milliseconds interval,
                     bool reopen)
    : port_(port), interval_(interval), reopen_(reopen) {
  for (Peer& peer : peers) {
    auto connection = std::make_unique<Connection>();
    connection->peer = std::move(peer);
    if (connect(*connection)) ++open_;
    connections_.push_back(std::move(connection));
  }
  thread_ = std::thread([this] { run(); });
}

SlowPeers::~SlowPeers() {
  stopping_ = true;
  thread_.join();
  for (auto& connection : connections_) {
    if (connection->fd >= 0) ::close(connection->fd);
  }
}

bool SlowPeers::connect(Connection& connection) {
  connection.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  connection.sent = 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port_));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connection.fd < 0 ||
      ::connect(connection.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::send(connection.fd, connection.peer.opening.data(), connection.peer.opening.size(),
             MSG_NOSIGNAL) != static_cast<ssize_t>(connection.peer.opening.size())) {
    if (connection.fd >= 0) ::close(connection.fd);
    connection.fd = -1;
    return false;
  }
  return true;
}

void SlowPeers::run() {
  while (!stopping_) {
    for (auto& connection : connections_) {
      if (connection->fd < 0) continue;
      char byte = 0;
      ssize_t got = ::recv(connection->fd, &byte, 1, MSG_DONTWAIT);
      bool closed = got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
      if (!closed && !connection->peer.trickle.empty()) {
        const std::string& text = connection->peer.trickle;
        char next = text[connection->sent++ % text.size()];
        closed = ::send(connection->fd, &next, 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
                 errno != EAGAIN && errno != EWOULDBLOCK;
      }
      if (closed) {
        ::close(connection->fd);
        connection->fd = -1;
        --open_;
        ++dropped_;
        if (reopen_ && connect(*connection)) ++open_;
      }
    }
    std::this_thread::sleep_for(interval_);
  }
}

bool SlowPeers::waitAllDropped(std::chrono::milliseconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (open_.load() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return open_.load() == 0;
}

std::uint64_t ResidentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}

}  // namespace vm::testing
