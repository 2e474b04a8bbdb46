#include "fake_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "ldap-protocol.h"

namespace tavtest {

size_t ber_element_length(const std::string &b) {
  if (b.size() < 2) return 0;
  size_t i = 1, len = static_cast<unsigned char>(b[i++]);
  if (len & 0x80) {
    size_t octets = len & 0x7F;
    if (octets > 4 || i + octets > b.size()) return 0;
    for (len = 0; octets-- > 0;) len = (len << 8) | static_cast<unsigned char>(b[i++]);
  }
  return i + len <= b.size() ? i + len : 0;
}

FakeServer::FakeServer() {
  listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
      getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
    throw std::runtime_error("fake server: bind failed");
  port_ = ntohs(a.sin_port);
}

FakeServer::~FakeServer() {
  quit_ = true;
  open_gate();
  if (thread_.joinable()) thread_.join();
  if (conn_fd_ >= 0) ::close(conn_fd_);
  ::close(listen_fd_);
}

FakeServer &FakeServer::send(const std::string &bytes) {
  steps_.push_back({Step::kSend, [bytes](const std::string &) { return bytes; }});
  return *this;
}
FakeServer &FakeServer::send_lazy(std::function<std::string()> make) {
  steps_.push_back({Step::kSend, [make](const std::string &) { return make(); }});
  return *this;
}
// An LDAPMessage whose operation is an AbandonRequest ([APPLICATION 16]).
bool FakeServer::is_abandon(const std::string &pdu) {
  size_t i = 2 + (pdu.size() > 1 && (pdu[1] & 0x80) ? (pdu[1] & 0x7F) : 0);
  if (i + 2 > pdu.size() || static_cast<unsigned char>(pdu[i]) != ldap_proto::kInteger) return false;
  i += 2 + (unsigned char)pdu[i + 1];
  return i < pdu.size() && (unsigned char)pdu[i] == ldap_proto::kAbandonRequest;
}

FakeServer &FakeServer::on_request(std::function<std::string(const std::string &)> reply) {
  steps_.push_back({Step::kRequest, std::move(reply)});
  return *this;
}
FakeServer &FakeServer::trickle(const std::string &bytes, int every_ms) {
  steps_.push_back({Step::kTrickle, [bytes](const std::string &) { return bytes; }, every_ms});
  return *this;
}
FakeServer &FakeServer::gate() {
  steps_.push_back({Step::kGate, nullptr});
  return *this;
}
FakeServer &FakeServer::close() {
  steps_.push_back({Step::kClose, nullptr});
  return *this;
}
FakeServer &FakeServer::hold_until_closed() {
  steps_.push_back({Step::kHold, nullptr});
  return *this;
}

int FakeServer::start() {
  if (rcvbuf_ > 0) setsockopt(listen_fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf_, sizeof rcvbuf_);
  if (listen(listen_fd_, 8) != 0) throw std::runtime_error("fake server: listen failed");
  thread_ = std::thread([this] { run(); });
  return port_;
}

void FakeServer::open_gate() {
  std::lock_guard<std::mutex> lock(mu_);
  gate_open_ = true;
  cv_.notify_all();
}

std::string FakeServer::received() const {
  std::lock_guard<std::mutex> lock(mu_);
  return received_;
}

bool FakeServer::wait_done(int timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return done_; });
}

// Reads what is there, waiting up to timeout_ms; false when the peer closed
// or nothing came.
bool FakeServer::read_some(int timeout_ms) {
  pollfd p{conn_fd_, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return false;
  char buf[65536];
  ssize_t n = ::recv(conn_fd_, buf, sizeof buf, 0);
  if (n <= 0) {
    peer_closed_ = true;
    return false;
  }
  std::lock_guard<std::mutex> lock(mu_);
  received_.append(buf, n);
  return true;
}

void FakeServer::send_all(const std::string &bytes) {
  for (size_t off = 0; off < bytes.size();) {
    ssize_t n = ::send(conn_fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (n <= 0) return;
    off += static_cast<size_t>(n);
  }
}

void FakeServer::run() {
  // Accept, giving up when the owner goes away first.
  while (conn_fd_ < 0 && !quit_) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (poll(&p, 1, 50) > 0) conn_fd_ = accept(listen_fd_, nullptr, nullptr);
  }
  int one = 1;
  if (conn_fd_ >= 0) setsockopt(conn_fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  for (const Step &s : steps_) {
    if (quit_ || conn_fd_ < 0) break;
    if (s.kind == Step::kSend) {
      send_all(s.make(""));
    } else if (s.kind == Step::kTrickle) {
      for (char c : s.make("")) {
        if (quit_ || peer_closed_) break;
        send_all(std::string(1, c));
        read_some(s.every_ms);  // also notices the client closing
      }
    } else if (s.kind == Step::kRequest) {
      std::string element;
      while (!quit_ && !peer_closed_) {
        {
          std::lock_guard<std::mutex> lock(mu_);
          if (size_t len = ber_element_length(received_.substr(consumed_))) {
            element = received_.substr(consumed_, len);
            consumed_ += len;
            // Servers never answer an AbandonRequest: it is no request of
            // the script (it stays in received()).
            if (is_abandon(element)) {
              element.clear();
              continue;
            }
            break;
          }
        }
        read_some(20);
      }
      if (!element.empty()) send_all(s.make(element));
    } else if (s.kind == Step::kGate) {
      std::unique_lock<std::mutex> lock(mu_);
      cv_.wait(lock, [this] { return gate_open_; });
    } else if (s.kind == Step::kHold) {
      while (!quit_ && !peer_closed_) read_some(20);
    } else {
      break;  // kClose
    }
  }
  if (conn_fd_ >= 0) ::close(conn_fd_);
  conn_fd_ = -1;
  std::lock_guard<std::mutex> lock(mu_);
  done_ = true;
  cv_.notify_all();
}

}  // namespace tavtest
