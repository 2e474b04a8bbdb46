// Secure connections end to end: the toolkit loaded from the build, key
// databases made with its tool, a private slapd with an ldaps listener, and a
// scripted server that never answers the handshake.
#include <gtest/gtest.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <tuple>

#include "fake_server.h"
#include "fber-stream.h"
#include "keydb.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-search.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"
#include "ldap_requests.h"
#include "process.h"
#include "slapd_suite.h"
#include "trace_watch.h"

using tavtest::SlapdServer;

namespace {

constexpr const char *kKdbPassword = "kdb-pass";

// Key databases in a temporary directory, made from the certificates in `tls`:
// good.kdb (the CA, the client certificate "tls-client", stashed),
// other.kdb (only a CA the server does not use), nostash.kdb (no stash file).
struct KeyDatabases {
  tavtest::TempDir dir;
  std::string error;
  explicit KeyDatabases(const std::string &tls) {
    const std::string pw = kKdbPassword;
    for (const auto &args : std::vector<std::vector<std::string>>{
             {"create", good(), "-pw", pw, "-stash"},
             {"add-ca", good(), "-stashed", "-label", "ca", "-cert", tls + "/ca.pem"},
             {"import", good(), "-pw", pw, "-label", "tls-client", "-cert", tls + "/client.pem", "-key",
              tls + "/client.key"},
             {"create", other(), "-pw", pw, "-stash"},
             {"add-ca", other(), "-pw", pw, "-label", "ca", "-cert", tls + "/other-ca.pem"},
             {"create", nostash(), "-pw", pw},
         }) {
      error = tavtest::keydb_tool(args);
      if (!error.empty()) return;
    }
  }
  std::string good() const { return dir.file("good.kdb"); }
  std::string other() const { return dir.file("other.kdb"); }
  std::string nostash() const { return dir.file("nostash.kdb"); }
};

// Every test runs in its own process: the toolkit is found by its bare name.
void load_from_build() {
  setenv("TAVLIB_LOCAL_INSTALL_MODE", "1", 1);
  unsetenv("TAVLIB_CLIENT_VERSION");
  unsetenv("TAVLIB_SHIPPED_KCL");
}

int count_entries(LDAP *ld, int scope) {
  LDAPMessage *res = nullptr;
  int rc = ldap_search_s(ld, SlapdServer::kSuffix, scope, "(objectClass=*)", nullptr, 0, &res);
  int n = rc == 0 ? ldap_count_entries(ld, res) : -1;
  ldap_msgfree(res);
  return n;
}

std::string string_option(LDAP *ld, int option, int *rc) {
  char *v = nullptr;
  *rc = ldap_get_option(ld, option, &v);
  std::string s = v != nullptr ? v : "(null)";
  free(v);
  return s;
}

// Passes one connection through to a real server.  Of the server's side only
// the first `budget` bytes go through, then both ends close: the server, as
// the client sees it, closes at that byte.  While `hold` is set, what the
// server writes waits in held() for the test to pass on with to_client().
class Relay {
 public:
  explicit Relay(int upstream_port, size_t budget = SIZE_MAX) : upstream_port_(upstream_port), budget_(budget) {
    listen_fd_ = tavtest::loopback_listen(1, &port_);
    if (listen_fd_ >= 0) thread_ = std::thread([this] { run(); });
  }
  ~Relay() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    close(listen_fd_);
  }
  int port() const { return port_; }
  std::atomic<bool> hold{false};
  // What the server wrote while held, once it has stopped growing.
  std::string held() {
    for (size_t size = 0, quiet = 0; quiet < 10; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
      std::lock_guard<std::mutex> lock(mu_);
      quiet = held_.size() == size && size > 0 ? quiet + 1 : 0;
      size = held_.size();
    }
    std::lock_guard<std::mutex> lock(mu_);
    return held_;
  }
  void to_client(const std::string &bytes) {
    EXPECT_EQ(write(client_, bytes.data(), bytes.size()), (ssize_t)bytes.size());
  }

 private:
  void run() {
    pollfd wait_accept = {listen_fd_, POLLIN, 0};
    if (poll(&wait_accept, 1, 20000) != 1) return;
    client_ = accept(listen_fd_, nullptr, nullptr);
    const int server = tavtest::loopback_connect(upstream_port_);
    size_t passed = 0;
    char buf[16384];
    while (client_ >= 0 && server >= 0 && passed < budget_ && !stop_) {
      pollfd fds[2] = {{client_, POLLIN, 0}, {server, POLLIN, 0}};
      if (poll(fds, 2, 20) <= 0) continue;
      if (fds[0].revents != 0) {
        const ssize_t n = read(client_, buf, sizeof buf);
        if (n <= 0 || write(server, buf, n) != n) break;
      }
      if (fds[1].revents != 0) {
        const ssize_t n = read(server, buf, std::min(sizeof buf, budget_ - passed));
        std::lock_guard<std::mutex> lock(mu_);
        if (n <= 0 || (hold ? (held_.append(buf, n), false) : write(client_, buf, n) != n)) break;
        passed += n;
      }
    }
    if (client_ >= 0) close(client_);
    if (server >= 0) close(server);
  }
  int upstream_port_;
  size_t budget_;
  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<int> client_{-1};
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mu_;
  std::string held_;
};

// A suite's slapd with an ldaps listener, the toolkit from the build and key
// databases made from the server's certificates.
template <typename Suite>
class SslSuite : public tavtest::SlapdSuite<Suite> {
 protected:
  void SetUp() override {
    tavtest::SlapdSuite<Suite>::SetUp();
    load_from_build();
    keys = std::make_unique<KeyDatabases>(this->slapd->dir() + "/tls");
    ASSERT_EQ(keys->error, "");
  }
  std::unique_ptr<KeyDatabases> keys;
};

class SslSlapd : public SslSuite<SslSlapd> {
 public:
  static tavtest::SlapdOptions options() { return {.tls = true}; }

 protected:
  LDAP *secure_session(const char *label = nullptr) { return ldap_ssl_init("127.0.0.1", slapd->tls_port(), label); }
};

TEST_F(SslSlapd, SearchOverLdapsWithTheSessionsSslPropertiesReadFromTheConnection) {
  int code = -1;
  EXPECT_EQ(ldap_ssl_init("127.0.0.1", slapd->tls_port(), nullptr), nullptr) << "no session before SSL is set up";
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, &code), 0);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(ldap_ssl_client_init(keys->other().c_str(), kKdbPassword, 0, &code), LDAP_SSL_ALREADY_INITIALIZED);
  EXPECT_EQ(code, 0);
  LDAP *ld = secure_session();
  ASSERT_NE(ld, nullptr);
  ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(1).c_str(), SlapdServer::user_password(1).c_str()), 0);
  EXPECT_EQ(count_entries(ld, LDAP_SCOPE_SUBTREE), 3 + 5);

  int on = -1, off = -1, active = -1, rc = -1;
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SSL, &on), 0);
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_NOSSL, &off), 0);
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SSL_ACTIVE, &active), 0);
  EXPECT_EQ(on, 1);
  EXPECT_EQ(off, 0);
  EXPECT_EQ(active, 1);
  EXPECT_EQ(string_option(ld, LDAP_OPT_SSL_CURRENT_CIPHER, &rc), "T2");  // TLS 1.3, AES-256-GCM
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(string_option(ld, LDAP_OPT_SSL_KEYDB, &rc), keys->good());
  EXPECT_EQ(string_option(ld, LDAP_OPT_SSL_CERT_ALTNAME, &rc), "localhost,127.0.0.1");
  EXPECT_EQ(string_option(ld, LDAP_OPT_SSL_CERT_ALTNAME2, &rc), "localhost");
  EXPECT_EQ(string_option(ld, LDAP_OPT_SSL_CLIENT_LABEL, &rc), "(null)");
  EXPECT_EQ(rc, LDAP_PARAM_ERROR) << "no client certificate was chosen";
  EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST_F(SslSlapd, ClientCertificateChosenByLabelIsTheSaslExternalIdentity) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), nullptr, 0, nullptr), 0) << "password from the stash file";
  LDAP *ld = secure_session("tls-client");
  ASSERT_NE(ld, nullptr);
  struct berval empty = {0, const_cast<char *>("")};
  ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", &empty, nullptr, nullptr, nullptr), 0);
  int rc = -1;
  EXPECT_EQ(string_option(ld, LDAP_OPT_SSL_CLIENT_LABEL, &rc), "tls-client");
  const std::string who = tavtest::whoami(ld);
  EXPECT_EQ(strcasecmp(who.c_str(), "dn:uid=user1,ou=People,dc=example,dc=com"), 0) << who;
  EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST_F(SslSlapd, DeprecatedStartMakesAPlainSessionSecure) {
  LDAP *ld = ldap_init("127.0.0.1", slapd->tls_port());
  ASSERT_EQ(ldap_ssl_start(ld, keys->good().c_str(), kKdbPassword, "tls-client"), 0);
  ASSERT_EQ(ldap_ssl_start(ld, keys->good().c_str(), kKdbPassword, nullptr), 0) << "again: SSL already set up";
  EXPECT_EQ(ldap_ssl_current_env()->count, 1u) << "one reference per session";
  EXPECT_EQ(count_entries(ld, LDAP_SCOPE_ONELEVEL), 2);
  int rc = -1;
  EXPECT_EQ(string_option(ld, LDAP_OPT_SSL_CLIENT_LABEL, &rc), "tls-client");
  EXPECT_EQ(ldap_unbind(ld), 0);
  EXPECT_EQ(ldap_ssl_current_env()->count, 0u);
  EXPECT_EQ(ldap_ssl_start(nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
}

TEST_F(SslSlapd, StartTlsSecuresThePlainConnectionOnlyWhenNothingIsOut) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  LDAP *ld = ldap_init("127.0.0.1", slapd->port());
  const int id = ldap_search(ld, SlapdServer::kSuffix, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0);
  EXPECT_EQ(ldap_start_tls_s(ld, nullptr, nullptr), LDAP_LOCAL_ERROR) << "a request is out";
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), LDAP_RES_SEARCH_RESULT);
  ldap_msgfree(res);
  // slapd drops a finished search from its connection's list only after the
  // result is sent, and refuses StartTLS with 1 while it is there; a refusal
  // leaves the connection as it was, so asking again is safe.
  int started = LDAP_OPERATIONS_ERROR;
  for (int i = 0; i < 50 && started == LDAP_OPERATIONS_ERROR; ++i) {
    if (i > 0) usleep(10000);
    started = ldap_start_tls_s(ld, nullptr, nullptr);
  }
  ASSERT_EQ(started, 0);
  EXPECT_NE(ld->ld_defconn->lc_sb.sb_ssl, nullptr);
  ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(1).c_str(), SlapdServer::user_password(1).c_str()), 0);
  EXPECT_EQ(tavtest::whoami(ld), "dn:" + SlapdServer::user_dn(1));
  EXPECT_EQ(ldap_start_tls_s(ld, nullptr, nullptr), LDAP_LOCAL_ERROR) << "TLS is on already";
  EXPECT_EQ(ldap_unbind(ld), 0);
}

// Set-up failures: the result and the toolkit's own code.
TEST_F(SslSlapd, EnvironmentFailuresGiveTheirCodes) {
  struct Case {
    const char *what;
    std::string kdb;
    const char *pw;
    int rc, code;
  } cases[] = {
      {"wrong password", keys->good(), "wrong", LDAP_SSL_INITIALIZE_FAILED, 106},
      {"no key database given, none installed", "", kKdbPassword, LDAP_SSL_INITIALIZE_FAILED, 202},
      {"named key database missing", keys->dir.file("missing.kdb"), kKdbPassword, LDAP_SSL_INITIALIZE_FAILED, 202},
      {"no password and no stash file", keys->nostash(), nullptr, LDAP_SSL_KEYRING_NOT_FOUND, 201},
  };
  for (const Case &c : cases) {
    int code = -1;
    EXPECT_EQ(ldap_ssl_environment_init(c.kdb.empty() ? nullptr : c.kdb.c_str(), c.pw, 0, &code), c.rc) << c.what;
    EXPECT_EQ(ldap_ssl_environment_init(c.kdb.empty() ? nullptr : c.kdb.c_str(), c.pw, 0, &code), c.rc) << c.what;
    if (c.rc == LDAP_SSL_INITIALIZE_FAILED) {
      EXPECT_EQ(code, c.code) << c.what;
    }
    EXPECT_EQ(ldap_ssl_current_env(), nullptr) << c.what << ": a failed environment is not kept";
    EXPECT_EQ(ldap_ssl_init_count(), 0) << c.what;
  }
  int code = -1;
  const std::string t =
      tavtest::traced(0xffff, [&] { ldap_ssl_environment_init(keys->nostash().c_str(), nullptr, 0, &code); });
  EXPECT_NE(t.find("set stash file name=[" + keys->dir.file("nostash.sth") + "]"), std::string::npos);
}

// Connection failures: the handshake or the toolkit refuses; the session
// records 116 where the handshake failed.
TEST_F(SslSlapd, ConnectionFailuresGiveTheirCodes) {
  struct Case {
    const char *what;
    bool other_ca;
    const char *label;
    const char *cipher;
    int rc;
    const char *trace;
  } cases[] = {
      {"server certificate from an unknown CA", true, nullptr, nullptr, LDAP_SSL_HANDSHAKE_FAILED,
       "rc=8 Error validating certificate"},
      {"label not in the key database", false, "nobody", nullptr, 6, "(...certlabel...) rc=6."},
      {"label of a trust anchor", false, "ca", nullptr, 407, "(...certlabel...) rc=407."},
      // RSA key exchange only, and the server's key is an EC key: slapd ends
      // the handshake (its alert may be lost to the connection reset).
      {"cipher the server does not accept", false, nullptr, "2F", LDAP_SSL_HANDSHAKE_FAILED,
       "tav_secure_soc_init() rc=4"},
      {"cipher code the toolkit does not know", false, nullptr, "ZZ", LDAP_SSL_PARAM_ERROR, "rc=422 Bad V3 cipher"},
  };
  for (const Case &c : cases) {
    int code = -1;
    ASSERT_EQ(ldap_ssl_environment_init((c.other_ca ? keys->other() : keys->good()).c_str(), kKdbPassword, 0, &code),
              0);
    LDAP *ld = secure_session(c.label);
    ASSERT_NE(ld, nullptr);
    if (c.cipher) {
      ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, c.cipher), 0);
    }
    const std::string t = tavtest::traced(0xffff, [&] { EXPECT_EQ(open_default_connection(ld), c.rc) << c.what; });
    EXPECT_NE(t.find(c.trace), std::string::npos) << c.what << "\n" << t;
    EXPECT_EQ(ld->ld_defconn->lc_sb.sb_ssl, nullptr) << c.what;
    if (c.rc == LDAP_SSL_HANDSHAKE_FAILED) {
      EXPECT_EQ(ldap_get_errno(ld), LDAP_SSL_HANDSHAKE_FAILED) << c.what;
      EXPECT_EQ(ldap_get_ext_errno(ld), LDAP_SSL_HANDSHAKE_FAILED) << c.what;
    }
    // The operation that opens the connection reports the server unreachable.
    EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), LDAP_SERVER_DOWN) << c.what;
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
}

TEST_F(SslSlapd, EnvironmentReplacedWhileSessionsUseTheOldOne) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  TavEnvRef *first = ldap_ssl_current_env();
  LDAP *old_session = secure_session();
  ASSERT_EQ(count_entries(old_session, LDAP_SCOPE_ONELEVEL), 2);

  ASSERT_EQ(ldap_ssl_environment_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  TavEnvRef *second = ldap_ssl_current_env();
  ASSERT_NE(second, first);
  EXPECT_EQ(first->count, 1u);
  LDAP *new_session = secure_session();
  EXPECT_EQ(new_session->ld_ssl_env, second);
  EXPECT_EQ(count_entries(new_session, LDAP_SCOPE_ONELEVEL), 2);
  EXPECT_EQ(count_entries(old_session, LDAP_SCOPE_ONELEVEL), 2) << "the old session keeps its environment";

  char first_text[32];
  snprintf(first_text, sizeof first_text, "%p", (void *)first);
  std::string t = tavtest::traced(0xffff, [&] { EXPECT_EQ(ldap_unbind(old_session), 0); });
  EXPECT_NE(
      t.find(std::string("deleteTavEnvRef: Reset Tavlib environment reference count for ") + first_text + " to 0."),
      std::string::npos)
      << t;
  EXPECT_NE(t.find(std::string(" and free ") + first_text), std::string::npos) << "the old environment is closed\n"
                                                                               << t;

  t = tavtest::traced(0xffff, [&] {
    EXPECT_EQ(ldap_unbind(new_session), 0);
    EXPECT_EQ(ldap_ssl_current_env(), second) << "the current environment stays";
    // A third environment replaces the unused second one at once.
    EXPECT_EQ(ldap_ssl_environment_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  });
  EXPECT_EQ(t.find("freeTavEnvRef"), t.rfind("freeTavEnvRef")) << "only the second environment is closed\n" << t;
  EXPECT_NE(t.find("createTavEnvRef: Delete unused Tavlib environment reference."), std::string::npos) << t;
}

// Every allocation of set-up, handshake, search and tear-down failing in
// turn: each run ends in a documented code and (under ASan) leaks nothing.
TEST_F(SslSlapd, EachFailingAllocationEndsInADocumentedCode) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    int init = ldap_ssl_environment_init(keys->good().c_str(), kKdbPassword, 0, nullptr);
    int bind = -1, entries = -1;
    LDAP *ld = secure_session("tls-client");
    if (ld != nullptr) {
      bind = ldap_simple_bind_s(ld, nullptr, nullptr);
      entries = count_entries(ld, LDAP_SCOPE_ONELEVEL);
      ldap_unbind(ld);
    }
    long used = olx_fail_alloc_at(0);
    // 118: the toolkit's name could not be made (it is looked at before the loaded toolkit).
    EXPECT_TRUE(init == 0 || init == LDAP_NO_MEMORY || init == LDAP_SSL_KEYRING_NOT_FOUND ||
                init == LDAP_SSL_NOT_AVAILABLE)
        << n << ": " << init;
    EXPECT_TRUE(bind == -1 || bind == 0 || bind == LDAP_NO_MEMORY || bind == LDAP_SERVER_DOWN ||
                bind == LDAP_LOCAL_ERROR || bind == LDAP_DECODING_ERROR)
        << n << ": " << bind;
    if (used < n) {
      EXPECT_EQ(init, 0);
      EXPECT_EQ(entries, 2) << "the run without a failure works";
      break;
    }
  }
}

// The server closing at every byte of the handshake and of the bind's answer
// after it: the bind gets 81 each time, at once, and nothing leaks; the first
// budget that holds the whole exchange binds.
TEST_F(SslSlapd, AServerClosingAtAnyByteOfTheHandshakeGives81) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  size_t cut = 0;
  for (;; ++cut) {
    ASSERT_LT(cut, 20000u) << "the bind never succeeded";
    Relay relay(slapd->tls_port(), cut);
    ASSERT_NE(relay.port(), 0);
    LDAP *ld = ldap_ssl_init("127.0.0.1", relay.port(), nullptr);
    const int rc = ldap_simple_bind_s(ld, nullptr, nullptr);
    ldap_unbind(ld);
    if (rc == 0) break;
    ASSERT_EQ(rc, LDAP_SERVER_DOWN) << "closed after " << cut << " bytes";
  }
  EXPECT_GT(cut, 500u) << "the server's certificate alone is longer";
}

class SslExpiredServer : public SslSuite<SslExpiredServer> {
 public:
  static tavtest::SlapdOptions options() { return {.tls = true, .tls_server_expired = true}; }
};

TEST_F(SslExpiredServer, ExpiredServerCertificateFailsTheHandshake) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  LDAP *ld = ldap_ssl_init("127.0.0.1", slapd->tls_port(), nullptr);
  const std::string t =
      tavtest::traced(0xffff, [&] { EXPECT_EQ(open_default_connection(ld), LDAP_SSL_HANDSHAKE_FAILED); });
  EXPECT_NE(t.find("tav_secure_soc_init() rc=401 Bad date"), std::string::npos) << t;
  EXPECT_EQ(ldap_unbind(ld), 0);
}

// Servers that are not slapd: certificates and key database made here.
// The server's certificate names another host: StartTLS fails the way ldaps
// does, and the connection is closed rather than left in clear.
class SslMisnamedServer : public SslSuite<SslMisnamedServer> {
 public:
  static tavtest::SlapdOptions options() { return {.tls = true, .tls_server_names = "DNS:elsewhere.example"}; }
};

TEST_F(SslMisnamedServer, StartTlsToTheWrongNameClosesTheConnection) {
  ASSERT_EQ(ldap_ssl_environment_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  EXPECT_EQ(ldap_start_tls_s(ld, nullptr, nullptr), LDAP_SSL_HANDSHAKE_FAILED);
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(1).c_str(), SlapdServer::user_password(1).c_str()),
            LDAP_SERVER_DOWN)
      << "no password goes out in clear";
}

class SslPeer : public testing::Test {
 protected:
  void SetUp() override {
    load_from_build();
    ASSERT_EQ(tavtest::make_test_certificates(certs.path(), false), "");
    keys = std::make_unique<KeyDatabases>(certs.path());
    ASSERT_EQ(keys->error, "");
  }
  tavtest::TempDir certs;
  std::unique_ptr<KeyDatabases> keys;
};

TEST_F(SslPeer, ServerThatNeverAnswersTheHandshakeFailsAfterTheBudget) {
  tavtest::FakeServer server;
  server.hold_until_closed();
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  LDAP *ld = ldap_ssl_init("127.0.0.1", server.start(), nullptr);
  auto start = std::chrono::steady_clock::now();
  const std::string t =
      tavtest::traced(0xffff, [&] { EXPECT_EQ(open_default_connection(ld), LDAP_SSL_HANDSHAKE_FAILED); });
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(seconds, 4.5);
  EXPECT_LT(seconds, 20.0);
  // The budget is 5 s; the trace says how long the wait took (4.9... or 5.0... on a loaded machine).
  EXPECT_TRUE(std::regex_search(t, std::regex("Error - ssl_read: select timed out after: [45]\\."))) << t;
  EXPECT_NE(t.find("tav_secure_soc_init() rc=406 I/O error"), std::string::npos) << "the callback failed with EIO";
  EXPECT_NE(server.received().size(), 0u) << "the client hello was sent";
  EXPECT_EQ(ldap_unbind(ld), 0);
  EXPECT_TRUE(server.wait_done());
}

// A server dripping its handshake a byte a second never takes a call past
// its time-out, however each callback's budget is spent.
TEST_F(SslPeer, AHandshakeEndsWithTheCallsTimeOut) {
  tavtest::FakeServer server;
  server.trickle(std::string(64, '\x16'), 1000);
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  LDAP *ld = ldap_ssl_init("127.0.0.1", server.start(), nullptr);
  struct timeval wait = {2, 0};
  LDAPMessage *res = nullptr;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ldap_search_st(ld, "o=x", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &wait, &res), LDAP_TIMEOUT);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(seconds, 3.5);
  ldap_msgfree(res);
  EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST_F(SslPeer, AbortInTheToolkitDuringTheHandshakeBecomes116) {
  setenv("TAVLIB_CLIENT_VERSION", "97", 1);
  tavtest::FakeServer server;
  server.hold_until_closed();
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  LDAP *ld = ldap_ssl_init("127.0.0.1", server.start(), nullptr);
  const std::string t =
      tavtest::traced(0xffff, [&] { EXPECT_EQ(open_default_connection(ld), LDAP_SSL_HANDSHAKE_FAILED); });
  EXPECT_NE(t.find("Solaris caught the Tavlib SIGIOT, returning TAV_ERROR_BAD_CERT"), std::string::npos) << t;
  EXPECT_NE(t.find("tav_secure_soc_init() rc=414 Bad certificate"), std::string::npos) << t;
  EXPECT_EQ(ldap_unbind(ld), 0);
  EXPECT_TRUE(server.wait_done());
}

TEST_F(SslPeer, ToolkitLoadingFailuresGive118) {
  struct Case {
    const char *version;
    bool local;
    const char *kcl;
    const char *trace;
  } cases[] = {
      {nullptr, true, "true", "loadTlibShared: Error Check the supported version of TAVLIB in the install guide."},
      {nullptr, false, nullptr, "tavLibPath=/usr/lib/64/libtav7ssl_64.so"},
      {"55", true, nullptr, "Error - loadTlibShared: Failed to load libtav55ssl_64.so"},
      {"98", true, nullptr, "clearLoadTlib: Failed to find symbol tav_get_cert_by_label"},
  };
  for (const Case &c : cases) {
    c.version ? setenv("TAVLIB_CLIENT_VERSION", c.version, 1) : unsetenv("TAVLIB_CLIENT_VERSION");
    c.local ? setenv("TAVLIB_LOCAL_INSTALL_MODE", "1", 1) : unsetenv("TAVLIB_LOCAL_INSTALL_MODE");
    c.kcl ? setenv("TAVLIB_SHIPPED_KCL", c.kcl, 1) : unsetenv("TAVLIB_SHIPPED_KCL");
    int code = -1;
    const std::string t = tavtest::traced(0xffff, [&] {
      EXPECT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, &code), LDAP_SSL_NOT_AVAILABLE) << c.trace;
    });
    EXPECT_EQ(code, LDAP_SSL_NOT_AVAILABLE);
    EXPECT_NE(t.find(c.trace), std::string::npos) << t;
    EXPECT_EQ(tav_library.load(), nullptr) << c.trace;
    EXPECT_STREQ(tav_error_text(0), "Tavlib not loaded");
  }
  load_from_build();
  EXPECT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0) << "a later load succeeds";
  EXPECT_STREQ(tav_error_text(0), "Success");
}

TEST_F(SslPeer, FipsModeUnavailableIsRetriedWithoutIt) {
  ldap_ssl_set_fips_mode_np(1);
  int code = -1, rc = -1;
  const std::string t =
      tavtest::traced(0xffff, [&] { rc = ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, &code); });
  ASSERT_EQ(rc, 0);
  ldap_ssl_set_fips_mode_np(0);
  EXPECT_NE(t.find("prepare_tav_init_data: setting TAV_FIPS_MODE_PROCESSING_ON"), std::string::npos);
  int fips = 0, ssl_fips = 0;
  tav_handle env = ldap_ssl_current_env()->env;
  EXPECT_EQ(tav_fn.attribute_get_enum(env, TAV_FIPS_MODE_PROCESSING, &fips), 0);
  EXPECT_EQ(tav_fn.attribute_get_enum(env, TAV_SSL_FIPS_MODE, &ssl_fips), 0);
  EXPECT_EQ(fips, TAV_FIPS_MODE_PROCESSING_OFF);
  EXPECT_EQ(ssl_fips, TAV_SSL_FIPS_MODE_PROCESSING_ON);
}

TEST_F(SslPeer, Pkcs11RecordsAreCheckedBeforeAnyLoading) {
  char lib[] = "/nonexistent/libpkcs11.so", label[] = "token", pw[] = "token-pw";
  struct Case {
    LDAP_PKCS11_PARMS p;
    const char *kdb;
    int client_rc, environment_rc;
  } cases[] = {
      {{lib, label, pw, 1, 8}, nullptr, LDAP_SSL_PARAM_ERROR, LDAP_PARAM_ERROR},
      {{lib, label, pw, 2, 0}, nullptr, LDAP_SSL_PARAM_ERROR, LDAP_SSL_PARAM_ERROR},
      {{nullptr, label, pw, 1, 0}, nullptr, LDAP_SSL_PARAM_ERROR, LDAP_SSL_PARAM_ERROR},
      {{lib, label, nullptr, 1, 0}, nullptr, LDAP_SSL_PARAM_ERROR, LDAP_SSL_PARAM_ERROR},
      {{lib, nullptr, pw, 1, 0}, nullptr, LDAP_SSL_PARAM_ERROR, LDAP_SSL_PARAM_ERROR},
  };
  for (Case &c : cases) {
    EXPECT_EQ(ldap_ssl_pkcs11_client_init(c.kdb, nullptr, 0, nullptr, &c.p), c.client_rc);
    EXPECT_EQ(ldap_ssl_pkcs11_environment_init(c.kdb, nullptr, 0, nullptr, &c.p), c.environment_rc);
  }
  EXPECT_EQ(tav_library.load(), nullptr);
  // A record that passes: the toolkit cannot load the device's driver.
  LDAP_PKCS11_PARMS ok = {lib, label, pw, 1, 5};
  int code = -1;
  const std::string t = tavtest::traced(0xffff, [&] {
    EXPECT_EQ(ldap_ssl_pkcs11_client_init(keys->good().c_str(), kKdbPassword, 0, &code, &ok),
              LDAP_SSL_INITIALIZE_FAILED);
  });
  EXPECT_EQ(code, 429);
  size_t rsa = t.find("Setting ENUM ID [417] to [553]"), ncipher = t.find("Setting ENUM ID [417] to [549]");
  EXPECT_NE(rsa, std::string::npos);
  EXPECT_LT(rsa, ncipher) << "accelerator mode 5: 553 then 549";
}

// openssl s_server on 127.0.0.1, for certificates and policies slapd is not
// given.  Its output (connection summaries, the client's extensions with
// -tlsextdebug) is collected; "ACCEPT" says it listens.
class OpensslServer {
 public:
  explicit OpensslServer(std::vector<std::string> args) : port_(tavtest::free_port()) {
    args.insert(args.begin(), {"/usr/bin/openssl", "s_server", "-accept", "127.0.0.1:" + std::to_string(port_)});
    int in[2];
    if (pipe(in) != 0) return;
    pid_ = tavtest::spawn(args, log_.file("out"), in[0]);
    close(in[0]);
    stdin_ = in[1];  // held open: s_server ends at the end of its input
  }
  ~OpensslServer() {
    tavtest::terminate(pid_);
    close(stdin_);
  }
  int port() const { return port_; }
  // s_server sends what it reads from its input to the client.
  void send(const std::string &text) { EXPECT_EQ(write(stdin_, text.data(), text.size()), (ssize_t)text.size()); }
  // Waits until `text` has been written `count` times in all.
  bool wait_for(const std::string &text, int count = 1) {
    for (int i = 0; i < 500 && occurrences(text) < count; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return occurrences(text) >= count;
  }
  int occurrences(const std::string &text) const {
    const std::string out = output();
    int n = 0;
    for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) ++n;
    return n;
  }
  std::string output() const { return tavtest::read_file(log_.file("out")); }

 private:
  tavtest::TempDir log_;
  int port_, stdin_ = -1;
  pid_t pid_ = -1;
};

// A socket connected to `port` on loopback, made secure by the library as if
// it had reached `host` (a name or an address): the certificate must name it.
int secure_connect(LDAP *ld, int port, const char *host, Sockbuf *sb) {
  sb->sb_sd = tavtest::loopback_connect(port);
  if (sb->sb_sd < 0) return -1;
  return open_ssl_connection_to(ld, sb, host);
}

void secure_close(Sockbuf *sb) {
  ssl_close_direct(sb);
  close(sb->sb_sd);
}

// The server's name against its certificate (RFC 6125), the SNI that lets a
// server choose its certificate, and the cipher policy: each row one
// s_server and one handshake.
TEST_F(SslPeer, ServerNameAndCipherPolicyDecideTheHandshake) {
  const std::string d = certs.path();
  for (const auto &[name, subject, san, rsa] : std::vector<std::tuple<std::string, std::string, std::string, bool>>{
           {"named", "/CN=x", "DNS:ldap.example.test", false},
           {"wild", "/CN=x", "DNS:*.example.test", false},
           {"partial", "/CN=x", "DNS:l*.example.test", false},
           {"ip", "/CN=ldap.example.test", "IP:127.0.0.1", false},
           {"cn-only", "/CN=ldap.example.test", "", false},
           {"cn-and-san", "/CN=ldap.example.test", "DNS:other.example.test", false},
           {"rsa", "/CN=x", "DNS:ldap.example.test,IP:127.0.0.1", true}})
    ASSERT_EQ(tavtest::make_signed_certificate(d, name, subject, san, "2", rsa), "") << name;
  auto cert = [&](const std::string &n) {
    return std::vector<std::string>{"-cert", d + "/" + n + ".pem", "-key", d + "/" + n + ".key"};
  };
  auto with = [](std::vector<std::string> a, const std::vector<std::string> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const std::vector<std::string> sni = with(with(cert("cn-and-san"), {"-servername", "ldap.example.test"}),
                                            {"-cert2", d + "/named.pem", "-key2", d + "/named.key"});
  struct Row {
    const char *why;
    std::vector<std::string> server;
    const char *host;
    int check;           // LDAP_OPT_SSL_CHECK_HOSTNAME
    const char *cipher;  // option 7, or null
    int rc, ext;         // outcome, extended error on failure
  } rows[] = {
      {"the name in the subjectAltName", cert("named"), "ldap.example.test", 1, nullptr, 0, 0},
      {"another host's certificate", cert("named"), "other.example.test", 1, nullptr, 116, 434},
      {"the name check turned off", cert("named"), "other.example.test", 0, nullptr, 0, 0},
      {"a wildcard covers one left-most label", cert("wild"), "ldap.example.test", 1, nullptr, 0, 0},
      {"a wildcard covers no more than one label", cert("wild"), "a.ldap.example.test", 1, nullptr, 116, 434},
      {"no partial-label wildcards", cert("partial"), "ldap.example.test", 1, nullptr, 116, 434},
      {"an address literal against an IP entry", cert("ip"), "127.0.0.1", 1, nullptr, 0, 0},
      {"an address is never matched by a name", cert("named"), "127.0.0.1", 1, nullptr, 116, 434},
      {"the common name when there is no subjectAltName", cert("cn-only"), "ldap.example.test", 1, nullptr, 0, 0},
      {"no common name beside a subjectAltName", cert("cn-and-san"), "ldap.example.test", 1, nullptr, 116, 434},
      {"the SNI picks the server's certificate", sni, "ldap.example.test", 1, nullptr, 0, 0},
      {"static RSA and CBC are not offered by default", with(cert("rsa"), {"-cipher", "AES128-SHA", "-no_tls1_3"}),
       "127.0.0.1", 1, nullptr, 116, 116},
      {"but a caller may ask for them", with(cert("rsa"), {"-cipher", "AES128-SHA", "-no_tls1_3"}), "127.0.0.1", 1,
       "2F", 0, 0},
  };
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  for (Row &r : rows) {
    OpensslServer server(r.server);
    ASSERT_TRUE(server.wait_for("ACCEPT")) << r.why << ": " << server.output();
    LDAP *ld = ldap_ssl_init("127.0.0.1", server.port(), nullptr);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CHECK_HOSTNAME, r.check ? LDAP_OPT_ON : LDAP_OPT_OFF), 0);
    if (r.cipher != nullptr) {
      ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, r.cipher), 0);
    }
    Sockbuf sb{};
    std::string t =
        tavtest::traced(0xffff, [&] { EXPECT_EQ(secure_connect(ld, server.port(), r.host, &sb), r.rc) << r.why; });
    if (r.rc != 0) {
      EXPECT_EQ(ldap_get_ext_errno(ld), r.ext) << r.why;
      EXPECT_EQ(sb.sb_ssl, nullptr) << r.why;
    }
    if (r.ext == 434) {
      EXPECT_NE(t.find(std::string("server name mismatch: expected [") + r.host + "], certificate names ["),
                std::string::npos)
          << r.why << "\n"
          << t;
    }
    secure_close(&sb);
    ldap_unbind(ld);
  }
}

TEST_F(SslPeer, NameCheckIsOnUnlessTheEnvironmentOrTheOptionSaysOff) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  for (const auto &[env, expected] :
       std::vector<std::pair<const char *, int>>{{nullptr, 1}, {"true", 1}, {"FALSE", 0}, {"false", 0}}) {
    if (env != nullptr)
      setenv("LDAP_SSL_HOSTNAME_CHECK", env, 1);
    else
      unsetenv("LDAP_SSL_HOSTNAME_CHECK");
    LDAP *ld = ldap_ssl_init("127.0.0.1", 636, nullptr);
    int on = -1;
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SSL_CHECK_HOSTNAME, &on), 0);
    EXPECT_EQ(on, expected) << (env ? env : "unset");
    // A secure connection with no name to check is refused while the check is on.
    if (expected == 1) {
      Sockbuf sb{};
      OpensslServer server(
          std::vector<std::string>{"-cert", certs.path() + "/server.pem", "-key", certs.path() + "/server.key"});
      ASSERT_TRUE(server.wait_for("ACCEPT"));
      EXPECT_EQ(secure_connect(ld, server.port(), nullptr, &sb), LDAP_SSL_HANDSHAKE_FAILED);
      EXPECT_EQ(ldap_get_ext_errno(ld), 434);
      secure_close(&sb);
    }
    ldap_unbind(ld);
  }
  unsetenv("LDAP_SSL_HOSTNAME_CHECK");
}

// A session the server issued is offered again to that server (host and
// port) only: never to another server, which could read or misuse it.
TEST_F(SslPeer, SessionsAreResumedOnlyWithTheServerThatIssuedThem) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  const std::vector<std::string> args = {"-cert", certs.path() + "/server.pem", "-key", certs.path() + "/server.key",
                                         "-tlsextdebug"};
  OpensslServer first(args), second(args);
  ASSERT_TRUE(first.wait_for("ACCEPT") && second.wait_for("ACCEPT"));
  LDAP *ld = ldap_ssl_init("127.0.0.1", first.port(), nullptr);
  const char *kSummary = "Secure Renegotiation";  // the last line s_server writes about a connection
  // Connects, and reads once the server has written, so that the session
  // tickets that follow the handshake are taken in.
  auto visit = [&](OpensslServer &server) {
    Sockbuf sb{};
    EXPECT_EQ(secure_connect(ld, server.port(), "127.0.0.1", &sb), 0);
    pollfd p = {sb.sb_sd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 10000), 1);
    char byte;
    int count = 0;
    tav_fn.secure_soc_read(*static_cast<tav_handle *>(sb.sb_ssl), &byte, 1, &count);
    secure_close(&sb);
  };
  visit(first);
  ASSERT_TRUE(first.wait_for(kSummary, 1)) << first.output();
  visit(second);
  ASSERT_TRUE(second.wait_for(kSummary, 1)) << second.output();
  EXPECT_EQ(second.occurrences("Reused session-id"), 0);
  EXPECT_EQ(second.output().find("(id=41)"), std::string::npos) << "no pre-shared key offered:\n" << second.output();
  visit(first);
  ASSERT_TRUE(first.wait_for(kSummary, 2)) << first.output();
  EXPECT_NE(first.output().find("Reused session-id"), std::string::npos) << first.output();
  ldap_unbind(ld);
}

// The front of a record still arriving is not readable: once the toolkit
// reads ahead, raw bytes it holds are readable only when they make up a whole
// record, or the stream layer would spin instead of waiting for the socket.
TEST_F(SslPeer, TheFrontOfARecordIsNotReadableUntilTheRestArrives) {
  ASSERT_EQ(ldap_ssl_client_init(keys->good().c_str(), kKdbPassword, 0, nullptr), 0);
  OpensslServer server({"-cert", certs.path() + "/server.pem", "-key", certs.path() + "/server.key"});
  ASSERT_TRUE(server.wait_for("ACCEPT"));
  Relay relay(server.port());
  LDAP *ld = ldap_ssl_init("127.0.0.1", relay.port(), nullptr);
  Sockbuf sb{};
  ASSERT_EQ(secure_connect(ld, relay.port(), "127.0.0.1", &sb), 0);
  relay.hold = true;
  server.send("hello\n");
  const std::string held = relay.held();
  const tav_handle conn = *static_cast<tav_handle *>(sb.sb_ssl);
  char text[64];
  int count = -1;
  relay.to_client(held.substr(0, held.size() - 5));  // the record with "hello" is cut short
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(tav_fn.secure_soc_read(conn, text, sizeof text, &count), 502) << "the front is read and kept";
  struct timeval none = {0, 0}, ten = {10, 0};
  EXPECT_EQ(tav_fn.secure_soc_read(conn, nullptr, 1, &count), 0);
  EXPECT_EQ(count, 0) << "a partial record is not readable";
  EXPECT_EQ(fber_select(&sb, &none), 0);
  relay.to_client(held.substr(held.size() - 5));
  EXPECT_EQ(fber_select(&sb, &ten), 1);
  EXPECT_EQ(tav_fn.secure_soc_read(conn, nullptr, 1, &count), 0);
  EXPECT_EQ(count, 6) << "the whole record is";
  EXPECT_EQ(tav_fn.secure_soc_read(conn, text, sizeof text, &count), 0);
  EXPECT_EQ(std::string(text, (size_t)count), "hello\n");
  secure_close(&sb);
  ldap_unbind(ld);
}

}  // namespace
