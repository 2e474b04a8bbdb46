// The pure parts of the SSL layer: the I/O callbacks on a socket pair, the
// handshake budget, the toolkit's name and place, the loader's edges.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "alloc_sweep.h"
#include "ldap-debug.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"
#include "trace_watch.h"

namespace {

struct SocketPair {
  int fd[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~SocketPair() {
    close(fd[0]);
    close(fd[1]);
  }
};

bool non_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

TEST(SslCallbacks, SocketOptionsRecordTheCommandAndActOnlyOnAChange) {
  SocketPair p;
  char user[8] = {0};
  EXPECT_EQ(ssl_set_socket_options(p.fd[0], 901, user), 0);
  EXPECT_STREQ(user, "901");
  EXPECT_TRUE(non_blocking(p.fd[0]));
  fcntl(p.fd[0], F_SETFL, 0);
  EXPECT_EQ(ssl_set_socket_options(p.fd[0], 901, user), 0);
  EXPECT_FALSE(non_blocking(p.fd[0])) << "the same command again does nothing";
  EXPECT_EQ(ssl_set_socket_options(p.fd[0], 900, user), 0);
  EXPECT_STREQ(user, "900");
  EXPECT_TRUE(non_blocking(p.fd[0]));
  EXPECT_EQ(ssl_set_socket_options(p.fd[0], 17, user), -1);
  EXPECT_STREQ(user, "17") << "recorded even when refused";
  EXPECT_EQ(ssl_set_socket_options(p.fd[0], 12345678, user), -1) << "does not fit the user string";
}

TEST(SslCallbacks, HandshakeReadGathersPiecesIntoOneFullRead) {
  SocketPair p;
  char user[8] = "900";
  ASSERT_EQ(ssl_set_socket_options(p.fd[0], 900, nullptr), 0);
  const std::string message = "0123456789abcdefghij";
  ASSERT_EQ(write(p.fd[1], message.data(), 5), 5);
  std::thread writer([&] {
    EXPECT_EQ(write(p.fd[1], message.data() + 5, 7), 7);
    EXPECT_EQ(write(p.fd[1], message.data() + 12, 8), 8);
  });
  char buf[32] = {0};
  EXPECT_EQ(ssl_read(p.fd[0], buf, (int)message.size(), user), (int)message.size());
  writer.join();
  EXPECT_EQ(std::string(buf), message);
}

TEST(SslCallbacks, HandshakeBudgetArithmetic) {
  struct Case {
    timeval budget, last, now;
    int used_up;
    timeval left;
  } cases[] = {
      {{5, 0}, {100, 900000}, {101, 100000}, 0, {4, 800000}},  // microseconds borrow
      {{5, 0}, {100, 0}, {105, 0}, 0, {0, 0}},                 // exactly used: nothing left, not exceeded
      {{5, 0}, {100, 0}, {105, 1}, 1, {5, 0}},                 // exceeded
      {{5, 0}, {100, 5}, {100, 4}, 1, {5, 0}},                 // the clock went back
  };
  for (Case &c : cases) {
    timeval last = c.last;
    EXPECT_EQ(ldap_ssl_budget_spend(&c.budget, &last, &c.now), c.used_up);
    if (!c.used_up) {
      EXPECT_EQ(c.budget.tv_sec, c.left.tv_sec);
      EXPECT_EQ(c.budget.tv_usec, c.left.tv_usec);
      EXPECT_EQ(last.tv_sec, c.now.tv_sec);
    }
  }
}

TEST(SslToolkitName, GenerationAndPlaceFromTheEnvironment) {
  unsetenv("TAVLIB_CLIENT_VERSION");
  char *name = getTAVLibrary();
  char *path = ldap_get_default_libpath();
  EXPECT_STREQ(name, "libtav7ssl_64.so");
  EXPECT_STREQ(path, "/usr/lib/64/libtav7ssl_64.so");
  free(name);
  free(path);
  setenv("TAVLIB_CLIENT_VERSION", "8", 1);
  name = getTAVLibrary();
  EXPECT_STREQ(name, "libtav8ssl_64.so");
  free(name);
  unsetenv("TAVLIB_CLIENT_VERSION");
  char *kdb = nullptr;
  EXPECT_EQ(ldap_get_etc_file_path("ldapkey.kdb", '/', &kdb), 0);
  EXPECT_STREQ(kdb, "/opt/KRV/ldap/V6.2/etc/ldapkey.kdb");
  free(kdb);
  EXPECT_EQ(ldap_get_etc_file_path(nullptr, '/', &kdb), LDAP_PARAM_ERROR);
}

TEST(SslToolkitName, AllocationFailuresGiveNull) {
  tavtest::sweep_allocations(ldap_get_default_libpath, [](char *path, bool failed, long n) {
    EXPECT_STREQ(path, failed ? nullptr : "/usr/lib/64/libtav7ssl_64.so") << "allocation " << n;
    free(path);
  });
}

TEST(SslLoader, EdgesAndUnloadedToolkit) {
  EXPECT_EQ(ldap_dlsym(nullptr, "x"), nullptr);
  EXPECT_EQ(ldap_dlclose(nullptr), 80);
  const std::string trace =
      tavtest::traced(0xffffffffu, [] { EXPECT_EQ(ldap_dlopen("/nonexistent/lib.so", 0), nullptr); });
  EXPECT_NE(trace.find("dlopen(/nonexistent/lib.so," + std::to_string(RTLD_NOW | RTLD_GLOBAL) + ") failed at 190 in "),
            std::string::npos)
      << trace;
  ldap_dl *self = ldap_dlopen(nullptr, 0);
  ASSERT_NE(self, nullptr);
  EXPECT_EQ(ldap_dlsym(self, nullptr), nullptr);
  EXPECT_EQ(ldap_dlclose(self), 0);
  EXPECT_STREQ(tav_error_text(502), "Tavlib not loaded");
  EXPECT_EQ(checkCiphers("0A3"), 0) << "no list of valid codes: everything passes";
  EXPECT_EQ(checkCiphers(nullptr), 0);
}

}  // namespace
