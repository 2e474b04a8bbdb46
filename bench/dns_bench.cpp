// A DNS look-up round trip of the library's own client against the system
// resolver library's res_nquery, both asking the same dnsmasq on loopback in
// a private network namespace (nothing leaves it).  Prints medians of several
// runs, wall time and client CPU, and the ratio ours / theirs.
#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "dns_peer.h"
#include "ldap-dns.h"
#include "process.h"

namespace {

const char kName[] = "_ldap._tcp.example.com";
constexpr int kLookups = 2000, kRuns = 7;

double cpu_seconds() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// Median microseconds per look-up: wall and CPU.
std::pair<double, double> measure(const std::function<bool()> &lookup) {
  std::vector<double> wall, cpu;
  for (int r = 0; r < kRuns; ++r) {
    auto t0 = std::chrono::steady_clock::now();
    double c0 = cpu_seconds();
    for (int i = 0; i < kLookups; ++i)
      if (!lookup()) {
        fprintf(stderr, "look-up failed\n");
        exit(1);
      }
    wall.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() * 1e6 / kLookups);
    cpu.push_back((cpu_seconds() - c0) * 1e6 / kLookups);
  }
  std::sort(wall.begin(), wall.end());
  std::sort(cpu.begin(), cpu.end());
  return {wall[kRuns / 2], cpu[kRuns / 2]};
}

}  // namespace

int main() {
  tavtest::TempDir dir;
  tavtest::write_file(dir.file("resolv.conf"), "nameserver 127.0.0.1\n");
  std::string error = tavtest::enter_private_network(dir.file("resolv.conf"));
  tavtest::Dnsmasq dnsmasq;
  if (!error.empty() ||
      !dnsmasq.start(dir.path(),
                     "local=/example.com/\nsrv-host=_ldap._tcp.example.com,ldap1.example.com,389,10,60\n"
                     "srv-host=_ldap._tcp.example.com,ldap2.example.com,389,10,40\n",
                     &error)) {
    fprintf(stderr, "dns_bench: %s\n", error.c_str());
    return 1;
  }
  // Ours: what one name-server pass does for the service name: open, query,
  // read and check the answer, parse the SRV records, close.
  auto ours = [] {
    ldap_dns_state st;
    memset(&st, 0, sizeof st);
    st.sock = -1;
    st.connection_timeout = 5;
    bool ok = ldap_dns_open(&st, "127.0.0.1", LDAP_DNS_TRANSPORT_UDP) == 0 &&
              ldap_dns_send_query(&st, kName, LDAP_DNS_TYPE_ANY) == 0 && ldap_dns_read_answer(&st) == 0 &&
              ldap_dns_parse_answers(&st, nullptr, LDAP_DNS_TYPE_SRV) == 0 && st.found != nullptr;
    ldap_dns_state_free(&st);
    return ok;
  };
  // Theirs: res_nquery and the SRV records read with ns_parserr.
  struct __res_state rs;
  memset(&rs, 0, sizeof rs);
  if (res_ninit(&rs) != 0) return 1;
  auto theirs = [&rs] {
    unsigned char answer[512];
    int n = res_nquery(&rs, kName, ns_c_in, ns_t_any, answer, sizeof answer);
    ns_msg msg;
    if (n <= 0 || ns_initparse(answer, n, &msg) != 0) return false;
    int srv = 0;
    for (int i = 0; i < ns_msg_count(msg, ns_s_an); ++i) {
      ns_rr rr;
      char target[NS_MAXDNAME];
      if (ns_parserr(&msg, ns_s_an, i, &rr) != 0) return false;
      if (ns_rr_type(rr) == ns_t_srv &&
          dn_expand(ns_msg_base(msg), ns_msg_end(msg), ns_rr_rdata(rr) + 6, target, sizeof target) > 0)
        ++srv;
    }
    return srv > 0;
  };
  auto [ow, oc] = measure(ours);
  auto [tw, tc] = measure(theirs);
  printf("DNS SRV look-up against dnsmasq on loopback, median of %d runs x %d look-ups\n", kRuns, kLookups);
  printf("  ours (ldap_dns_*):  %7.2f us wall  %7.2f us CPU\n", ow, oc);
  printf("  res_nquery:         %7.2f us wall  %7.2f us CPU\n", tw, tc);
  printf("  ratio ours/theirs:  %7.2f wall     %7.2f CPU\n", ow / tw, oc / tc);
  res_nclose(&rs);
  return 0;
}
