// A chased search against OpenLDAP's libldap chasing the same referral: A
// refers ou=branch,ou=t1 to B, which holds 10,000 entries and shows them only
// to a bound user; both clients chase binding through their rebind callbacks
// and walk every value.  Client CPU per entry, medians; ours / libldap, one
// row as search_bench prints them.
// Usage: referral_bench [entries=10000] [runs=5]
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
#include "referral_servers.h"


int main(int argc, char **argv) {
  const int entries = argc > 1 ? atoi(argv[1]) : 10000;
  const int runs = argc > 2 ? atoi(argv[2]) : 5;
  tavtest::ReferralServers servers(entries);
  if (!servers.started()) {
    fprintf(stderr, "referral_bench: %s\n", servers.error().c_str());
    return 1;
  }
  setenv("SB_REBIND_DN", tavtest::SlapdServer::kRootDn, 1);
  setenv("SB_REBIND_PW", tavtest::SlapdServer::kRootPw, 1);
  const std::string dir = tavbench::bin_dir();
  const std::string clients[2] = {dir + "/search_bench_ours", dir + "/ldap_peer"};
  const char *names[2] = {"ours", "libldap"};
  const std::vector<std::string> args = {"127.0.0.1", std::to_string(servers.port_a()), "walk",
                                         "ou=branch,ou=t1," + tavtest::ReferralServers::kSuffix, "(objectClass=*)"};
  std::vector<double> us_per_entry[2];
  int seen[2] = {0, 0};
  for (int r = 0; r <= runs; ++r)
    for (int c = 0; c < 2; ++c) {
      std::vector<std::string> argv = {clients[c]};
      argv.insert(argv.end(), args.begin(), args.end());
      auto f = tavbench::run_client(argv);
      if (f["status"] != 0 || f["rc"] != 0) {
        fprintf(stderr, "%s: run failed (status %.0f, rc %.0f); discarded\n", names[c], f["status"], f["rc"]);
        continue;
      }
      seen[c] = (int)f["entries"];
      if (r > 0) us_per_entry[c].push_back(f["cpu_s"] / f["entries"] * 1e6);  // the first run warms up
    }
  printf("chased search: A refers the subtree to B (%d and %d entries seen), median of %d runs\n", seen[0], seen[1],
         runs);
  tavbench::Table table;
  table.row("referral chase: client CPU us/entry", us_per_entry[0], us_per_entry[1]);
  table.print();
  return seen[0] == seen[1] && seen[0] > 0 ? 0 : 1;
}
