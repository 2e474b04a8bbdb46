// A session through a server outage, against OpenLDAP's libldap on the same
// run: 64 threads share one bound session doing base searches (5 s time-out
// each); after `before` seconds the private slapd is killed, `outage`
// seconds later a new one is started on the same port, and the clients go on
// until `total` seconds.  Ours runs with LDAP_OPT_RECONNECT on (libldap has
// no such option).  Each client is its own process, ours loaded from the
// shared object; runs alternate.
// Usage: outage_bench [runs=1] [total=8] [before=2] [outage=2]
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_driver.h"
#include "slapd_server.h"

using tavtest::SlapdOptions;
using tavtest::SlapdServer;

namespace {

// A client started in the background; its output read when it ends.
struct Client {
  pid_t pid = -1;
  int out = -1;
};

Client spawn(const std::vector<std::string> &argv) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  Client c;
  c.pid = fork();
  if (c.pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  c.out = fds[0];
  return c;
}

std::map<std::string, double> finish(Client c) {
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = read(c.out, buf, sizeof buf)) > 0) text.append(buf, (size_t)n);
  close(c.out);
  int status = 0;
  waitpid(c.pid, &status, 0);
  auto f = tavbench::figures_of(text);
  f["status"] = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return f;
}

std::unique_ptr<SlapdServer> start_slapd(int port) {
  SlapdOptions o;
  o.port = port;
  auto s = std::make_unique<SlapdServer>(o);
  std::string error;
  if (!s->start(&error)) {
    fprintf(stderr, "outage_bench: %s\n", error.c_str());
    return nullptr;
  }
  return s;
}

std::string codes_of(const std::map<std::string, double> &f) {
  std::string out;
  for (const auto &[k, v] : f)
    if (k.rfind("code_", 0) == 0) out += (out.empty() ? "" : ", ") + k.substr(5) + ": " + std::to_string((long)v);
  return out;
}

}  // namespace

int main(int argc, char **argv) {
  const int runs = argc > 1 ? atoi(argv[1]) : 1;
  const double total = argc > 2 ? atof(argv[2]) : 8, before = argc > 3 ? atof(argv[3]) : 2,
               outage = argc > 4 ? atof(argv[4]) : 2;
  auto server = start_slapd(0);
  if (!server) return 1;
  const int port = server->port();
  setenv("SB_BIND_DN", SlapdServer::user_dn(1).c_str(), 1);
  setenv("SB_BIND_PW", SlapdServer::user_password(1).c_str(), 1);
  const std::string dir = tavbench::bin_dir();
  const std::string clients[2] = {dir + "/search_bench_ours", dir + "/ldap_peer"};
  const char *names[2] = {"ours", "libldap"};
  const std::string dn_format = std::string("uid=user%d,") + SlapdServer::kPeopleDn;
  printf("outage: 64 threads on one bound session, base searches with a 5 s time-out; slapd killed after %.1f s,\n"
         "restarted on its port %.1f s later, run ends at %.1f s (ours with LDAP_OPT_RECONNECT on)\n",
         before, outage, total);
  printf("  %-8s %9s %9s %10s %12s %8s %4s  %s\n", "client", "calls", "ok", "longest s", "restart->ok", "RSS KB",
         "fds", "codes: count");
  int status = 0;
  for (int r = 0; r < runs; ++r)
    for (int c = 0; c < 2; ++c) {
      Client client =
          spawn({clients[c], "127.0.0.1", std::to_string(port), "outage", dn_format, "64", std::to_string(total)});
      std::this_thread::sleep_for(std::chrono::duration<double>(before));
      kill(server->pid(), SIGKILL);
      kill(client.pid, SIGUSR2);
      server->stop();
      std::this_thread::sleep_for(std::chrono::duration<double>(outage));
      server = start_slapd(port);
      // The client takes the time it sees the signal as the restart.
      kill(client.pid, SIGUSR1);
      auto f = finish(client);
      if (!server) return 1;
      char back[32] = "never";
      if (f["recovered"] > 0) snprintf(back, sizeof back, "%.3f s", f["recovered"] - f["restart"]);
      printf("  %-8s %9.0f %9.0f %10.3f %12s %8.0f %4.0f  %s\n", names[c], f["calls"], f["ok"], f["longest_s"],
             back, f["rss_kb"], f["fds"], codes_of(f).c_str());
      printf("  %-8s from the kill: first failure %+.3f s, restart %+.3f s, longest call began %+.3f s\n", "",
             f["first_fail"] - f["kill"], f["restart"] - f["kill"], f["longest_at"] - f["kill"]);
      if (f["status"] != 0) {
        fprintf(stderr, "%s: client exited %.0f\n", names[c], f["status"]);
        status = 1;
      }
    }
  return status;
}
