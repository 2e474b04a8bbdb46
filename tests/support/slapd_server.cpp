#include "slapd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "process.h"

namespace tavtest {

namespace {

// Binds port 0 (to find a free port) or connects to `port`; the port or -1.
int loopback(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bool ok = port == 0 ? bind(fd, reinterpret_cast<sockaddr *>(&a), len) == 0 &&
                            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0
                      : connect(fd, reinterpret_cast<sockaddr *>(&a), len) == 0;
  close(fd);
  return ok ? ntohs(a.sin_port) : -1;
}

std::string url_encode(const std::string &s) {
  std::string out;
  char buf[4];
  for (unsigned char c : s) {
    snprintf(buf, sizeof buf, "%%%02X", c);
    out += isalnum(c) || c == '.' || c == '-' || c == '_' ? std::string(1, c) : buf;
  }
  return out;
}

// slapd's TLS settings; SASL EXTERNAL maps the client certificate to user1.
std::string tls_config(const std::string &tls, const std::string &ciphers) {
  std::string c = "TLSCACertificateFile " + tls + "/ca.pem\nTLSCertificateFile " + tls +
                  "/server.pem\nTLSCertificateKeyFile " + tls + "/server.key\nTLSVerifyClient try\n" +
                  "authz-regexp \"^cn=tls-client,o=example$\" \"uid=user1,ou=People,dc=example,dc=com\"\n";
  if (!ciphers.empty()) c += "TLSCipherSuite " + ciphers + "\n";
  return c;
}

}  // namespace

int loopback_listen(int backlog, int *port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), len) != 0 || listen(fd, backlog) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  *port = ntohs(a.sin_port);
  return fd;
}

int loopback_connect(int port, bool nonblocking) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  if (nonblocking) fcntl(fd, F_SETFL, O_NONBLOCK);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && !(nonblocking && errno == EINPROGRESS)) {
    close(fd);
    return -1;
  }
  return fd;
}

int free_port() { return loopback(0); }
bool port_answers(int port) { return loopback(port) == port; }

namespace {

std::string run_openssl(std::vector<std::string> args) {
  args.insert(args.begin(), "/usr/bin/openssl");
  ProcessResult r = run_process(args);
  return r.exit_code == 0 ? std::string() : "openssl " + args[1] + " failed: " + r.err;
}

std::vector<std::string> new_key(bool rsa) {
  if (rsa) return {"-newkey", "rsa:2048", "-nodes"};
  return {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
}

}  // namespace

std::string make_signed_certificate(const std::string &dir, const std::string &name, const std::string &subject,
                                    const std::string &alt_names, const std::string &days, bool rsa) {
  std::vector<std::string> a = {"req", "-new"};
  for (const std::string &k : new_key(rsa)) a.push_back(k);
  a.insert(a.end(), {"-keyout", dir + "/" + name + ".key", "-out", dir + "/" + name + ".csr", "-subj", subject});
  std::string e = run_openssl(a);
  if (!e.empty()) return e;
  std::vector<std::string> sign = {"x509",
                                   "-req",
                                   "-in",
                                   dir + "/" + name + ".csr",
                                   "-CA",
                                   dir + "/ca.pem",
                                   "-CAkey",
                                   dir + "/ca.key",
                                   "-CAcreateserial",
                                   "-out",
                                   dir + "/" + name + ".pem",
                                   "-days",
                                   days};
  if (!alt_names.empty()) {
    write_file(dir + "/" + name + ".cnf", "subjectAltName=" + alt_names + "\n");
    sign.insert(sign.end(), {"-extfile", dir + "/" + name + ".cnf"});
  }
  return run_openssl(sign);
}

std::string make_test_certificates(const std::string &dir, bool server_expired, const std::string &server_names) {
  auto ca = [&](const std::string &name, const std::string &subject) {
    std::vector<std::string> a = {"req", "-x509"};
    for (const std::string &k : new_key(false)) a.push_back(k);
    a.insert(a.end(),
             {"-keyout", dir + "/" + name + ".key", "-out", dir + "/" + name + ".pem", "-days", "2", "-subj", subject});
    return run_openssl(a);
  };
  const std::string san = "DNS:localhost,IP:127.0.0.1";
  for (const std::string &e :
       {ca("ca", "/CN=tav test CA"), ca("other-ca", "/CN=tav other CA"),
        make_signed_certificate(dir, "server", "/CN=localhost", server_names, server_expired ? "-1" : "2"),
        make_signed_certificate(dir, "client", "/O=Example/CN=tls-client", san)})
    if (!e.empty()) return e;
  return "";
}

bool SlapdServer::start(std::string *error) {
  auto fail = [&](const std::string &why) {
    *error = why;
    stop();
    return false;
  };
  if (access("/usr/sbin/slapd", X_OK) != 0) return fail("slapd is not installed (Debian packages slapd, ldap-utils)");
  char tmpl[] = "/tmp/tavslapd.XXXXXX";
  if (mkdtemp(tmpl) == nullptr || mkdir((std::string(tmpl) + "/db").c_str(), 0700) != 0)
    return fail(std::string("temporary directory: ") + strerror(errno));
  dir_ = tmpl;
  std::string conf;
  for (const char *s : {"core", "cosine", "inetorgperson", "nis"})
    conf += "include /etc/ldap/schema/" + std::string(s) + ".schema\n";
  conf += "modulepath /usr/lib/ldap\nmoduleload back_mdb\n";
  for (const auto &m : options_.modules) conf += "moduleload " + m + "\n";
  conf += "pidfile " + dir_ + "/slapd.pid\nargsfile " + dir_ + "/slapd.args\n";
  if (options_.allow_v2) conf += "allow bind_v2\n";
  if (options_.tls) {
    if (mkdir((dir_ + "/tls").c_str(), 0700) != 0) return fail("mkdir tls failed");
    std::string e = make_test_certificates(dir_ + "/tls", options_.tls_server_expired, options_.tls_server_names);
    if (!e.empty()) return fail(e);
    conf += tls_config(dir_ + "/tls", options_.tls_cipher_suite);
  }
  conf += options_.global_config + "database mdb\nmaxsize 104857600\nsuffix \"" + kSuffix + "\"\nrootdn \"" + kRootDn +
          "\"\nrootpw " + kRootPw + "\ndirectory " + dir_ + "/db\n" + options_.access + options_.database_config;
  write_file(dir_ + "/slapd.conf", conf);
  std::string data =
      "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\ndc: example\no: Example\n\n"
      "dn: ou=People,dc=example,dc=com\nobjectClass: organizationalUnit\nou: People\n\n"
      "dn: ou=Groups,dc=example,dc=com\nobjectClass: organizationalUnit\nou: Groups\n\n";
  for (int i = 1; i <= options_.people; ++i) {
    const std::string n = std::to_string(i);
    data += "dn: " + user_dn(i) + "\nobjectClass: inetOrgPerson\nuid: user" + n + "\ncn: User " + n + "\nsn: User" + n +
            "\ngivenName: Test\nmail: user" + n + "@example.com\nuserPassword: " + user_password(i) + "\n\n";
  }
  write_file(dir_ + "/data.ldif", data + options_.extra_ldif);
  ProcessResult add = run_process({"/usr/sbin/slapadd", "-q", "-f", dir_ + "/slapd.conf", "-l", dir_ + "/data.ldif"});
  if (add.exit_code != 0) return fail("slapadd failed: " + add.err + add.out);

  port_ = options_.port != 0 ? options_.port : free_port();
  std::string listeners = url() + "/ ldapi://" + url_encode(ldapi_path()) + "/";
  if (options_.tls) {
    tls_port_ = free_port();
    listeners += " ldaps://" + ldaps_host_port() + "/";
  }
  const std::string log = dir_ + "/slapd.log";
  // -d keeps slapd in the foreground, so the pid we hold is the server's.
  pid_ = spawn({"/usr/sbin/slapd", "-d", "0", "-f", dir_ + "/slapd.conf", "-h", listeners}, log);
  // Poll until it answers on both listeners (or exits, or 20 seconds pass).
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);;
       std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return fail("slapd exited during start-up:\n" + read_file(log));
    }
    if (loopback(port_) == port_ && (!options_.tls || loopback(tls_port_) == tls_port_) &&
        access(ldapi_path().c_str(), F_OK) == 0)
      return true;
    if (std::chrono::steady_clock::now() > deadline) return fail("slapd did not answer in time:\n" + read_file(log));
  }
}

void SlapdServer::stop() {
  terminate(pid_);
  if (!dir_.empty()) run_process({"/bin/rm", "-rf", dir_});
  dir_.clear();
}

int SlapdServer::ldap_tool(const std::string &tool, const std::vector<std::string> &args, std::string *out,
                           const std::string &input) const {
  std::vector<std::string> argv = {"/usr/bin/" + tool, "-H", url(), "-x"};
  argv.insert(argv.end(), args.begin(), args.end());
  ProcessResult r = run_process(argv, {}, input);
  *out = r.out + r.err;
  return r.exit_code;
}

}  // namespace tavtest
