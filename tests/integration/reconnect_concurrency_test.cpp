// Sessions that outlive their server (LDAP_OPT_RECONNECT): after a real
// slapd is killed and another started, the session's next request opens a
// new connection, repeats the session's bind and goes on; what was out when
// the connection died fails with 81 and is not sent again.  Off, a session
// stays down.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ldap-int.h"
#include "ldap_requests.h"
#include "slapd_server.h"

using tavtest::SlapdOptions;
using tavtest::SlapdServer;

namespace {

std::unique_ptr<SlapdServer> start_slapd(SlapdOptions options) {
  auto s = std::make_unique<SlapdServer>(std::move(options));
  std::string error;
  EXPECT_TRUE(s->start(&error)) << error;
  return s;
}

// SIGSTOP takes effect asynchronously: wait until every thread of the
// server is stopped, so that nothing it has not answered yet gets answered.
void freeze(const SlapdServer &s) {
  kill(s.pid(), SIGSTOP);
  const std::string tasks = "/proc/" + std::to_string(s.pid()) + "/task";
  for (bool stopped = false; !stopped; std::this_thread::yield()) {
    stopped = true;
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
      std::ifstream stat(task.path() / "stat");
      std::string line;
      std::getline(stat, line);
      const size_t close = line.rfind(')');
      if (close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'T') stopped = false;
    }
  }
}

void kill_now(SlapdServer &s) {
  kill(s.pid(), SIGKILL);
  s.stop();
}

int search_base(LDAP *ld, const std::string &dn) {
  struct timeval wait = {10, 0};
  LDAPMessage *res = nullptr;
  const int rc = ldap_search_st(ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &wait, &res);
  ldap_msgfree(res);
  return rc;
}

const std::string kUser1 = "dn:" + SlapdServer::user_dn(1);

// Each row: what takes the first server's place, and what the session's
// next requests see.
TEST(Reconnect, ASessionReopensRebindsAndNeverResends) {
  struct Row {
    const char *why;
    bool same_port;     // the new server on the old port, or second in the host list
    int people;         // users the new server holds (0: the re-bind fails)
    int reconnect;      // LDAP_OPT_RECONNECT
    int code;           // the search after the outage, and again after it
    const char *who;    // Who am I? after the outage
  } rows[] = {
      {"restarted on its port: re-bound as before", true, 5, 1, 0, kUser1.c_str()},
      {"gone; the host list's second server takes over", false, 5, 1, 0, kUser1.c_str()},
      {"restarted without the bound user: refused, never anonymous", true, 0, 1, LDAP_SERVER_DOWN, ""},
      {"reconnection off: the session stays down", true, 5, 0, LDAP_SERVER_DOWN, ""},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.why);
    auto first = start_slapd({});
    SlapdOptions next_options;
    next_options.people = r.people;
    const int second_port = r.same_port ? first->port() : tavtest::free_port();
    const std::string hosts = first->host_port() + " 127.0.0.1:" + std::to_string(second_port);
    LDAP *ld = ldap_init(hosts.c_str(), 389);
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_RECONNECT, r.reconnect ? LDAP_OPT_ON : LDAP_OPT_OFF), 0);
    ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(1).c_str(), SlapdServer::user_password(1).c_str()), 0);
    // A request the frozen server never answers is out when it dies.
    freeze(*first);
    const int in_flight = tavtest::send_search(ld, SlapdServer::kSuffix, LDAP_SCOPE_BASE);
    ASSERT_GT(in_flight, 0);
    kill_now(*first);
    next_options.port = second_port;
    auto second = start_slapd(next_options);

    EXPECT_EQ(search_base(ld, SlapdServer::kSuffix), r.code);
    EXPECT_EQ(search_base(ld, SlapdServer::kSuffix), r.code);
    EXPECT_EQ(tavtest::whoami(ld), r.who);
    struct timeval wait = {5, 0};
    LDAPMessage *res = nullptr;
    const int type = ldap_result(ld, in_flight, LDAP_MSG_ALL, &wait, &res);
    // Answered by the library for the lost connection, or lost with it.
    EXPECT_EQ(type > 0 ? ldap_result2error(ld, res, 1) : ldap_get_errno(ld), LDAP_SERVER_DOWN);
    ldap_unbind(ld);
  }
}

// Threads keep searching through a kill and a restart: every call returns
// (success, 81 or the time-out), and once the server is back every thread
// gets through again on the one session.
TEST(Reconnect, ThreadsOnOneSessionComeThroughARestart) {
  auto server = start_slapd({});
  const int port = server->port();
  LDAP *ld = ldap_init("127.0.0.1", port);
  ASSERT_NE(ld, nullptr);
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_RECONNECT, LDAP_OPT_ON), 0);
  ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(2).c_str(), SlapdServer::user_password(2).c_str()), 0);
  constexpr int kThreads = 8;
  std::atomic<bool> restarted{false};
  std::atomic<int> unexpected{0}, through_before{0}, through_after{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      bool before = false;
      const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (std::chrono::steady_clock::now() < give_up) {
        const bool after = restarted.load();
        const int rc = search_base(ld, SlapdServer::user_dn(2));
        if (rc != 0 && rc != LDAP_SERVER_DOWN && rc != LDAP_TIMEOUT) ++unexpected;
        if (rc == 0 && !before) {
          before = true;
          ++through_before;
        }
        if (after && rc == 0) {
          ++through_after;
          return;
        }
      }
    });
  // Every thread has been through once before the server goes.
  while (through_before.load() < kThreads) std::this_thread::yield();
  kill_now(*server);
  SlapdOptions again;
  again.port = port;
  server = start_slapd(again);
  restarted = true;
  for (auto &t : threads) t.join();
  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_EQ(through_after.load(), kThreads);
  EXPECT_EQ(tavtest::whoami(ld), "dn:" + SlapdServer::user_dn(2));
  ldap_unbind(ld);
}

}  // namespace
