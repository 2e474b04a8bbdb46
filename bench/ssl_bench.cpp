// ldaps benchmark, ours (library + toolkit) against OpenLDAP's libldap in the
// same run, on one private slapd with TLS and the same CA; each client is its
// own process running the same workload code:
//   (a) one search of 10000 entries over ldaps walked to every value: client
//       CPU per 10000 entries and entries per second;
//   (b) handshakes: a new session bound anonymously and unbound, N times;
//       ours with full handshakes and with resumed sessions, libldap full.
// Usage: ssl_bench [runs=5] [handshakes=200]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench_driver.h"
#include "process.h"
#include "slapd_server.h"

using tavbench::bin_dir;
using tavbench::median;
using tavtest::SlapdServer;

namespace {

// The key=value figures of the child's output line; "status" holds its exit status.
std::map<std::string, double> run_child(const std::vector<std::string> &argv) {
  auto figures = tavbench::run_client(argv);
  if (figures["status"] != 0) fprintf(stderr, "%s failed (%.0f)\n", argv[0].c_str(), figures["status"]);
  return figures;
}

}  // namespace

int main(int argc, char **argv) {
  const int runs = argc > 1 ? atoi(argv[1]) : 5;
  const std::string handshakes = argc > 2 ? argv[2] : "200";
  tavtest::SlapdOptions opts;
  opts.people = 10000;
  opts.tls = true;
  opts.global_config = "sizelimit unlimited\n";
  SlapdServer slapd(opts);
  std::string error;
  if (!slapd.start(&error)) {
    fprintf(stderr, "ssl_bench: %s\n", error.c_str());
    return 1;
  }
  const std::string dir = bin_dir();
  tavtest::TempDir keys;
  const std::string kdb = keys.file("bench.kdb"), pw = "bench-pw";
  for (const auto &a : std::vector<std::vector<std::string>>{
           {dir + "/tavkeydb", "create", kdb, "-pw", pw},
           {dir + "/tavkeydb", "add-ca", kdb, "-pw", pw, "-label", "ca", "-cert", slapd.tls_file("ca.pem")}})
    if (tavtest::run_process(a).exit_code != 0) {
      fprintf(stderr, "ssl_bench: tavkeydb failed\n");
      return 1;
    }
  const std::string port = std::to_string(slapd.tls_port());
  const std::vector<std::string> ours = {dir + "/ssl_bench_ours", "127.0.0.1", port, kdb, pw};
  const std::vector<std::string> peer = {dir + "/ssl_peer", "127.0.0.1", port, slapd.tls_file("ca.pem")};
  auto with = [](std::vector<std::string> a, std::vector<std::string> rest) {
    a.insert(a.end(), rest.begin(), rest.end());
    return a;
  };

  // (a) Alternate the clients so slapd's caches favour neither; the first round warms up.
  const std::vector<std::string> walk = {"walk", SlapdServer::kPeopleDn, "(objectClass=inetOrgPerson)"};
  std::vector<double> cpu10k[2], eps[2];
  int entries = 0;
  for (int r = 0; r <= runs; ++r)
    for (int c = 0; c < 2; ++c) {
      auto f = run_child(with(c == 0 ? ours : peer, walk));
      if (r == 0 || f["entries"] <= 0) continue;
      entries = (int)f["entries"];
      cpu10k[c].push_back(f["cpu_s"] / entries * 10000 * 1e3);
      eps[c].push_back(entries / f["wall_s"]);
    }
  printf("(a) one ldaps search of %d entries walked to every value, median of %d runs\n", entries, runs);
  printf("    %-8s %22s %14s\n", "client", "client CPU ms/10000", "entries/s");
  const char *names[2] = {"ours", "libldap"};
  for (int c = 0; c < 2; ++c) printf("    %-8s %22.1f %14.0f\n", names[c], median(cpu10k[c]), median(eps[c]));
  printf("    ratio ours/libldap: CPU %.2f, entries/s %.2f\n", median(cpu10k[0]) / median(cpu10k[1]),
         median(eps[0]) / median(eps[1]));

  // (b)
  struct Kind {
    const char *name;
    std::vector<std::string> argv;
  } kinds[] = {
      {"ours full", with(ours, {"handshakes", handshakes, "full"})},
      {"ours resumed", with(ours, {"handshakes", handshakes, "resumed"})},
      {"libldap full", with(peer, {"handshakes", handshakes, "full"})},
  };
  std::vector<double> rate[3], cpu[3];
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 3; ++k) {
      auto f = run_child(kinds[k].argv);
      if (f["failures"] != 0) fprintf(stderr, "%s: %.0f failures\n", kinds[k].name, f["failures"]);
      rate[k].push_back(f["per_s"]);
      cpu[k].push_back(f["cpu_ms"]);
    }
  printf("(b) connections (handshake, anonymous bind, unbind), %s per run, median of 3\n", handshakes.c_str());
  printf("    %-14s %14s %18s\n", "client", "per second", "client CPU ms each");
  for (int k = 0; k < 3; ++k) printf("    %-14s %14.1f %18.3f\n", kinds[k].name, median(rate[k]), median(cpu[k]));
  printf("    ratio ours/libldap, full: rate %.2f, CPU %.2f; resumed/full (ours): rate %.2f, CPU %.2f\n",
         median(rate[0]) / median(rate[2]), median(cpu[0]) / median(cpu[2]), median(rate[1]) / median(rate[0]),
         median(cpu[1]) / median(cpu[0]));
  return 0;
}
