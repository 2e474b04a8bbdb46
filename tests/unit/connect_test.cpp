// Host lists, sockets, name resolution and the session's set of connections,
// against listening sockets on loopback.  Unresolvable names are ones the
// resolver refuses without asking a name server ("a..b").
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"
#include "process.h"
#include "slapd_server.h"
#include "trace_watch.h"

namespace {

constexpr const char *kUnresolvable = "no-such-host..invalid";

// A listener on 127.0.0.1, on ::1 or on a local socket path; the kernel
// completes connections to it.
struct Listener {
  int fd = -1, port = 0;
  explicit Listener(const std::string &where = "127.0.0.1") {
    sockaddr_storage ss{};
    auto *in4 = reinterpret_cast<sockaddr_in *>(&ss);
    auto *in6 = reinterpret_cast<sockaddr_in6 *>(&ss);
    auto *un = reinterpret_cast<sockaddr_un *>(&ss);
    socklen_t len = where[0] == '/' ? sizeof *un : where == "::1" ? sizeof *in6 : sizeof *in4;
    if (where[0] == '/') {
      un->sun_family = AF_UNIX;
      snprintf(un->sun_path, sizeof un->sun_path, "%s", where.c_str());
    } else if (where == "::1") {
      in6->sin6_family = AF_INET6;
      in6->sin6_addr = in6addr_loopback;
    } else {
      in4->sin_family = AF_INET;
      in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    fd = socket(ss.ss_family, SOCK_STREAM, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&ss), len), 0) << where;
    listen(fd, 16);
    getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len);
    port = ss.ss_family == AF_INET ? ntohs(in4->sin_port) : ss.ss_family == AF_INET6 ? ntohs(in6->sin6_port) : 0;
  }
  ~Listener() { close(fd); }
};

int peer_port(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  return getpeername(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0 ? ntohs(a.sin_port) : -1;
}

// open_default_connection on a session whose host list is `list`.
int open_list(LDAP *ld, const std::string &list) {
  free(ld->ld_defconn->lc_host);
  ld->ld_defconn->lc_host = strdup(list.c_str());
  return open_default_connection(ld);
}

}  // namespace

TEST(HostEntry, SplitsHostAndPort) {
  const int bad = LDAP_PARAM_ERROR;
  const std::tuple<const char *, int, const char *, int> cases[] = {
      {"host", 0, "host", 0},         {"host:1389", 0, "host", 1389},  {"host:", 0, "host", 0},
      {"fe80::1", 0, "fe80::1", 0},   {"[fe80::1]:1389", 0, "fe80::1", 1389}, {"[::1]", 0, "::1", 0},
      {"::1]:7", 0, "::1", 7},        {"host:65535", 0, "host", 65535}, {"host:65536", bad, "", 0},
      {"host:-1", bad, "", 0},        {"host:38x", bad, "", 0},         {"[::1]:x", bad, "", 0}};
  for (const auto &[entry, rc, want_host, want_port] : cases) {
    char host[LDAP_HOST_ENTRY_MAX] = "";
    int port = rc ? 0 : -5;
    EXPECT_EQ(ldap_split_host_entry(entry, host, sizeof host, &port), rc) << entry;
    EXPECT_EQ(std::make_pair(std::string(rc ? "" : host), port), std::make_pair(std::string(want_host), want_port))
        << entry;
  }
  // Entries longer than the working buffer are refused, never cut.
  std::string long_entry(LDAP_HOST_ENTRY_MAX, 'a');
  char host[LDAP_HOST_ENTRY_MAX], small[8];
  int port;
  EXPECT_EQ(ldap_split_host_entry(long_entry.c_str(), host, sizeof host, &port), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_split_host_entry("12345678:1", small, sizeof small, &port), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_split_host_entry("1234567:1", small, sizeof small, &port), 0);
}

TEST(HostList, FailsOverInWrittenOrderSkippingBadEntries) {
  Listener first, second;
  const std::string dead = "127.0.0.1:" + std::to_string(tavtest::free_port());
  const std::pair<std::string, int> cases[] = {
      {dead + "  127.0.0.1:" + std::to_string(first.port), first.port},
      {"127.0.0.1:" + std::to_string(second.port) + " 127.0.0.1:" + std::to_string(first.port), second.port},
      {std::string(LDAP_HOST_ENTRY_MAX + 10, 'x') + " 127.0.0.1:" + std::to_string(second.port), second.port},
      {std::string(kUnresolvable) + "\t127.0.0.1:" + std::to_string(second.port), second.port},
      {"127.0.0.1", first.port},  // no port written: the record's port
      {dead, 0},
      {kUnresolvable, 0},
      {"", -1},
      {"   ", -1},
      {std::string(600, 'y'), -1}  // -1: no usable entry
  };
  for (const auto &[list, port] : cases) {
    SCOPED_TRACE(list);
    LDAP *ld = ldap_init("placeholder", first.port);
    int rc = open_list(ld, list);
    EXPECT_EQ(ld->ld_defconn->lc_connected, port > 0);
    if (port <= 0) {
      EXPECT_TRUE(port < 0 ? rc != 0 : rc == LDAP_SERVER_DOWN) << rc;
    } else {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(peer_port(ld->ld_defconn->lc_sb.sb_sd), port);
      EXPECT_EQ(fcntl(ld->ld_defconn->lc_sb.sb_sd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    }
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
}

// ldap_open connects at once, over IPv4, IPv6 or a local socket, speaking the
// version LDAP_VERSION names: exactly "3" gives 3, anything else 2.
TEST(HostList, OpenConnectsEveryKindOfEntryWithTheVersionFromTheEnvironment) {
  tavtest::TempDir dir;
  Listener v4, v6("::1"), local(dir.file("ldapi"));
  const std::tuple<std::string, int, const char *, int> cases[] = {
      {"127.0.0.1", v4.port, nullptr, 2}, {"127.0.0.1", v4.port, "3", 3},
      {"127.0.0.1", v4.port, "3 ", 2},    {"127.0.0.1", v4.port, "2", 2},
      {"::1", v6.port, "3", 3},           {"[::1]:" + std::to_string(v6.port), 0, "3", 3},
      {dir.file("ldapi"), 0, "3", 3}};
  for (const auto &[host, port, version, want] : cases) {
    version ? setenv("LDAP_VERSION", version, 1) : unsetenv("LDAP_VERSION");
    LDAP *ld = ldap_open(host.c_str(), port);
    ASSERT_NE(ld, nullptr) << host;
    EXPECT_EQ(ld->ld_version, want) << host << " " << (version ? version : "(unset)");
    EXPECT_EQ(ld->ld_defconn->lc_connected, 1);
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
  unsetenv("LDAP_VERSION");
  EXPECT_EQ(ldap_open(kUnresolvable, v4.port), nullptr);
}

TEST(Resolution, NamesAndLocalSockets) {
  addrinfo *ai = nullptr;
  errno = 0;
  EXPECT_EQ(olx_getaddrinfo(kUnresolvable, htons(389), &ai), LDAP_SERVER_DOWN);
  EXPECT_EQ(errno, EHOSTUNREACH);
  EXPECT_EQ(ai, nullptr);
  EXPECT_EQ(olx_getaddrinfo(std::string(LDAP_ADDRINFO_HOST_MAX, 'h').c_str(), htons(389), &ai), LDAP_PARAM_ERROR);
  ASSERT_EQ(olx_getaddrinfo("127.0.0.1", htons(1389), &ai), 0);
  EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in *>(ai->ai_addr)->sin_port), 1389);
  freeaddrinfo(ai);
  for (long n = 1; n <= 2; ++n) {
    olx_fail_alloc_at(n);
    EXPECT_EQ(olx_getaddrinfo("127.0.0.1", htons(1), &ai), LDAP_NO_MEMORY);
  }
  olx_fail_alloc_at(0);
  // A host beginning with "/" is a local socket.
  tavtest::TempDir dir;
  Sockbuf sb{};
  sb.sb_sd = -1;
  EXPECT_EQ(open_connection(&sb, dir.file("nothing-here").c_str(), htons(389)), LDAP_CONNECT_ERROR);
  EXPECT_EQ(sb.sb_sd, -1);
  std::string long_path = "/" + std::string(sizeof(((sockaddr_un *)nullptr)->sun_path), 'p');
  EXPECT_EQ(open_connection(&sb, long_path.c_str(), htons(389)), LDAP_PARAM_ERROR);
  EXPECT_EQ(open_connection(&sb, nullptr, htons(389)), LDAP_SERVER_DOWN);
}

TEST(ThreadConnection, OverridesArePerThreadAndRemovableFromTheMiddle) {
  LDAP *ld = ldap_init("h", 0);
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
  LDAPConn *def = ld->ld_defconn;
  const std::tuple<const char *, int, int, bool> cases[] = {
      {"127.0.0.1", server.port, 1, true},   {"127.1", server.port, 1, true},  // other spellings
      {"2130706433", server.port, 1, true},  {"127.0.0.1", other.port, 1, false},
      {"127.0.0.1", server.port, 0, false},  // the default connection left out
      {kUnresolvable, server.port, 1, false}};
  for (const auto &[host, port, with_default, matches] : cases) {
    int rc = -1;
    EXPECT_EQ(ldap_get_connection(ld, host, port, 0, &rc, with_default) == def, matches) << host << ":" << port;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(ldap_conn_matches(def, host, port) == 1, port == server.port && host != kUnresolvable) << host;
  }
  int rc = -1;
  EXPECT_EQ(ldap_get_connection(ld, nullptr, 0, 0, &rc, 0), def);
  LDAP *plain = ldap_init("127.0.0.1", 389);  // the URL port sentinels mean the plain default
  EXPECT_EQ(ldap_get_connection(plain, "127.0.0.1", LDAP_URL_PORT_DEFAULT, 0, &rc, 1), plain->ld_defconn);
  EXPECT_EQ(ldap_get_connection(plain, "127.0.0.1", LDAP_URL_PORT_DEFAULT_SECURE, 0, &rc, 1), plain->ld_defconn);
  ldap_unbind(plain);

  // Opening: a new record joins the tail, connected; a second spelling finds it.
  LDAPConn *added = ldap_get_connection(ld, "127.0.0.1", other.port, 1, &rc, 1);
  ASSERT_NE(added, nullptr);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(def->lc_next, added);
  EXPECT_EQ(added->lc_ld, ld);
  EXPECT_EQ(added->lc_connected, 1);
  EXPECT_EQ(added->lc_msgtable->size, 8u);
  EXPECT_EQ(ldap_get_connection(ld, "127.1", other.port, 1, &rc, 0), added);
  EXPECT_EQ(ldap_get_connection(ld, "127.0.0.1", tavtest::free_port(), 1, &rc, 1), nullptr);
  EXPECT_EQ(rc, LDAP_SERVER_DOWN);
  EXPECT_EQ(added->lc_next, nullptr);
  // Idle connections leave the list and are freed; the default one stays.
  ldap_free_connection_if_idle(ld, def);
  EXPECT_EQ(ld->ld_servers, def);
  ldap_free_connection_if_idle(ld, added);
  EXPECT_EQ(def->lc_next, nullptr);
  ldap_free_connection_if_idle(ld, nullptr);
  ldap_unbind(ld);
}

TEST(Locking, ResolutionWaitsForTheSystemCallLockAndDefaultLookupNeedsNoLock) {
  LDAP *ld = ldap_init("127.0.0.1", 389);
  ASSERT_EQ(lock_syscall_mutex(), 0);
  std::atomic<bool> resolved{false};
  std::thread resolver;
  {
    tavtest::TraceWatch trace(0x1);
    resolver = std::thread([&] {
      addrinfo *ai = nullptr;
      EXPECT_EQ(olx_getaddrinfo("127.0.0.1", htons(1), &ai), 0);
      freeaddrinfo(ai);
      resolved = true;
    });
    ASSERT_TRUE(trace.wait_for("olx_getaddrinfo: host(127.0.0.1)"));  // it has begun
  }
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
