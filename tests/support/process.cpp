#include "process.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#include <sanitizer/allocator_interface.h>
#define TAV_SANITIZER_HEAP 1
#endif
#endif

namespace tavtest {

size_t heap_in_use() {
#ifdef TAV_SANITIZER_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}

ProcessResult run_process(const std::vector<std::string> &argv,
                          const std::vector<std::pair<std::string, std::string>> &env, const std::string &input) {
  int in[2], out[2], err[2];
  if (pipe(in) || pipe(out) || pipe(err)) throw std::runtime_error("pipe failed");
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    for (const auto &[k, v] : env) v.empty() ? unsetenv(k.c_str()) : setenv(k.c_str(), v.c_str(), 1);
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  for (int fd : {in[0], out[1], err[1]}) close(fd);
  signal(SIGPIPE, SIG_IGN);
  ProcessResult r;
  size_t written = 0;
  pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
  if (input.empty()) close(std::exchange(fds[2].fd, -1));
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    if (poll(fds, 3, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0)
        (i == 0 ? r.out : r.err).append(buf, n);
      else
        close(std::exchange(fds[i].fd, -1));
    }
    if (fds[2].fd >= 0 && fds[2].revents) {
      ssize_t n = write(fds[2].fd, input.data() + written, input.size() - written);
      written += n > 0 ? n : 0;
      if (n <= 0 || written == input.size()) close(std::exchange(fds[2].fd, -1));
    }
  }
  if (fds[2].fd >= 0) close(fds[2].fd);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

pid_t spawn(const std::vector<std::string> &argv, const std::string &log, int in) {
  std::vector<char *> args;  // made before the fork: the child only execs
  for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test process that aborts takes its servers with it
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    dup2(fd, 2);
    if (in >= 0) dup2(in, 0);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

void terminate(pid_t &pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  int i = 0;
  for (; i < 500 && waitpid(pid, nullptr, WNOHANG) == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  if (i == 500) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  pid = -1;
}

TempDir::TempDir() {
  const char *base = getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/tavtest.XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() { run_process({"/bin/rm", "-rf", path_}); }

std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void write_file(const std::string &path, const std::string &content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::vector<std::string> split_lines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace tavtest
