// Search benchmark, ours against OpenLDAP's libldap in the same run, on the
// same private slapd and data.  Each client is its own process (the ldap_*
// names of the two libraries clash), running the same workload code:
//   (a) one search of ~11000 entries walked to every value: client CPU per
//       10000 entries and entries per second;
//   (b) 1, 2, 8 and 32 threads sharing one session doing base searches;
//   (c) peak resident memory of a 100000-entry search kept whole, then walked;
//   (d) one thread keeping 1, 16 and 128 base searches outstanding on one
//       connection (ours linked from the full archive: the shared object
//       has no asynchronous search), and a client without any library doing
//       the same (wire_client), the ceiling one connection allows;
//   (e) user-space instructions per base search of one entry (callgrind, two
//       runs of different lengths each, so start-up cancels out).
// Usage: search_bench [people=100000] [runs=5] [seconds-per-thread-run=2]
//        search_bench serve [people]   keeps the slapd up for profiling the
//        clients by hand: prints its port, stops at end of input.
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
  const bool serve = argc > 1 && strcmp(argv[1], "serve") == 0;
  if (serve) ++argv, --argc;
  const int people = argc > 1 ? atoi(argv[1]) : 100000;
  const int runs = argc > 2 ? atoi(argv[2]) : 5;
  const char *seconds = argc > 3 ? argv[3] : "2";
  tavtest::SlapdOptions opts;
  opts.people = people;
  // Above slapd's default of 100 requests outstanding per connection, for (d).
  opts.global_config = "sizelimit unlimited\nconn_max_pending 1000\n";
  SlapdServer slapd(opts);
  std::string error;
  if (!slapd.start(&error)) {
    fprintf(stderr, "search_bench: %s\n", error.c_str());
    return 1;
  }
  if (serve) {
    printf("port %d\n", slapd.port());
    fflush(stdout);
    while (getchar() != EOF) {
    }
    return 0;
  }
  const std::string dir = bin_dir();
  const std::string clients[2] = {dir + "/search_bench_ours", dir + "/ldap_peer"};
  const std::string pipelined_clients[2] = {dir + "/search_bench_full", dir + "/ldap_peer"};
  const char *names[2] = {"ours", "libldap"};
  const std::vector<std::string> where = {"127.0.0.1", std::to_string(slapd.port())};
  auto args = [&](std::vector<std::string> rest) {
    std::vector<std::string> a = where;
    a.insert(a.end(), rest.begin(), rest.end());
    return a;
  };
  const std::string people_dn = SlapdServer::kPeopleDn;

  // Every figure is a median over runs that succeeded with the same entry
  // count on both sides; a failed run is reported and discarded.
  auto spread = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    char buf[64];
    snprintf(buf, sizeof buf, "%.2f-%.2f", v.empty() ? 0 : v.front(), v.empty() ? 0 : v.back());
    return std::string(buf);
  };
  struct Row {
    std::string what;
    double ours, theirs;
    std::string spread_ours, spread_theirs;
  };
  std::vector<Row> rows;
  auto row = [&](const std::string &what, const std::vector<double> &o, const std::vector<double> &t) {
    rows.push_back({what, median(o), median(t), spread(o), spread(t)});
  };

  // (a) Alternate the clients so slapd's caches favour neither.
  // slapd's CPU per entry too: once a client is faster than the server,
  // entries per second are the server's.
  std::vector<double> cpu_entry[2], eps[2], server_entry[2];
  int entries[2] = {0, 0};
  for (int r = 0; r < runs + 1; ++r)
    for (int c = 0; c < 2; ++c) {
      const double server_before = tavbench::process_cpu_seconds(slapd.pid());
      ChildRun cr = run_child(clients[c], args({"walk", people_dn, "(objectClass=inetOrgPerson)"}));
      const double server_used = tavbench::process_cpu_seconds(slapd.pid()) - server_before;
      if (cr.status != 0 || cr.figures["rc"] != 0) {
        fprintf(stderr, "%s walk failed (status %d); discarded\n", names[c], cr.status);
        continue;
      }
      entries[c] = (int)cr.figures["entries"];
      if (r == 0) continue;  // warm-up
      cpu_entry[c].push_back(cr.figures["cpu_s"] / entries[c] * 1e6);
      server_entry[c].push_back(server_used / entries[c] * 1e6);
      eps[c].push_back(entries[c] / cr.figures["wall_s"]);
    }
  if (entries[0] != entries[1] || entries[0] == 0) {
    fprintf(stderr, "search_bench: the clients saw %d and %d entries\n", entries[0], entries[1]);
    return 1;
  }
  row("walk: client CPU us/entry", cpu_entry[0], cpu_entry[1]);
  row("walk: slapd CPU us/entry", server_entry[0], server_entry[1]);
  row("walk: entries/s", eps[0], eps[1]);

  // System calls and instructions of one walk each, when strace and valgrind exist.
  auto tool_run = [&](int c, const std::string &prefix, const std::string &out) {
    std::string cmd = prefix + " '" + clients[c] + "'";
    for (const auto &a : args({"walk", people_dn, "(objectClass=inetOrgPerson)"})) cmd += " '" + a + "'";
    cmd += " > /dev/null 2>&1";
    return system(cmd.c_str()) == 0 ? tavbench::read_text(out) : std::string();
  };
  if (system("command -v strace > /dev/null 2>&1") == 0) {
    std::vector<double> calls[2];
    for (int c = 0; c < 2; ++c) {
      const std::string out = "/tmp/search_bench.strace." + std::to_string(getpid());
      const std::string text = tool_run(c, "strace -f -c -o " + out, out);
      unlink(out.c_str());
      const size_t total = text.rfind(" total");
      if (total == std::string::npos) continue;
      const size_t line = text.rfind('\n', total) + 1;
      double secs, usecs, count;
      if (sscanf(text.c_str() + line, "%lf %lf %lf %lf", &secs, &secs, &usecs, &count) == 4 ||
          sscanf(text.c_str() + line, "%lf %lf %lf", &secs, &secs, &count) == 3)
        calls[c].push_back(count / entries[c]);
    }
    if (!calls[0].empty() && !calls[1].empty()) row("walk: system calls/entry", calls[0], calls[1]);
  }
  if (system("command -v valgrind > /dev/null 2>&1") == 0) {
    std::vector<double> instr[2];
    for (int c = 0; c < 2; ++c) {
      const std::string out = "/tmp/search_bench.callgrind." + std::to_string(getpid());
      const std::string text = tool_run(c, "valgrind --tool=callgrind --callgrind-out-file=" + out, out);
      unlink(out.c_str());
      const size_t at = text.find("\nsummary: ");
      if (at != std::string::npos) instr[c].push_back(atof(text.c_str() + at + 10) / entries[c]);
    }
    if (!instr[0].empty() && !instr[1].empty()) row("walk: instructions/entry", instr[0], instr[1]);
  }

  // (b)
  const std::string dn_format = "uid=user%d," + people_dn;
  for (int threads : {1, 2, 8, 32}) {
    std::vector<double> ops[2], cpu[2];
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 2; ++c) {
        ChildRun cr = run_child(clients[c], args({"threads", dn_format, std::to_string(threads), seconds}));
        if (cr.status != 0 || cr.figures["failures"] != 0) {
          fprintf(stderr, "%s threads=%d: status %d, failures %.0f; discarded\n", names[c], threads, cr.status,
                  cr.figures["failures"]);
          continue;
        }
        ops[c].push_back(cr.figures["ops_per_s"]);
        cpu[c].push_back(cr.figures["cpu_us_per_op"]);
      }
    row(std::to_string(threads) + " threads: client CPU us/op", cpu[0], cpu[1]);
    row(std::to_string(threads) + " threads: ops/s", ops[0], ops[1]);
  }

  // (c)
  std::vector<double> rss[2];
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 2; ++c) {
      ChildRun cr = run_child(clients[c], args({"walk", people_dn, "(objectClass=inetOrgPerson)"}));
      if (cr.status == 0 && (int)cr.figures["entries"] == entries[c]) rss[c].push_back(cr.max_rss_kb / 1024.0);
    }
  row("kept result: peak memory MB", rss[0], rss[1]);

  // (d)
  for (int outstanding : {1, 16, 128}) {
    // slapd's CPU per operation too: the two cores are shared by the server
    // and the client, so the server's share bounds what a leaner client gains.
    // The third client uses no library (wire_client): the rate one connection
    // gets when the client costs next to nothing, the ceiling for any library.
    std::vector<double> ops[3], cpu[3], server_cpu[3];
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c) {
        const double server_before = tavbench::process_cpu_seconds(slapd.pid());
        ChildRun cr = run_child(c < 2 ? pipelined_clients[c] : dir + "/wire_client",
                                args({"pipeline", dn_format, std::to_string(outstanding), seconds}));
        const double server_used = tavbench::process_cpu_seconds(slapd.pid()) - server_before;
        if (cr.status != 0 || cr.figures["failures"] != 0) {
          fprintf(stderr, "%s pipeline=%d: status %d, failures %.0f; discarded\n", c < 2 ? names[c] : "wire client",
                  outstanding, cr.status, cr.figures["failures"]);
          continue;
        }
        ops[c].push_back(cr.figures["ops_per_s"]);
        cpu[c].push_back(cr.figures["cpu_us_per_op"]);
        if (cr.figures["ops"] > 0) server_cpu[c].push_back(server_used / cr.figures["ops"] * 1e6);
      }
    row("pipelined " + std::to_string(outstanding) + ": client CPU us/op", cpu[0], cpu[1]);
    row("pipelined " + std::to_string(outstanding) + ": slapd CPU us/op", server_cpu[0], server_cpu[1]);
    row("pipelined " + std::to_string(outstanding) + ": ops/s", ops[0], ops[1]);
    // "ours" is the library-less client in these two rows.
    row("pipelined " + std::to_string(outstanding) + ", no library: ops/s", ops[2], ops[1]);
    row("pipelined " + std::to_string(outstanding) + ", no library: CPU us/op", cpu[2], cpu[1]);
  }

  // (e) Instructions of N base searches: (I(long) - I(short)) / (long - short).
  if (system("command -v valgrind > /dev/null 2>&1") == 0) {
    const int few = people < 10000 ? 20 : 200, many = people < 10000 ? 120 : 1200;
    std::vector<double> instr[2];
    for (int c = 0; c < 2; ++c) {
      double at[2] = {0, 0};
      for (int k = 0; k < 2; ++k) {
        const std::string out = "/tmp/search_bench.callgrind." + std::to_string(getpid());
        std::string cmd = "valgrind --tool=callgrind --callgrind-out-file=" + out + " '" + clients[c] + "'";
        for (const auto &a : args({"bases", dn_format, std::to_string(k == 0 ? few : many)})) cmd += " '" + a + "'";
        cmd += " > /dev/null 2>&1";
        const std::string text = system(cmd.c_str()) == 0 ? tavbench::read_text(out) : std::string();
        unlink(out.c_str());
        const size_t pos = text.find("\nsummary: ");
        if (pos != std::string::npos) at[k] = atof(text.c_str() + pos + 10);
      }
      if (at[0] > 0 && at[1] > at[0]) instr[c].push_back((at[1] - at[0]) / (many - few));
    }
    if (!instr[0].empty() && !instr[1].empty()) row("base search: instructions/op", instr[0], instr[1]);
  }

  printf("ours (the shared object) against OpenLDAP's libldap, %d entries walked, medians of %d runs\n", entries[0],
         runs);
  printf("  %-34s %12s %12s %8s   %s\n", "measure", "ours", "libldap", "ratio", "spread ours / libldap");
  for (const Row &r : rows)
    printf("  %-34s %12.2f %12.2f %8.2f   %s / %s\n", r.what.c_str(), r.ours, r.theirs,
           r.theirs != 0 ? r.ours / r.theirs : 0.0, r.spread_ours.c_str(), r.spread_theirs.c_str());
  return 0;
}
