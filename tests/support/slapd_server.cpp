#include "slapd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "process.h"

namespace tavtest {

namespace {

constexpr const char *kSlapd = "/usr/sbin/slapd";
constexpr const char *kSlapadd = "/usr/sbin/slapadd";
constexpr const char *kModulePath = "/usr/lib/ldap";
constexpr const char *kSchemaDir = "/etc/ldap/schema";

std::string url_encode(const std::string &s) {
  std::string out;
  char buf[4];
  for (unsigned char c : s) {
    if (isalnum(c) || c == '.' || c == '-' || c == '_') {
      out += (char)c;
    } else {
      snprintf(buf, sizeof buf, "%%%02X", c);
      out += buf;
    }
  }
  return out;
}

bool can_connect(int port, bool ipv6) {
  int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  int rc;
  if (ipv6) {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    a.sin6_addr = in6addr_loopback;
    rc = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  } else {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    rc = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  }
  close(fd);
  return rc == 0;
}

std::string base_ldif(int people) {
  std::string l =
      "dn: dc=example,dc=com\n"
      "objectClass: dcObject\nobjectClass: organization\n"
      "dc: example\no: Example Corporation\n\n"
      "dn: ou=People,dc=example,dc=com\nobjectClass: organizationalUnit\nou: People\n\n"
      "dn: ou=Groups,dc=example,dc=com\nobjectClass: organizationalUnit\nou: Groups\n\n";
  for (int i = 1; i <= people; ++i) {
    std::string n = std::to_string(i);
    l += "dn: " + SlapdServer::user_dn(i) +
         "\n"
         "objectClass: inetOrgPerson\n"
         "uid: user" +
         n + "\ncn: User " + n + "\nsn: User" + n +
         "\ngivenName: Test\n"
         "mail: user" +
         n +
         "@example.com\n"
         "userPassword: " +
         SlapdServer::user_password(i) + "\n\n";
  }
  return l;
}

}  // namespace

int free_port(bool ipv6) {
  int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  int port = -1;
  if (ipv6) {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
      port = ntohs(a.sin6_port);
  } else {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
      port = ntohs(a.sin_port);
  }
  close(fd);
  return port;
}

bool slapd_available() { return access(kSlapd, X_OK) == 0 && access(kSlapadd, X_OK) == 0; }

SlapdServer::SlapdServer(SlapdOptions options) : options_(std::move(options)) {}

SlapdServer::~SlapdServer() { stop(); }

std::string SlapdServer::user_dn(int n) { return "uid=user" + std::to_string(n) + "," + kPeopleDn; }
std::string SlapdServer::user_password(int n) { return "pass" + std::to_string(n); }

std::string SlapdServer::host_port() const { return "127.0.0.1:" + std::to_string(port_); }
std::string SlapdServer::url() const { return "ldap://" + host_port(); }
std::string SlapdServer::ldapi_path() const { return dir_ + "/ldapi"; }
std::string SlapdServer::ldapi_url() const { return "ldapi://" + url_encode(ldapi_path()); }

bool SlapdServer::start(std::string *error) {
  auto fail = [&](const std::string &why) {
    if (error) *error = why;
    stop();
    return false;
  };
  if (!slapd_available()) return fail("slapd is not installed (Debian packages slapd, ldap-utils)");

  char tmpl[] = "/tmp/tavslapd.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return fail(std::string("mkdtemp: ") + strerror(errno));
  dir_ = tmpl;
  if (mkdir((dir_ + "/db").c_str(), 0700) != 0) return fail("mkdir db failed");

  std::string conf;
  for (const char *s : {"core", "cosine", "inetorgperson", "nis"})
    conf += std::string("include ") + kSchemaDir + "/" + s + ".schema\n";
  for (const auto &s : options_.schemas) conf += std::string("include ") + kSchemaDir + "/" + s + ".schema\n";
  conf += std::string("modulepath ") + kModulePath + "\nmoduleload back_mdb\n";
  for (const auto &m : options_.modules) conf += "moduleload " + m + "\n";
  conf += "pidfile " + dir_ + "/slapd.pid\nargsfile " + dir_ + "/slapd.args\n";
  if (options_.allow_v2) conf += "allow bind_v2\n";
  conf += options_.global_config;
  conf += "database mdb\nmaxsize 104857600\n";
  conf += std::string("suffix \"") + kSuffix + "\"\nrootdn \"" + kRootDn + "\"\nrootpw " + kRootPw + "\n";
  conf += "directory " + dir_ + "/db\n";
  conf += options_.access;
  conf += options_.database_config;
  write_file(dir_ + "/slapd.conf", conf);
  write_file(dir_ + "/data.ldif", base_ldif(options_.people) + options_.extra_ldif);

  ProcessResult add = run_process({kSlapadd, "-q", "-f", dir_ + "/slapd.conf", "-l", dir_ + "/data.ldif"});
  if (add.exit_code != 0) return fail("slapadd failed: " + add.err + add.out);

  port_ = free_port(false);
  std::string listeners = "ldap://127.0.0.1:" + std::to_string(port_) + "/";
  if (options_.ipv6) {
    ipv6_port_ = free_port(true);
    if (ipv6_port_ < 0) return fail("no IPv6 loopback on this machine");
    listeners += " ldap://[::1]:" + std::to_string(ipv6_port_) + "/";
  }
  if (options_.ldapi) listeners += " " + ldapi_url() + "/";

  std::string log = dir_ + "/slapd.log";
  pid_t pid = fork();
  if (pid < 0) return fail("fork failed");
  if (pid == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
      close(fd);
    }
    // -d keeps slapd in the foreground, so the pid we hold is the server's.
    execl(kSlapd, kSlapd, "-d", "0", "-f", (dir_ + "/slapd.conf").c_str(), "-h", listeners.c_str(), (char *)nullptr);
    _exit(127);
  }
  pid_ = pid;

  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (;;) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return fail("slapd exited during start-up:\n" + read_file(log));
    }
    bool up = can_connect(port_, false) && (!options_.ipv6 || can_connect(ipv6_port_, true));
    if (up && options_.ldapi) up = access(ldapi_path().c_str(), F_OK) == 0;
    if (up) return true;
    if (std::chrono::steady_clock::now() > deadline) return fail("slapd did not answer in time:\n" + read_file(log));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void SlapdServer::stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status;
    bool gone = false;
    for (int i = 0; i < 500 && !gone; ++i) {
      if (waitpid(pid_, &status, WNOHANG) == pid_)
        gone = true;
      else
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!gone) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
    }
    pid_ = -1;
  }
  if (!dir_.empty()) {
    run_process({"/bin/rm", "-rf", dir_});
    dir_.clear();
  }
}

int SlapdServer::ldap_tool(const std::string &tool, const std::vector<std::string> &args, std::string *out,
                           const std::string &input) const {
  std::vector<std::string> argv = {"/usr/bin/" + tool, "-H", url(), "-x"};
  argv.insert(argv.end(), args.begin(), args.end());
  ProcessResult r = run_process(argv, {}, input);
  if (out) *out = r.out + r.err;
  return r.exit_code;
}

}  // namespace tavtest
