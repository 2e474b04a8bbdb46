#include "fake_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>

namespace tavtest {

struct FakeServer::Step {
  enum Kind { kSend, kPause, kExpect, kRequest, kClose, kHold };
  explicit Step(Kind k, std::string b = {}) : kind(k), bytes(std::move(b)) {}
  Kind kind;
  std::string bytes;
  int ms = 0;
  size_t n = 0;
  std::function<std::string(const std::string &)> reply;
  std::function<std::string()> make;
};

size_t ber_element_length(const std::string &b) {
  size_t i = 0;
  if (b.size() < 2) return 0;
  if ((static_cast<unsigned char>(b[i++]) & 0x1F) == 0x1F) {
    while (i < b.size() && (static_cast<unsigned char>(b[i]) & 0x80)) ++i;
    ++i;
  }
  if (i >= b.size()) return 0;
  unsigned char first = static_cast<unsigned char>(b[i++]);
  size_t len = first;
  if (first & 0x80) {
    size_t octets = first & 0x7F;
    if (octets > 4 || i + octets > b.size()) return 0;
    len = 0;
    for (size_t k = 0; k < octets; ++k) len = (len << 8) | static_cast<unsigned char>(b[i++]);
  }
  return i + len <= b.size() ? i + len : 0;
}

FakeServer::FakeServer() {
  listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
  if (listen_fd_ < 0) throw std::runtime_error("socket failed");
  int one = 1;
  setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
      getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
    throw std::runtime_error("bind failed");
  port_ = ntohs(a.sin_port);
}

FakeServer::~FakeServer() {
  quit_ = true;
  if (thread_.joinable()) thread_.join();
  if (conn_fd_ >= 0) ::close(conn_fd_);
  if (listen_fd_ >= 0) ::close(listen_fd_);
  for (Step *s : steps_) delete s;
}

FakeServer &FakeServer::send(const std::string &bytes) {
  steps_.push_back(new Step(Step::kSend, bytes));
  return *this;
}

FakeServer &FakeServer::send_lazy(std::function<std::string()> make) {
  Step *s = new Step(Step::kSend);
  s->make = std::move(make);
  steps_.push_back(s);
  return *this;
}

FakeServer &FakeServer::send_split(const std::string &bytes, size_t piece, int pause_ms) {
  if (piece == 0) piece = 1;
  for (size_t off = 0; off < bytes.size(); off += piece) {
    if (off) pause(pause_ms);
    send(bytes.substr(off, piece));
  }
  return *this;
}

FakeServer &FakeServer::pause(int ms) {
  Step *s = new Step(Step::kPause);
  s->ms = ms;
  steps_.push_back(s);
  return *this;
}

FakeServer &FakeServer::stop_reading(int ms) { return pause(ms); }

FakeServer &FakeServer::expect_bytes(size_t n, int timeout_ms) {
  Step *s = new Step(Step::kExpect);
  s->n = n;
  s->ms = timeout_ms;
  steps_.push_back(s);
  return *this;
}

FakeServer &FakeServer::on_request(std::function<std::string(const std::string &)> reply, int timeout_ms) {
  Step *s = new Step(Step::kRequest);
  s->reply = std::move(reply);
  s->ms = timeout_ms;
  steps_.push_back(s);
  return *this;
}

FakeServer &FakeServer::close() {
  steps_.push_back(new Step(Step::kClose));
  return *this;
}

FakeServer &FakeServer::hold_until_closed(int timeout_ms) {
  Step *s = new Step(Step::kHold);
  s->ms = timeout_ms;
  steps_.push_back(s);
  return *this;
}

std::string FakeServer::host_port() const { return "127.0.0.1:" + std::to_string(port_); }

void FakeServer::start() {
  if (rcvbuf_ > 0) setsockopt(listen_fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf_, sizeof rcvbuf_);
  if (listen(listen_fd_, 8) != 0) throw std::runtime_error("listen failed");
  thread_ = std::thread([this] { run(); });
}

std::string FakeServer::received() const {
  std::lock_guard<std::mutex> lock(mu_);
  return received_;
}

std::vector<size_t> FakeServer::read_sizes() const {
  std::lock_guard<std::mutex> lock(mu_);
  return read_sizes_;
}

bool FakeServer::wait_done(int timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return done_; });
}

// Reads what is there (waiting up to timeout_ms); false when the peer closed
// or nothing came.
bool FakeServer::read_some(int timeout_ms) {
  pollfd p{conn_fd_, POLLIN, 0};
  int rc = poll(&p, 1, timeout_ms);
  if (rc <= 0) return false;
  char buf[65536];
  ssize_t n = ::recv(conn_fd_, buf, sizeof buf, 0);
  if (n <= 0) return false;
  std::lock_guard<std::mutex> lock(mu_);
  received_.append(buf, n);
  read_sizes_.push_back(static_cast<size_t>(n));
  return true;
}

void FakeServer::run() {
  auto finish = [this] {
    std::lock_guard<std::mutex> lock(mu_);
    done_ = true;
    cv_.notify_all();
  };
  // Accept, giving up when the owner goes away first.
  for (int waited = 0; conn_fd_ < 0; waited += 50) {
    if (quit_ || waited > 30000) return finish();
    pollfd p{listen_fd_, POLLIN, 0};
    if (poll(&p, 1, 50) > 0) conn_fd_ = accept(listen_fd_, nullptr, nullptr);
  }
  int one = 1;
  setsockopt(conn_fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

  using clock = std::chrono::steady_clock;
  for (Step *s : steps_) {
    if (quit_) break;
    switch (s->kind) {
      case Step::kSend: {
        if (s->make) s->bytes = s->make();
        size_t off = 0;
        while (off < s->bytes.size()) {
          ssize_t n = ::send(conn_fd_, s->bytes.data() + off, s->bytes.size() - off, MSG_NOSIGNAL);
          if (n <= 0) break;
          off += static_cast<size_t>(n);
        }
        break;
      }
      case Step::kPause:
        std::this_thread::sleep_for(std::chrono::milliseconds(s->ms));
        break;
      case Step::kExpect: {
        size_t target = received().size() + s->n;
        auto deadline = clock::now() + std::chrono::milliseconds(s->ms);
        while (received().size() < target && clock::now() < deadline && !quit_) read_some(20);
        std::lock_guard<std::mutex> lock(mu_);
        consumed_ = std::min(received_.size(), consumed_ + s->n);  // later requests start after these
        break;
      }
      case Step::kRequest: {
        auto deadline = clock::now() + std::chrono::milliseconds(s->ms);
        size_t len = 0;
        std::string element;
        while (!quit_) {
          {
            std::lock_guard<std::mutex> lock(mu_);
            len = ber_element_length(received_.substr(consumed_));
            if (len) {
              element = received_.substr(consumed_, len);
              consumed_ += len;
              break;
            }
          }
          if (clock::now() >= deadline) break;
          read_some(20);
        }
        if (len && s->reply) {
          std::string answer = s->reply(element);
          size_t off = 0;
          while (off < answer.size()) {
            ssize_t n = ::send(conn_fd_, answer.data() + off, answer.size() - off, MSG_NOSIGNAL);
            if (n <= 0) break;
            off += static_cast<size_t>(n);
          }
        }
        break;
      }
      case Step::kClose:
        ::close(conn_fd_);
        conn_fd_ = -1;
        return finish();
      case Step::kHold: {
        auto deadline = clock::now() + std::chrono::milliseconds(s->ms);
        while (!quit_ && clock::now() < deadline) {
          pollfd p{conn_fd_, POLLIN, 0};
          if (poll(&p, 1, 20) > 0) {
            char buf[65536];
            ssize_t n = ::recv(conn_fd_, buf, sizeof buf, 0);
            if (n <= 0) break;
            std::lock_guard<std::mutex> lock(mu_);
            received_.append(buf, n);
            read_sizes_.push_back(static_cast<size_t>(n));
          }
        }
        break;
      }
    }
  }
  ::close(conn_fd_);
  conn_fd_ = -1;
  finish();
}

}  // namespace tavtest
