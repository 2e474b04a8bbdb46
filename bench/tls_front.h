// A TLS front for the connection benchmark: terminates ldaps with the
// server's certificate and key and relays each connection in clear to
// slapd's plain port.  Unlike slapd 2.5 it hands out TLS 1.3 session tickets
// (OpenSSL's server defaults), so clients that resume sessions can.  One
// thread per connection; the connections measured are short.
#ifndef TAV_BENCH_TLS_FRONT_H
#define TAV_BENCH_TLS_FRONT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "slapd_server.h"

namespace tavbench {

class TlsFront {
 public:
  TlsFront() = default;
  TlsFront(const TlsFront &) = delete;
  TlsFront &operator=(const TlsFront &) = delete;
  ~TlsFront() {
    stop_ = true;
    if (acceptor_.joinable()) acceptor_.join();
    std::lock_guard<std::mutex> lock(mu_);
    for (std::thread &t : relays_) t.join();
    if (listen_fd_ >= 0) close(listen_fd_);
    SSL_CTX_free(ctx_);
  }

  bool start(const std::string &cert, const std::string &key, int upstream_port, std::string *error) {
    upstream_port_ = upstream_port;
    ctx_ = SSL_CTX_new(TLS_server_method());
    if (ctx_ == nullptr || SSL_CTX_use_certificate_chain_file(ctx_, cert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx_, key.c_str(), SSL_FILETYPE_PEM) != 1) {
      *error = "tls_front: certificate or key not usable";
      return false;
    }
    SSL_CTX_set_session_id_context(ctx_, reinterpret_cast<const unsigned char *>("tavbench"), 8);
    SSL_CTX_clear_mode(ctx_, SSL_MODE_AUTO_RETRY);
    if ((listen_fd_ = tavtest::loopback_listen(64, &port_)) < 0) {
      *error = "tls_front: cannot listen";
      return false;
    }
    acceptor_ = std::thread([this] { accept_loop(); });
    return true;
  }
  int port() const { return port_; }

 private:
  void accept_loop() {
    while (!stop_) {
      pollfd p{listen_fd_, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      int fd = accept(listen_fd_, nullptr, nullptr);
      if (fd < 0) continue;
      std::lock_guard<std::mutex> lock(mu_);
      relays_.emplace_back([this, fd] { relay(fd); });
    }
  }

  int connect_upstream() const {
    int fd = tavtest::loopback_connect(upstream_port_);
    int one = 1;
    if (fd >= 0) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
  }

  void relay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    SSL *ssl = SSL_new(ctx_);
    int up = -1;
    if (ssl != nullptr && SSL_set_fd(ssl, fd) == 1 && SSL_accept(ssl) == 1 && (up = connect_upstream()) >= 0) {
      char buf[16384];
      for (bool open = true; open && !stop_;) {
        pollfd p[2] = {{fd, POLLIN, 0}, {up, POLLIN, 0}};
        if (SSL_pending(ssl) == 0 && poll(p, 2, 200) <= 0) continue;
        if (SSL_pending(ssl) > 0 || (p[0].revents & (POLLIN | POLLHUP | POLLERR))) {
          int n = SSL_read(ssl, buf, sizeof buf);
          if (n > 0) {
            open = write_all(up, buf, n);
          } else if (SSL_get_error(ssl, n) != SSL_ERROR_WANT_READ) {
            open = false;
          }
        }
        if (open && (p[1].revents & (POLLIN | POLLHUP | POLLERR))) {
          ssize_t n = read(up, buf, sizeof buf);
          open = n > 0 && SSL_write(ssl, buf, (int)n) == (int)n;
        }
      }
      SSL_shutdown(ssl);
    }
    SSL_free(ssl);
    ERR_clear_error();
    if (up >= 0) close(up);
    close(fd);
  }

  static bool write_all(int fd, const char *p, int n) {
    while (n > 0) {
      ssize_t w = write(fd, p, (size_t)n);
      if (w <= 0) return false;
      p += w;
      n -= (int)w;
    }
    return true;
  }

  SSL_CTX *ctx_ = nullptr;
  int listen_fd_ = -1, port_ = 0, upstream_port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread acceptor_;
  std::mutex mu_;
  std::vector<std::thread> relays_;  // mu_
};

}  // namespace tavbench

#endif
