// Three private slapds for referral tests.  A (the session's server) holds
// ou=t1 with a referral object ou=branch,ou=t1 pointing to B's ou=branch, a
// referral ou=loop to B's ou=loop (which points back to A), ou=dead listing a
// dead server and then C, ou=nowhere listing only the dead server, and a
// default referral to C.  B refuses anonymous readers; C holds ou=dead.
// With `tls`, B listens on ldaps too and A's ou=secure refers to B's
// ou=branch first by a port-less ldaps URL (port 636, where no test server
// listens) and then by B's ldaps port.
#ifndef TAV_TEST_REFERRAL_SERVERS_H
#define TAV_TEST_REFERRAL_SERVERS_H

#include <atomic>
#include <memory>
#include <string>

#include "ldap-engine.h"
#include "slapd_server.h"

namespace tavtest {

class ReferralServers {
 public:
  static inline const std::string kSuffix = "dc=example,dc=com";
  // Extra entries for B's ou=branch (cn=bN), for larger chased searches.
  explicit ReferralServers(int branch_entries = 2, bool tls = false);
  bool started() const { return started_; }
  const std::string &error() const { return error_; }

  SlapdServer &a() { return *a_; }
  SlapdServer &b() { return *b_; }
  SlapdServer &c() { return *c_; }
  int port_a() const { return port_a_; }
  int port_b() const { return port_b_; }
  int dead_port() const { return dead_port_; }

  static std::string url(int port, const std::string &dn) {
    return "ldap://127.0.0.1:" + std::to_string(port) + "/" + dn;
  }
  static std::string branch() { return "ou=branch," + kSuffix; }
  // A local socket's path as the host of an ldap URL (its slashes escaped).
  static std::string socket_host(std::string path) {
    for (size_t at; (at = path.find('/')) != std::string::npos;) path.replace(at, 1, "%2F");
    return path;
  }

  // A version-3 session on A; with `rebind`, its rebind procedure hands out
  // the root DN and password the three servers share.
  LDAP *session(bool rebind) const;
  // Message IDs in use over all of a session's connections.
  static int rows_in_use(LDAP *ld);
  static int rebinds() { return rebinds_; }
  static int rebind_frees() { return rebind_frees_; }
  static void reset_rebinds() { rebinds_ = rebind_frees_ = 0; }

 private:
  static int rebind_proc(LDAP *ld, char **dn, char **pw, int *method, int freeit);
  static inline std::atomic<int> rebinds_{0}, rebind_frees_{0};
  std::unique_ptr<SlapdServer> a_, b_, c_;
  int port_a_ = 0, port_b_ = 0, port_c_ = 0, dead_port_ = 0;
  bool started_ = false;
  std::string error_;
};

}  // namespace tavtest

#endif
