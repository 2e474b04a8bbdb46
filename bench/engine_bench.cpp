// Message engine throughput: small searches from 1, 2, 8 and 32 threads that
// share one session, against a private slapd.  Prints requests per second
// (wall clock) and client CPU per request (getrusage of this process; slapd
// runs in its own process and shares the two cores).
//   engine_bench [requests per run, default 20000] [runs, default 3]
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ldap_requests.h"
#include "slapd_server.h"

using tavtest::SlapdServer;

namespace {

double cpu_seconds() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

struct Run {
  double per_second;
  double cpu_us_per_request;
};

Run run(LDAP *ld, int threads, int total) {
  std::atomic<int> failures{0};
  const int each = total / threads;
  double cpu0 = cpu_seconds();
  auto t0 = std::chrono::steady_clock::now();
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] {
      std::string dn = SlapdServer::user_dn(t % 32 + 1);
      for (int i = 0; i < each; ++i) {
        int id = tavtest::send_search(ld, dn, 0, "objectClass", {"cn"});
        LDAPMessage *res = nullptr;
        if (id < 0 || ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) != 0x65) ++failures;
        ldap_msgfree(res);
      }
    });
  for (auto &th : pool) th.join();
  double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  double cpu = cpu_seconds() - cpu0;
  if (failures) fprintf(stderr, "%d requests failed\n", failures.load());
  return {each * threads / wall, cpu / (each * threads) * 1e6};
}

}  // namespace

int main(int argc, char **argv) {
  int total = argc > 1 ? atoi(argv[1]) : 20000;
  int runs = argc > 2 ? atoi(argv[2]) : 3;
  tavtest::SlapdOptions opts;
  opts.people = 32;
  SlapdServer slapd(opts);
  std::string error;
  if (!slapd.start(&error)) {
    fprintf(stderr, "engine_bench: %s\n", error.c_str());
    return 1;
  }
  LDAP *ld = ldap_init("127.0.0.1", slapd.port());
  run(ld, 1, 500);  // connect and warm up
  printf("%-8s %14s %18s   (median of %d runs of %d base searches)\n", "threads", "requests/s", "client CPU us/req",
         runs, total);
  for (int threads : {1, 2, 8, 32}) {
    std::vector<Run> r;
    for (int i = 0; i < runs; ++i) r.push_back(run(ld, threads, total));
    std::sort(r.begin(), r.end(), [](const Run &a, const Run &b) { return a.per_second < b.per_second; });
    const Run &m = r[r.size() / 2];
    printf("%-8d %14.0f %18.1f\n", threads, m.per_second, m.cpu_us_per_request);
  }
  ldap_unbind(ld);
  return 0;
}
