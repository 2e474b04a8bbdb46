#include "trace_watch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "ldap-debug.h"

namespace tavtest {

std::string traced(uint32_t mask, const std::function<void()> &run) {
  ldap_set_debug_level(mask);
  testing::internal::CaptureStderr();
  run();
  std::string text = testing::internal::GetCapturedStderr();
  ldap_set_debug_level(0);
  return text;
}

TraceWatch::TraceWatch(uint32_t mask) {
  int fds[2];
  fflush(stderr);
  if (pipe(fds) != 0 || (saved_fd_ = dup(2)) < 0 || dup2(fds[1], 2) < 0)
    throw std::runtime_error("trace watch: no pipe");
  ::close(fds[1]);
  read_fd_ = fds[0];
  reader_ = std::thread([this] {
    char buf[4096];
    for (ssize_t n; (n = read(read_fd_, buf, sizeof buf)) > 0;) {
      std::lock_guard<std::mutex> lock(mu_);
      text_.append(buf, static_cast<size_t>(n));
      cv_.notify_all();
    }
  });
  ldap_set_debug_level(mask);
}

TraceWatch::~TraceWatch() {
  ldap_set_debug_level(0);
  fflush(stderr);
  dup2(saved_fd_, 2);  // the pipe's last writer goes: the reader sees its end
  ::close(saved_fd_);
  reader_.join();
  ::close(read_fd_);
}

bool TraceWatch::wait_for(const std::string &text, int timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                      [&] { return text_.find(text) != std::string::npos; });
}

std::string TraceWatch::text() const {
  std::lock_guard<std::mutex> lock(mu_);
  return text_;
}

}  // namespace tavtest
