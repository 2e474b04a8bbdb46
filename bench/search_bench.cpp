// Search benchmark, ours against OpenLDAP's libldap in the same run, on the
// same private slapd and data.  Each client is its own process (the ldap_*
// names of the two libraries clash), running the same workload code:
//   (a) one search of ~11000 entries walked to every value: client CPU per
//       10000 entries and entries per second;
//   (b) 1, 2, 8 and 32 threads sharing one session doing base searches;
//   (c) peak resident memory of a walked 100000-entry search.
// Usage: search_bench [people=100000] [runs=5] [seconds-per-thread-run=2]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench_driver.h"
#include "slapd_server.h"

using tavbench::bin_dir;
using tavbench::median;
using tavtest::SlapdServer;

namespace {

struct ChildRun {
  std::map<std::string, double> figures;  // key=value pairs of the child's line
  long max_rss_kb = 0;
  int status = -1;
};

ChildRun run_child(const std::string &program, const std::vector<std::string> &args) {
  ChildRun out;
  int fds[2];
  if (pipe(fds) != 0) return out;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    std::vector<char *> argv{const_cast<char *>(program.c_str())};
    for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  std::string text;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) text.append(buf, (size_t)n);
  close(fds[0]);
  rusage ru{};
  wait4(pid, &out.status, 0, &ru);
  out.max_rss_kb = ru.ru_maxrss;
  out.figures = tavbench::figures_of(text);
  return out;
}

}  // namespace

int main(int argc, char **argv) {
  const int people = argc > 1 ? atoi(argv[1]) : 100000;
  const int runs = argc > 2 ? atoi(argv[2]) : 5;
  const char *seconds = argc > 3 ? argv[3] : "2";
  tavtest::SlapdOptions opts;
  opts.people = people;
  opts.global_config = "sizelimit unlimited\n";
  SlapdServer slapd(opts);
  std::string error;
  if (!slapd.start(&error)) {
    fprintf(stderr, "search_bench: %s\n", error.c_str());
    return 1;
  }
  const std::string dir = bin_dir();
  const std::string clients[2] = {dir + "/search_bench_ours", dir + "/ldap_peer"};
  const char *names[2] = {"ours", "libldap"};
  const std::vector<std::string> where = {"127.0.0.1", std::to_string(slapd.port())};
  auto args = [&](std::vector<std::string> rest) {
    std::vector<std::string> a = where;
    a.insert(a.end(), rest.begin(), rest.end());
    return a;
  };
  const std::string people_dn = SlapdServer::kPeopleDn;

  // (a) Alternate the clients so slapd's caches favour neither.
  std::vector<double> cpu10k[2], eps[2];
  int entries = 0;
  for (int r = 0; r < runs + 1; ++r)
    for (int c = 0; c < 2; ++c) {
      ChildRun cr = run_child(clients[c], args({"walk", people_dn, "(uid=user1*)"}));
      if (cr.status != 0) fprintf(stderr, "%s walk failed (status %d)\n", names[c], cr.status);
      if (r == 0) continue;  // warm-up
      entries = (int)cr.figures["entries"];
      cpu10k[c].push_back(cr.figures["cpu_s"] / entries * 10000 * 1e3);
      eps[c].push_back(entries / cr.figures["wall_s"]);
    }
  printf("(a) one search of %d entries walked to every value, median of %d runs\n", entries, runs);
  printf("    %-8s %22s %14s\n", "client", "client CPU ms/10000", "entries/s");
  for (int c = 0; c < 2; ++c) printf("    %-8s %22.1f %14.0f\n", names[c], median(cpu10k[c]), median(eps[c]));
  printf("    ratio ours/libldap: CPU %.2f, entries/s %.2f\n", median(cpu10k[0]) / median(cpu10k[1]),
         median(eps[0]) / median(eps[1]));

  // (b)
  const std::string dn_format = "uid=user%d," + people_dn;
  printf("(b) threads sharing one session, base searches of single entries, %s s per run, median of 3\n", seconds);
  printf("    %-8s %14s %14s %8s %14s %14s\n", "threads", "ours ops/s", "libldap ops/s", "ratio", "ours us/op",
         "libldap us/op");
  for (int threads : {1, 2, 8, 32}) {
    std::vector<double> ops[2], cpu[2];
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 2; ++c) {
        ChildRun cr = run_child(clients[c], args({"threads", dn_format, std::to_string(threads), seconds}));
        if (cr.status != 0 || cr.figures["failures"] != 0)
          fprintf(stderr, "%s threads=%d: status %d, failures %.0f\n", names[c], threads, cr.status,
                  cr.figures["failures"]);
        ops[c].push_back(cr.figures["ops_per_s"]);
        cpu[c].push_back(cr.figures["cpu_us_per_op"]);
      }
    printf("    %-8d %14.0f %14.0f %8.2f %14.1f %14.1f\n", threads, median(ops[0]), median(ops[1]),
           median(ops[0]) / median(ops[1]), median(cpu[0]), median(cpu[1]));
  }

  // (c)
  std::vector<double> rss[2];
  int big = 0;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 2; ++c) {
      ChildRun cr = run_child(clients[c], args({"walk", people_dn, "(objectClass=inetOrgPerson)"}));
      big = (int)cr.figures["entries"];
      rss[c].push_back((double)cr.max_rss_kb);
    }
  printf("(c) peak resident memory of a walked %d-entry search, median of 3\n", big);
  printf("    ours %.0f KiB, libldap %.0f KiB, ratio %.2f\n", median(rss[0]), median(rss[1]),
         median(rss[0]) / median(rss[1]));
  return 0;
}
