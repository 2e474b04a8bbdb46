// Session creation, the operation bracket and unbind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"

namespace {

std::string local_hostname() {
  char buf[257] = {};
  gethostname(buf, 256);
  return buf;
}

bool unbind_started(LDAP *ld) {
  pthread_mutex_lock(&ld->ld_mutex);
  bool started = ld->ld_unbind_started == 1;
  pthread_mutex_unlock(&ld->ld_mutex);
  return started;
}

}  // namespace

TEST(SessionInit, HostAndPortArgumentsBecomeTheDefaults) {
  struct {
    const char *host;
    int port;
    std::string defhost;
    int defport;
  } cases[] = {
      {"127.0.0.1", 0, "127.0.0.1", 389},
      {"Server.Example", 1389, "Server.Example", 1389},  // case kept
      {nullptr, 0, local_hostname(), 389},
      {"a b:1389 c", 0, "a b:1389 c", 389},
      {"LDAP://server:1389/o=x", 0, "server", 1389},
      {"ldap://server/o=x", 1234, "server", 389},  // the URL's default port wins
      {"<URL:ldaps://Secure.Example/>", 0, "Secure.Example", 636},
      {"ldap://[::1]:2389", 0, "::1", 2389},
  };
  for (const auto &c : cases) {
    LDAP *ld = ldap_init(c.host, c.port);
    ASSERT_NE(ld, nullptr) << (c.host ? c.host : "(null)");
    EXPECT_EQ(memcmp(ld->ld_eyecatcher, "LDAP HDL", 8), 0);
    EXPECT_EQ(ld->ld_defhost, c.defhost);
    EXPECT_EQ(ld->ld_defport, c.defport);
    EXPECT_EQ(std::string(ld->ld_defconn->lc_host), c.defhost);
    EXPECT_EQ(ld->ld_defconn->lc_port, c.defport);
    EXPECT_EQ(ld->ld_servers, ld->ld_defconn);
    EXPECT_EQ(ld->ld_defconn->lc_ld, ld);
    EXPECT_EQ(ld->ld_defconn->lc_msgtable->size, 256u);
    EXPECT_EQ(ld->ld_defconn->lc_msgtable->conn, ld->ld_defconn);
    EXPECT_EQ(ld->ld_defconn->lc_connected, 0);
    EXPECT_EQ(ld->ld_version, 3);
    EXPECT_EQ(ld->ld_xlate, 1);
    EXPECT_EQ(ld->ld_options, 0x2u);
    EXPECT_EQ(ld->ld_refhoplimit, 10);
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
}

TEST(SessionInit, RefusedArgumentsGiveNull) {
  struct {
    const char *host;
    int port;
  } cases[] = {
      {"127.0.0.1", -1},          {"127.0.0.1", 65536},    {"", 0}, {"   ", 0},
      {"ldap:///o=example", 0},                             // no host: the locator finds no servers
      {"ldaps:///", 0},           {"ldap://h:38x/o=x", 0},  // bad port
      {"ldap://h/o=x??bogus", 0},                           // bad scope
      {"x ldap://h/", 0},                                   // the text is not a URL
  };
  for (const auto &c : cases) EXPECT_EQ(ldap_init(c.host, c.port), nullptr) << c.host << " " << c.port;
}

TEST(SessionInit, SetsTisdirOnlyWhenUnset) {
  // TISDIR is not unset here: the library's putenv string would be lost.
  const char *before = getenv("TISDIR");
  std::string expected = before != nullptr ? before : "/opt/elsewhere";
  for (const char *home : {"/opt/elsewhere", "/opt/other"}) {
    setenv("OLX_LDAP_HOME", home, 1);
    LDAP *ld = ldap_init("h", 0);
    ASSERT_NE(ld, nullptr);
    ASSERT_NE(getenv("TISDIR"), nullptr);
    EXPECT_EQ(std::string(getenv("TISDIR")), expected);
    ldap_unbind(ld);
  }
}

TEST(SessionInit, EveryAllocationFailureGivesNullAndLeaksNothing) {
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    LDAP *ld = ldap_init("ldap://host.example:1389/o=x", 0);
    long used = olx_fail_alloc_at(0);
    if (ld != nullptr) {
      // Only a failed attempt to record an outcome may pass unnoticed.
      EXPECT_EQ(ldap_unbind(ld), 0);
    }
    if (used < n) break;  // the scenario ran out of allocations before n
    ASSERT_LT(n, 200);
  }
}

TEST(OperationBracket, CountsOperationsAndRefusesForeignHandles) {
  LDAP *ld = ldap_init("h", 0);
  ASSERT_NE(ld, nullptr);
  EXPECT_EQ(ldap_start_operation(ld), 0);
  EXPECT_EQ(ldap_start_operation(ld), 0);
  EXPECT_EQ(ld->ld_active_ops, 2u);
  ldap_end_operation(ld);
  ldap_end_operation(ld);
  ldap_end_operation(ld);  // never below zero
  EXPECT_EQ(ld->ld_active_ops, 0u);

  alignas(LDAP) char foreign[sizeof(LDAP)] = {};
  memcpy(foreign, "LDAP HDX", 8);
  EXPECT_EQ(ldap_start_operation(nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_start_operation(reinterpret_cast<LDAP *>(foreign)), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_unbind(nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_unbind(reinterpret_cast<LDAP *>(foreign)), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_unbind_s(nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_unbind_ext(nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_unbind_ext(ld, nullptr, nullptr), 0);
}

TEST(OperationBracket, UnbindWaitsForRunningOperationsAndRefusesNewOnes) {
  LDAP *ld = ldap_init("h", 0);
  ASSERT_NE(ld, nullptr);
  constexpr int kRunning = 4;
  std::atomic<int> started{0};
  std::atomic<bool> release{false};
  std::atomic<int> ended{0};
  std::vector<std::thread> running;
  for (int i = 0; i < kRunning; ++i)
    running.emplace_back([&] {
      ASSERT_EQ(ldap_start_operation(ld), 0);
      started++;
      while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ended++;
      ldap_end_operation(ld);
    });
  while (started < kRunning) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  std::atomic<int> unbind_rc{-1};
  std::atomic<int> ended_when_unbound{-1};
  std::thread unbinder([&] {
    unbind_rc = ldap_unbind(ld);
    ended_when_unbound = ended.load();
  });
  while (!unbind_started(ld)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  // The handle is still alive (operations are running) but closed for new ones.
  std::thread late([&] {
    EXPECT_EQ(ldap_start_operation(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), -1);
  });
  late.join();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(unbind_rc, -1) << "unbind returned while operations were running";
  release = true;
  for (auto &t : running) t.join();
  unbinder.join();
  EXPECT_EQ(unbind_rc, 0);
  EXPECT_EQ(ended_when_unbound, kRunning);
}

TEST(SessionTrace, DecisionsAreTracedWithTheirTexts) {
  alignas(LDAP) static char foreign[sizeof(LDAP)] = "HDL LDAP";
  struct {
    void (*scenario)();
    std::vector<std::string> lines;
  } cases[] = {
      {[] { ldap_init("h", -3); }, {"ldap_init: defhost=h, defport=-3\n", "ldap_init: bad port (-3)\n"}},
      {[] { ldap_init("", 0); },
       {"ldap_init: parsing the passing hostname\n", "ldap_init: invalid hostname (blank) is used\n"}},
      {[] { ldap_init("ldap:///o=x", 0); },
       {"ldap_init: Found DN (o=x) in URL\n", "Error - auto_server_locate: ldap_server_locate rc=92\n"}},
      {[] { ldap_unbind(ldap_init("ldap://srv:7/", 0)); },
       {"ldap_init: Found host (srv) in URL\n", "ldap_init: defhost(srv) defport(7)\n", "MUTEX 0x"}},
      {[] { ldap_start_operation(reinterpret_cast<LDAP *>(foreign)); }, {"Invalid ld in ldap_start_operation\n"}},
      {[] { ldap_unbind_s(nullptr); }, {"ldap_unbind_s\n", "ldap_unbind: ld((nil))\n"}},
      {[] {
         LDAP *ld = ldap_init("no-such-host.invalid", 0);
         open_default_connection(ld);
         ldap_unbind(ld);
       },
       {"olx_getaddrinfo: host(no-such-host.invalid), port(389), res(0x", "getaddrinfo failed. \n",
        "open_connection: entered sb(0x"}},
  };
  for (const auto &c : cases) {
    ldap_set_debug_level(0xffff);
    testing::internal::CaptureStderr();
    c.scenario();
    std::string trace = testing::internal::GetCapturedStderr();
    ldap_set_debug_level(0);
    for (const auto &line : c.lines) EXPECT_NE(trace.find(line), std::string::npos) << line << "\nin:\n" << trace;
  }
}

TEST(SessionTrace, WaitingForUnbindIsRefusedWithItsTrace) {
  LDAP *ld = ldap_init("h", 0);
  ASSERT_NE(ld, nullptr);
  ASSERT_EQ(ldap_start_operation(ld), 0);
  std::thread unbinder([&] { EXPECT_EQ(ldap_unbind(ld), 0); });
  while (!unbind_started(ld)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ldap_set_debug_level(0x8000);  // failures only
  testing::internal::CaptureStderr();
  EXPECT_EQ(ldap_start_operation(ld), LDAP_PARAM_ERROR);
  std::string trace = testing::internal::GetCapturedStderr();
  ldap_set_debug_level(0);
  EXPECT_NE(trace.find("ldap_start_operation: unbind started\n"), std::string::npos) << trace;
  ldap_end_operation(ld);
  unbinder.join();
}
