// Host lists, sockets, name resolution and the session's set of connections,
// against listening sockets on loopback.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"
#include "process.h"

namespace {

// A TCP listener on 127.0.0.1; the kernel completes connections to it.
struct Listener {
  int fd = -1;
  int port = 0;
  Listener() {
    fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    listen(fd, 16);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    port = ntohs(a.sin_port);
  }
  ~Listener() { close(fd); }
};

// A loopback port with nothing listening on it.
int closed_port() {
  Listener l;
  return l.port;  // closed again when l goes
}

int peer_port(int fd) {
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  if (getpeername(fd, reinterpret_cast<sockaddr *>(&ss), &len) != 0) return -1;
  if (ss.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
  return ntohs(reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port);
}

}  // namespace

TEST(HostEntry, SplitsHostAndPort) {
  struct {
    const char *entry;
    int rc;
    const char *host;
    int port;
  } cases[] = {
      {"host", 0, "host", 0},
      {"host:1389", 0, "host", 1389},
      {"host:", 0, "host", 0},
      {"[fe80::1]:1389", 0, "fe80::1", 1389},
      {"fe80::1", 0, "fe80::1", 0},
      {"[::1]", 0, "::1", 0},
      {"::1]:7", 0, "::1", 7},
      {"host:65535", 0, "host", 65535},
      {"host:65536", LDAP_PARAM_ERROR, nullptr, 0},
      {"host:-1", LDAP_PARAM_ERROR, nullptr, 0},
      {"host:38x", LDAP_PARAM_ERROR, nullptr, 0},
      {"[::1]:x", LDAP_PARAM_ERROR, nullptr, 0},
  };
  for (const auto &c : cases) {
    char host[LDAP_HOST_ENTRY_MAX];
    int port = -5;
    EXPECT_EQ(ldap_split_host_entry(c.entry, host, sizeof host, &port), c.rc) << c.entry;
    if (c.rc == 0) {
      EXPECT_STREQ(host, c.host) << c.entry;
      EXPECT_EQ(port, c.port) << c.entry;
    }
  }
  // Entries longer than the working buffer are refused, never cut.
  std::string long_entry(LDAP_HOST_ENTRY_MAX, 'a');
  char host[LDAP_HOST_ENTRY_MAX];
  int port;
  EXPECT_EQ(ldap_split_host_entry(long_entry.c_str(), host, sizeof host, &port), LDAP_PARAM_ERROR);
  char small[8];
  EXPECT_EQ(ldap_split_host_entry("12345678:1", small, sizeof small, &port), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_split_host_entry("1234567:1", small, sizeof small, &port), 0);
}

TEST(HostList, FailsOverInWrittenOrderAndSkipsOversizeEntries) {
  Listener first, second;
  int dead = closed_port();
  std::string oversize(LDAP_HOST_ENTRY_MAX + 10, 'x');
  struct {
    std::string list;
    int port;  // the listener expected, 0 for none
  } cases[] = {
      {"127.0.0.1:" + std::to_string(dead) + "  127.0.0.1:" + std::to_string(first.port), first.port},
      {"127.0.0.1:" + std::to_string(second.port) + " 127.0.0.1:" + std::to_string(first.port), second.port},
      {oversize + " 127.0.0.1:" + std::to_string(second.port), second.port},
      {"127.0.0.1", first.port},  // no port written: the record's port
      {"127.0.0.1:" + std::to_string(dead), 0},
      {"no-such-host.invalid", 0},
  };
  for (const auto &c : cases) {
    LDAP *ld = ldap_init("placeholder", first.port);
    ASSERT_NE(ld, nullptr);
    free(ld->ld_defconn->lc_host);
    ld->ld_defconn->lc_host = strdup(c.list.c_str());
    int rc = open_default_connection(ld);
    if (c.port != 0) {
      ASSERT_EQ(rc, 0) << c.list;
      EXPECT_EQ(ld->ld_defconn->lc_connected, 1);
      EXPECT_EQ(peer_port(ld->ld_defconn->lc_sb.sb_sd), c.port) << c.list;
      EXPECT_EQ(fcntl(ld->ld_defconn->lc_sb.sb_sd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    } else {
      EXPECT_EQ(rc, LDAP_SERVER_DOWN) << c.list;
      EXPECT_EQ(ld->ld_defconn->lc_connected, 0);
    }
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
}

TEST(HostList, EmptyOrOversizeOnlyListsFail) {
  LDAP *ld = ldap_init("placeholder", 0);
  ASSERT_NE(ld, nullptr);
  for (std::string list : {std::string(""), std::string("   "), std::string(600, 'y')}) {
    free(ld->ld_defconn->lc_host);
    ld->ld_defconn->lc_host = strdup(list.c_str());
    EXPECT_NE(open_default_connection(ld), 0) << list.size();
    EXPECT_EQ(ld->ld_defconn->lc_connected, 0);
  }
  ldap_unbind(ld);
}

TEST(Resolution, UnresolvableNamesGiveServerDownAndOversizeNamesAreRefused) {
  addrinfo *ai = nullptr;
  errno = 0;
  EXPECT_EQ(olx_getaddrinfo("no-such-host.invalid", htons(389), &ai), LDAP_SERVER_DOWN);
  EXPECT_EQ(errno, EHOSTUNREACH);
  EXPECT_EQ(ai, nullptr);
  std::string huge(LDAP_ADDRINFO_HOST_MAX, 'h');
  EXPECT_EQ(olx_getaddrinfo(huge.c_str(), htons(389), &ai), LDAP_PARAM_ERROR);
  ASSERT_EQ(olx_getaddrinfo("127.0.0.1", htons(1389), &ai), 0);
  ASSERT_NE(ai, nullptr);
  EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in *>(ai->ai_addr)->sin_port), 1389);
  freeaddrinfo(ai);
  for (long n = 1; n <= 2; ++n) {
    olx_fail_alloc_at(n);
    EXPECT_EQ(olx_getaddrinfo("127.0.0.1", htons(1), &ai), LDAP_NO_MEMORY);
  }
  olx_fail_alloc_at(0);
}

TEST(LocalSocket, MissingSocketGivesConnectErrorAndLongPathsAreRefused) {
  tavtest::TempDir dir;
  Sockbuf sb{-1, nullptr};
  EXPECT_EQ(open_connection(&sb, dir.file("nothing-here").c_str(), htons(389)), LDAP_CONNECT_ERROR);
  EXPECT_EQ(sb.sb_sd, -1);
  std::string long_path = "/" + std::string(sizeof(((sockaddr_un *)nullptr)->sun_path), 'p');
  EXPECT_EQ(open_connection(&sb, long_path.c_str(), htons(389)), LDAP_PARAM_ERROR);
  EXPECT_EQ(open_connection(&sb, nullptr, htons(389)), LDAP_SERVER_DOWN);
}

TEST(ThreadConnection, OverridesArePerThreadAndRemovableFromTheMiddle) {
  LDAP *ld = ldap_init("h", 0);
  ASSERT_NE(ld, nullptr);
  LDAPConn *mine[3];
  for (auto &c : mine) c = ldap_lc_init("other", 1, 8);
  // Three threads set overrides (so the list holds three records); the middle
  // one removes its own; the others still find theirs.
  std::atomic<int> stage{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i)
    threads.emplace_back([&, i] {
      while (stage != i) std::this_thread::yield();
      EXPECT_EQ(get_default_connection(ld), ld->ld_defconn);
      EXPECT_EQ(ldap_set_thread_connection(ld, mine[i]), 0);
      EXPECT_EQ(get_default_connection(ld), mine[i]);
      stage++;
      while (stage < 3) std::this_thread::yield();
      if (i == 1) {
        EXPECT_EQ(ldap_set_thread_connection(ld, nullptr), 0);
        EXPECT_EQ(get_default_connection(ld), ld->ld_defconn);
        stage++;
      } else {
        while (stage < 4) std::this_thread::yield();
        EXPECT_EQ(get_default_connection(ld), mine[i]);
        EXPECT_EQ(ldap_set_thread_connection(ld, mine[(i + 1) % 3]), 0);  // replace
        EXPECT_EQ(get_default_connection(ld), mine[(i + 1) % 3]);
      }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(get_default_connection(ld), ld->ld_defconn);
  EXPECT_EQ(ldap_set_thread_connection(ld, nullptr), 0);  // nothing to remove
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_set_thread_connection(ld, mine[0]), LDAP_NO_MEMORY);
  olx_fail_alloc_at(0);
  for (auto &c : mine) ldap_lc_free(c);
  ldap_unbind(ld);  // frees the two records still in the list
}

TEST(ConnectionSet, SpellingsOfOneServerShareAConnectionAndPortsDoNot) {
  Listener server, other;
  LDAP *ld = ldap_init("127.0.0.1", server.port);
  ASSERT_NE(ld, nullptr);
  LDAPConn *def = ld->ld_defconn;
  struct {
    const char *host;
    int port;
    int include_default;
    bool matches_default;
  } cases[] = {
      {"127.0.0.1", server.port, 1, true},
      {"127.1", server.port, 1, true},       // same address, other spelling
      {"2130706433", server.port, 1, true},  // and another
      {"127.0.0.1", other.port, 1, false},
      {"127.0.0.1", server.port, 0, false},  // the default connection left out
      {"no-such-host.invalid", server.port, 1, false},
  };
  for (const auto &c : cases) {
    int rc = -1;
    EXPECT_EQ(ldap_get_connection(ld, c.host, c.port, 0, &rc, c.include_default) == def, c.matches_default)
        << c.host << ":" << c.port;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(ldap_conn_matches(def, c.host, c.port) == 1,
              c.port == server.port && strstr(c.host, "invalid") == nullptr)
        << c.host;
  }
  int rc = -1;
  EXPECT_EQ(ldap_get_connection(ld, nullptr, 0, 0, &rc, 0), def);

  // Opening: a new record joins the tail, connected; a second spelling finds it.
  LDAPConn *added = ldap_get_connection(ld, "127.0.0.1", other.port, 1, &rc, 1);
  ASSERT_NE(added, nullptr);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(def->lc_next, added);
  EXPECT_EQ(added->lc_ld, ld);
  EXPECT_EQ(added->lc_connected, 1);
  EXPECT_EQ(added->lc_msgtable->size, 8u);
  EXPECT_EQ(ldap_get_connection(ld, "127.1", other.port, 1, &rc, 0), added);
  EXPECT_EQ(ldap_get_connection(ld, "127.0.0.1", closed_port(), 1, &rc, 1), nullptr);
  EXPECT_EQ(rc, LDAP_SERVER_DOWN);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_get_connection(ld, "127.0.0.1", 9, 1, &rc, 1), nullptr);
  olx_fail_alloc_at(0);
  EXPECT_EQ(rc, LDAP_NO_MEMORY);
  EXPECT_EQ(def->lc_next, added);
  EXPECT_EQ(added->lc_next, nullptr);

  // Idle connections leave the list and are freed; the default one stays.
  ldap_free_connection_if_idle(ld, def);
  EXPECT_EQ(ld->ld_servers, def);
  ldap_free_connection_if_idle(ld, added);
  EXPECT_EQ(def->lc_next, nullptr);
  ldap_free_connection_if_idle(ld, nullptr);
  ldap_unbind(ld);
}

TEST(ConnectionSet, UrlPortSentinelsBecomeThePlainDefault) {
  LDAP *ld = ldap_init("127.0.0.1", 389);
  ASSERT_NE(ld, nullptr);
  int rc = -1;
  EXPECT_EQ(ldap_get_connection(ld, "127.0.0.1", LDAP_URL_PORT_DEFAULT, 0, &rc, 1), ld->ld_defconn);
  EXPECT_EQ(ldap_get_connection(ld, "127.0.0.1", LDAP_URL_PORT_DEFAULT_SECURE, 0, &rc, 1), ld->ld_defconn);
  ldap_unbind(ld);
}

TEST(Locking, ResolutionWaitsForTheSystemCallLockAndDefaultLookupNeedsNoLock) {
  LDAP *ld = ldap_init("127.0.0.1", 389);
  ASSERT_NE(ld, nullptr);
  ASSERT_EQ(lock_syscall_mutex(), 0);
  std::atomic<bool> resolved{false};
  std::thread resolver([&] {
    addrinfo *ai = nullptr;
    EXPECT_EQ(olx_getaddrinfo("127.0.0.1", htons(1), &ai), 0);
    freeaddrinfo(ai);
    resolved = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(resolved) << "name resolution ran without the system-call lock";
  ASSERT_EQ(unlock_syscall_mutex(), 0);
  resolver.join();
  EXPECT_TRUE(resolved);

  // With no overrides the default connection comes back even while another
  // thread holds the override lock.
  std::atomic<bool> held{false}, done{false};
  std::thread holder([&] {
    pthread_mutex_lock(&ld->ld_thread_conn_mutex);
    held = true;
    while (!done) std::this_thread::yield();
    pthread_mutex_unlock(&ld->ld_thread_conn_mutex);
  });
  while (!held) std::this_thread::yield();
  EXPECT_EQ(get_default_connection(ld), ld->ld_defconn);
  done = true;
  holder.join();
  ldap_unbind(ld);
}

TEST(AllocationFailures, OpenAndReferralConnectionsFreeWhatTheyMade) {
  Listener server, other;
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    LDAP *ld = ldap_open("127.0.0.1", server.port);
    long used = olx_fail_alloc_at(0);
    if (ld != nullptr) ldap_unbind(ld);
    ASSERT_LT(n, 500);
    if (used < n) {
      EXPECT_NE(ld, nullptr);
      break;
    }
  }
  LDAP *ld = ldap_init("127.0.0.1", server.port);
  ASSERT_NE(ld, nullptr);
  for (long n = 1;; ++n) {
    int rc = -1;
    olx_fail_alloc_at(n);
    LDAPConn *lc = ldap_get_connection(ld, "127.0.0.1", other.port, 1, &rc, 1);
    long used = olx_fail_alloc_at(0);
    ASSERT_LT(n, 500);
    if (lc == nullptr) {
      EXPECT_NE(rc, 0);
      EXPECT_EQ(ld->ld_defconn->lc_next, nullptr);
      continue;
    }
    EXPECT_EQ(rc, 0);
    ldap_free_connection_if_idle(ld, lc);
    if (used < n) break;
  }
  ldap_unbind(ld);
}
