// ldaps benchmark, ours (library + toolkit) against OpenLDAP's libldap in the
// same run, on one private slapd with TLS and the same CA; each client is its
// own process running the same workload code:
//   (a) one search of 10000 entries (people) over ldaps walked to every value: client
//       CPU per entry and entries per second;
//   (b) connections: a new session bound anonymously and unbound, N times,
//       against slapd (which hands out no session to resume) and against a
//       TLS front that issues session tickets (tls_front.h) before slapd's
//       plain port: ours keeping its environment (so resuming where it can)
//       and with a new environment for every connection (always full),
//       libldap as it comes.  Each client prints what it negotiated.
// Prints rows "measure ours libldap ratio spread-ours / spread-libldap" as
// search_bench does.
// Usage: ssl_bench [runs=5] [handshakes=200] [people=10000]
//        ssl_bench serve [people]   keeps slapd and the TLS front up for
//        running the clients by hand: prints the ports, the CA file and the
//        key database (password bench-pw), stops at end of input.
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
#include "process.h"
#include "slapd_server.h"
#include "tls_front.h"

using tavbench::bin_dir;
using tavbench::median;
using tavtest::SlapdServer;

namespace {

// The key=value figures of the child's output line; "status" holds its exit
// status; the text itself in *text when asked.
std::map<std::string, double> run_child(const std::vector<std::string> &argv, std::string *text = nullptr) {
  tavtest::ProcessResult r = tavtest::run_process(argv);
  auto figures = tavbench::figures_of(r.out);
  figures["status"] = r.exit_code;
  if (text != nullptr) *text = r.out;
  if (r.exit_code != 0) fprintf(stderr, "%s failed (%d)\n", argv[0].c_str(), r.exit_code);
  return figures;
}

// The value of key=value in a client's line, as text.
std::string word(const std::string &text, const std::string &key) {
  size_t at = text.find(" " + key + "=");
  if (at == std::string::npos) return "?";
  at += key.size() + 2;
  return text.substr(at, text.find_first_of(" \n", at) - at);
}

}  // namespace

int main(int argc, char **argv) {
  const bool serve = argc > 1 && strcmp(argv[1], "serve") == 0;
  auto arg = [&](int i, const char *otherwise) { return argc > i ? argv[i] : otherwise; };
  const int runs = atoi(arg(1, "5"));
  const std::string handshakes = arg(2, "200");
  tavtest::SlapdOptions opts;
  opts.people = atoi(serve ? arg(2, "10000") : arg(3, "10000"));
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

  if (serve) {
    tavbench::TlsFront front;
    if (!front.start(slapd.tls_file("server.pem"), slapd.tls_file("server.key"), slapd.port(), &error)) return 1;
    printf("ldaps port %s, front port %d, plain port %d, CA %s, key database %s\n", port.c_str(), front.port(),
           slapd.port(), slapd.tls_file("ca.pem").c_str(), kdb.c_str());
    fflush(stdout);
    while (getchar() != EOF) {
    }
    return 0;
  }

  // (a) Alternate the clients so slapd's caches favour neither; the first round warms up.
  tavbench::Table table;
  const std::vector<std::string> walk = {"walk", SlapdServer::kPeopleDn, "(objectClass=inetOrgPerson)"};
  // slapd's CPU per entry beside the client's: once a client is faster than
  // the server, entries per second are the server's.
  std::vector<double> cpu_entry[2], eps[2], server_entry[2];
  int entries = 0;
  for (int r = 0; r <= runs; ++r)
    for (int c = 0; c < 2; ++c) {
      const double server_before = tavbench::process_cpu_seconds(slapd.pid());
      auto f = run_child(with(c == 0 ? ours : peer, walk));
      const double server_used = tavbench::process_cpu_seconds(slapd.pid()) - server_before;
      if (f["status"] != 0 || f["rc"] != 0 || f["entries"] <= 0) continue;
      entries = (int)f["entries"];
      if (r == 0) continue;
      cpu_entry[c].push_back(f["cpu_s"] / entries * 1e6);
      server_entry[c].push_back(server_used / entries * 1e6);
      eps[c].push_back(entries / f["wall_s"]);
    }
  table.row("ldaps walk: client CPU us/entry", cpu_entry[0], cpu_entry[1]);
  table.row("ldaps walk: slapd CPU us/entry", server_entry[0], server_entry[1]);
  table.row("ldaps walk: entries/s", eps[0], eps[1]);

  // (b)
  tavbench::TlsFront front;
  if (!front.start(slapd.tls_file("server.pem"), slapd.tls_file("server.key"), slapd.port(), &error)) {
    fprintf(stderr, "ssl_bench: %s\n", error.c_str());
    return 1;
  }
  const std::string front_port = std::to_string(front.port());
  auto at_front = [&](std::vector<std::string> a) {
    a[2] = front_port;
    return a;
  };
  struct Kind {
    const char *name;
    std::vector<std::string> argv;
  } kinds[] = {
      {"slapd, ours", with(ours, {"handshakes", handshakes, "resumed"})},
      {"slapd, libldap", with(peer, {"handshakes", handshakes, "full"})},
      {"tickets, ours", with(at_front(ours), {"handshakes", handshakes, "resumed"})},
      {"tickets, libldap", with(at_front(peer), {"handshakes", handshakes, "full"})},
      {"tickets, ours full", with(at_front(ours), {"handshakes", handshakes, "full"})},
  };
  constexpr int kKinds = sizeof kinds / sizeof kinds[0];
  std::vector<double> rate[kKinds], cpu[kKinds], server_cpu[kKinds];
  std::string said[kKinds];
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < kKinds; ++k) {
      std::string text;
      const double server_before = tavbench::process_cpu_seconds(slapd.pid());
      auto f = run_child(kinds[k].argv, &text);
      const double server_used = tavbench::process_cpu_seconds(slapd.pid()) - server_before;
      if (f["status"] != 0 || f["failures"] != 0) {
        fprintf(stderr, "%s: %.0f failures; discarded\n", kinds[k].name, f["failures"]);
        continue;
      }
      rate[k].push_back(f["per_s"]);
      // slapd's share of a connection: what a client that saves its own
      // handshake work cannot take off the rate.
      server_cpu[k].push_back(server_used * 1e3 / atof(handshakes.c_str()));
      cpu[k].push_back(f["cpu_ms"]);
      said[k] = word(text, "protocol") + " " + word(text, "cipher") + " " + word(text, "group") + ", resumed " +
                word(text, "resumed") + "/" + handshakes;
    }
  table.row("connections, slapd: per s", rate[0], rate[1]);
  table.row("connections, slapd: client CPU ms", cpu[0], cpu[1]);
  table.row("connections, slapd: slapd CPU ms", server_cpu[0], server_cpu[1]);
  table.row("connections, tickets: per s", rate[2], rate[3]);
  table.row("connections, tickets: client CPU ms", cpu[2], cpu[3]);
  table.row("connections, tickets, ours full: per s", rate[4], rate[3]);
  table.row("conn., tickets, ours full: CPU ms", cpu[4], cpu[3]);

  printf("ldaps: ours (library and toolkit, OpenSSL) against libldap (GnuTLS), %d entries walked (medians of %d runs), "
         "%s connections a run (medians of 3)\n",
         entries, runs, handshakes.c_str());
  table.print();
  for (int k = 0; k < kKinds; ++k) printf("  %-20s negotiated %s\n", kinds[k].name, said[k].c_str());
  return entries > 0 ? 0 : 1;
}
