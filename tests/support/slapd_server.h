// A private slapd for end-to-end tests: its own temporary directory,
// slapd.conf (mdb backend, suffix dc=example,dc=com), data loaded with
// slapadd before start, a free loopback port, an ldapi socket in its
// directory.  Stopped by its pid in stop() or the destructor, which also
// removes the directory.
#ifndef TAV_TEST_SLAPD_SERVER_H
#define TAV_TEST_SLAPD_SERVER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavtest {

struct SlapdOptions {
  bool allow_v2 = false;                  // "allow bind_v2"
  std::vector<std::string> modules = {};  // extra modules to load: "ppolicy", "sssvlv", ...
  std::string global_config = {};         // lines before the database section
  std::string database_config = {};       // lines after the database section (overlays, limits)
  // ACLs for the database; the default lets anyone read and authenticated
  // users write their own entry.
  std::string access =
      "access to attrs=userPassword by self write by anonymous auth by * none\n"
      "access to * by self write by users read by anonymous read\n";
  std::string extra_ldif = {};  // more entries, appended after the base data
  int people = 5;               // uid=user1..userN under ou=People, password "passN"
  int port = 0;                 // listening port; 0 picks a free one
  // An ldaps listener too, with certificates made in dir()/tls by the openssl
  // command: ca.pem (the CA), server.pem/.key (localhost, 127.0.0.1),
  // client.pem/.key (subject "CN=tls-client,O=Example", mapped to uid=user1
  // for SASL EXTERNAL), other-ca.pem (a CA the server does not use).
  bool tls = false;
  bool tls_server_expired = false;                              // the server certificate expired yesterday
  std::string tls_cipher_suite = {};                            // slapd's TLSCipherSuite, when set
  std::string tls_server_names = "DNS:localhost,IP:127.0.0.1";  // the server certificate's subjectAltName
};

class SlapdServer {
 public:
  static constexpr const char *kSuffix = "dc=example,dc=com";
  static constexpr const char *kRootDn = "cn=Manager,dc=example,dc=com";
  static constexpr const char *kRootPw = "secret";
  static constexpr const char *kPeopleDn = "ou=People,dc=example,dc=com";

  explicit SlapdServer(SlapdOptions options = {}) : options_(std::move(options)) {}
  ~SlapdServer() { stop(); }
  SlapdServer(const SlapdServer &) = delete;
  SlapdServer &operator=(const SlapdServer &) = delete;

  // Writes the configuration and data, runs slapadd, starts slapd and waits
  // until it answers.  On failure returns false with the reason (and slapd's
  // output) in *error.
  bool start(std::string *error);
  void stop();

  int port() const { return port_; }
  pid_t pid() const { return pid_; }  // to freeze (SIGSTOP) or kill the server mid-test
  std::string host_port() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string url() const { return "ldap://" + host_port(); }
  std::string ldapi_path() const { return dir_ + "/ldapi"; }
  const std::string &dir() const { return dir_; }
  int tls_port() const { return tls_port_; }
  std::string ldaps_host_port() const { return "127.0.0.1:" + std::to_string(tls_port_); }
  std::string tls_file(const std::string &name) const { return dir_ + "/tls/" + name; }

  static std::string user_dn(int n) { return "uid=user" + std::to_string(n) + "," + kPeopleDn; }
  static std::string user_password(int n) { return "pass" + std::to_string(n); }

  // Runs an ldap-utils program (ldapsearch, ldapadd, ...) against this server
  // with -H url() -x; returns its exit code, with its output in *out.
  int ldap_tool(const std::string &tool, const std::vector<std::string> &args, std::string *out,
                const std::string &input = "") const;

 private:
  SlapdOptions options_;
  std::string dir_;
  int port_ = 0;
  int tls_port_ = 0;
  pid_t pid_ = -1;
};

// A free TCP port on 127.0.0.1, found by binding port 0.
int free_port();
// Whether something accepts connections on 127.0.0.1:port.
bool port_answers(int port);
// A socket listening on 127.0.0.1 at a port the system chose (*port), or -1.
int loopback_listen(int backlog, int *port);
// A socket connected to 127.0.0.1:port (non-blocking when asked, the connect
// then still under way), or -1.
int loopback_connect(int port, bool nonblocking = false);
// Makes the certificates of SlapdOptions::tls in `dir`; "" or the failure.
std::string make_test_certificates(const std::string &dir, bool server_expired,
                                   const std::string &server_names = "DNS:localhost,IP:127.0.0.1");
// A certificate `name`.pem/.key in `dir`, signed by the CA there, with the
// subjectAltName given (e.g. "DNS:a.example,IP:127.0.0.1"; empty: none).
std::string make_signed_certificate(const std::string &dir, const std::string &name, const std::string &subject,
                                    const std::string &alt_names, const std::string &days = "2", bool rsa = false);

}  // namespace tavtest

#endif
