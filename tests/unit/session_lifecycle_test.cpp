// Session creation, the operation bracket and unbind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"
#include "trace_watch.h"

namespace {

bool unbind_started(LDAP *ld) {
  pthread_mutex_lock(&ld->ld_mutex);
  bool started = ld->ld_unbind_started == 1;
  pthread_mutex_unlock(&ld->ld_mutex);
  return started;
}

// A handle as ldap_init leaves it: defaults set, one connection of 256 rows,
// not connected.
void expect_complete(LDAP *ld, const std::string &host, int port) {
  LDAPConn *c = ld->ld_defconn;
  char text[512];
  snprintf(text, sizeof text, "%.8s %s:%d %s:%d %d %d %d v%d x%d o%u h%d", ld->ld_eyecatcher, ld->ld_defhost,
           ld->ld_defport, c->lc_host, c->lc_port, ld->ld_servers == c && c->lc_ld == ld && c->lc_msgtable->conn == c,
           (int)c->lc_msgtable->size, c->lc_connected, ld->ld_version, ld->ld_xlate, ld->ld_options,
           ld->ld_refhoplimit);
  const std::string at = host + ":" + std::to_string(port);
  EXPECT_EQ(text, "LDAP HDL " + at + " " + at + " 1 256 0 v3 x1 o2 h10");
}

}  // namespace

TEST(SessionInit, HostAndPortArgumentsBecomeTheDefaults) {
  char local[257] = {};
  gethostname(local, 256);
  const std::tuple<const char *, int, std::string, int> cases[] = {
      {"127.0.0.1", 0, "127.0.0.1", 389},
      {"Server.Example", 1389, "Server.Example", 1389},  // case kept
      {nullptr, 0, local, 389},
      {"a b:1389 c", 0, "a b:1389 c", 389},
      {"LDAP://server:1389/o=x", 0, "server", 1389},
      {"ldap://server/o=x", 1234, "server", 389},  // the URL's default port wins
      {"<URL:ldaps://Secure.Example/>", 0, "Secure.Example", 636},
      {"ldap://[::1]:2389", 0, "::1", 2389}};
  for (const auto &[host, port, defhost, defport] : cases) {
    SCOPED_TRACE(host ? host : "(null)");
    LDAP *ld = ldap_init(host, port);
    ASSERT_NE(ld, nullptr);
    expect_complete(ld, defhost, defport);
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
  // Refused: bad ports, blank hosts, URLs without host (the locator finds
  // none), bad URL ports and scopes, text that is not a URL.
  for (const auto &[host, port] : std::initializer_list<std::pair<const char *, int>>{{"127.0.0.1", -1},
                                                                                      {"127.0.0.1", 65536},
                                                                                      {"", 0},
                                                                                      {"   ", 0},
                                                                                      {"ldap:///o=example", 0},
                                                                                      {"ldaps:///", 0},
                                                                                      {"ldap://h:38x/o=x", 0},
                                                                                      {"ldap://h/o=x??bogus", 0},
                                                                                      {"x ldap://h/", 0}})
    EXPECT_EQ(ldap_init(host, port), nullptr) << host << " " << port;
}

TEST(SessionInit, SetsTisdirOnlyWhenUnset) {
  // TISDIR is not unset here: the library's putenv string would be lost.
  const char *before = getenv("TISDIR");
  std::string expected = before != nullptr ? before : "/opt/elsewhere";
  for (const char *home : {"/opt/elsewhere", "/opt/other"}) {
    setenv("OLX_LDAP_HOME", home, 1);
    LDAP *ld = ldap_init("h", 0);
    ASSERT_NE(ld, nullptr);
    EXPECT_STREQ(getenv("TISDIR"), expected.c_str());
    ldap_unbind(ld);
  }
}

// Out of memory gives null and no partial handle.  Setting TISDIR is best
// effort, so it is set beforehand; one allocation only records an outcome
// in the thread's error record, and losing it still leaves a whole handle.
TEST(SessionInit, EveryAllocationFailureGivesNullOrAWholeHandle) {
  setenv("TISDIR", "/opt/tav", 0);
  int survived = 0;
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    LDAP *ld = ldap_init("ldap://host.example:1389/o=x", 0);
    const long used = olx_fail_alloc_at(0);
    if (ld != nullptr) {
      expect_complete(ld, "host.example", 1389);
      EXPECT_EQ(ldap_unbind(ld), 0);
    }
    if (used < n) break;  // the scenario ran out of allocations before n
    survived += ld != nullptr;
    ASSERT_LT(n, 200);
  }
  EXPECT_LE(survived, 1);
}

TEST(OperationBracket, CountsOperationsAndRefusesForeignHandles) {
  LDAP *ld = ldap_init("h", 0);
  ASSERT_NE(ld, nullptr);
  EXPECT_EQ(ldap_start_operation(ld), 0);
  EXPECT_EQ(ldap_start_operation(ld), 0);
  EXPECT_EQ(ld->ld_active_ops, 2u);
  for (int i = 0; i < 3; ++i) ldap_end_operation(ld);  // never below zero
  EXPECT_EQ(ld->ld_active_ops, 0u);
  alignas(LDAP) char foreign[sizeof(LDAP)] = {};
  memcpy(foreign, "LDAP HDX", 8);
  for (LDAP *bad : {(LDAP *)nullptr, reinterpret_cast<LDAP *>(foreign)}) {
    EXPECT_EQ(ldap_start_operation(bad), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_unbind(bad), LDAP_PARAM_ERROR);
  }
  EXPECT_EQ(ldap_unbind_s(nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_unbind_ext(nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_unbind_ext(ld, nullptr, nullptr), 0);
}

TEST(OperationBracket, UnbindWaitsForRunningOperationsAndRefusesNewOnes) {
  LDAP *ld = ldap_init("h", 0);
  ASSERT_NE(ld, nullptr);
  constexpr int kRunning = 4;
  std::atomic<int> started{0}, ended{0}, unbind_rc{-1}, ended_when_unbound{-1};
  std::atomic<bool> release{false};
  std::vector<std::thread> running;
  for (int i = 0; i < kRunning; ++i)
    running.emplace_back([&] {
      ASSERT_EQ(ldap_start_operation(ld), 0);
      started++;
      while (!release) std::this_thread::yield();
      ended++;
      ldap_end_operation(ld);
    });
  while (started < kRunning) std::this_thread::yield();
  std::thread unbinder([&] {
    unbind_rc = ldap_unbind(ld);
    ended_when_unbound = ended.load();
  });
  // Unbind marks the handle and waits in the same hold of ld_mutex: once the
  // mark shows, it is waiting and new operations are refused, with a trace.
  while (!unbind_started(ld)) std::this_thread::yield();
  EXPECT_EQ(unbind_rc, -1) << "unbind returned while operations were running";
  std::thread([&] {
    // Failures only.
    const std::string trace = tavtest::traced(0x8000, [&] { EXPECT_EQ(ldap_start_operation(ld), LDAP_PARAM_ERROR); });
    EXPECT_NE(trace.find("ldap_start_operation: unbind started\n"), std::string::npos) << trace;
    EXPECT_EQ(ldap_get_errno(ld), -1);
  }).join();
  release = true;
  for (auto &t : running) t.join();
  unbinder.join();
  EXPECT_EQ(unbind_rc, 0);
  EXPECT_EQ(ended_when_unbound, kRunning);
}

TEST(SessionTrace, DecisionsAreTracedWithTheirTexts) {
  alignas(LDAP) static char foreign[sizeof(LDAP)] = "HDL LDAP";
  const std::pair<void (*)(), std::vector<std::string>> cases[] = {
      {[] { ldap_init("h", -3); }, {"ldap_init: defhost=h, defport=-3\n", "ldap_init: bad port (-3)\n"}},
      {[] { ldap_init("", 0); },
       {"ldap_init: parsing the passing hostname\n", "ldap_init: invalid hostname (blank) is used\n"}},
      {[] { ldap_unbind(ldap_init("ldap://srv:7/", 0)); },
       {"ldap_init: Found host (srv) in URL\n", "ldap_init: defhost(srv) defport(7)\n", "MUTEX 0x"}},
      {[] { ldap_start_operation(reinterpret_cast<LDAP *>(foreign)); }, {"Invalid ld in ldap_start_operation\n"}},
      {[] { ldap_unbind_s(nullptr); }, {"ldap_unbind_s\n", "ldap_unbind: ld((nil))\n"}},
      {[] {
         LDAP *ld = ldap_init("no-such-host..invalid", 0);
         open_default_connection(ld);
         ldap_unbind(ld);
       },
       {"olx_getaddrinfo: host(no-such-host..invalid), port(389), res(0x", "getaddrinfo failed. \n",
        "open_connection: entered sb(0x"}}};
  for (const auto &[scenario, lines] : cases) {
    const std::string trace = tavtest::traced(0xffff, scenario);
    for (const auto &line : lines) EXPECT_NE(trace.find(line), std::string::npos) << line << "\nin:\n" << trace;
  }
}
