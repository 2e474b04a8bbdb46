#include "kdc.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "slapd_server.h"

namespace tavtest {

namespace {

bool answers(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

}  // namespace

bool KerberosKdc::start(std::string *error) {
  if (access("/usr/sbin/krb5kdc", X_OK) != 0 || access("/usr/sbin/kadmin.local", X_OK) != 0) {
    *error = "krb5kdc is not installed (Debian packages krb5-kdc, krb5-admin-server)";
    return false;
  }
  const int port = free_port();
  const std::string d = dir_.path(), p = std::to_string(port);
  write_file(d + "/krb5.conf",
             "[libdefaults]\n default_realm = TAV.TEST\n dns_lookup_kdc = false\n"
             " dns_lookup_realm = false\n rdns = false\n dns_canonicalize_hostname = false\n"
             "[realms]\n TAV.TEST = {\n  kdc = 127.0.0.1:" +
                 p + "\n }\n[domain_realm]\n 127.0.0.1 = TAV.TEST\n");
  write_file(d + "/kdc.conf", "[kdcdefaults]\n kdc_listen = 127.0.0.1:" + p + "\n kdc_tcp_listen = 127.0.0.1:" + p +
                                  "\n[realms]\n TAV.TEST = {\n  database_name = " + d +
                                  "/principal\n"
                                  "  key_stash_file = " +
                                  d + "/stash\n  acl_file = " + d + "/kadm5.acl\n }\n");
  setenv("KRB5_CONFIG", (d + "/krb5.conf").c_str(), 1);
  setenv("KRB5_KDC_PROFILE", (d + "/kdc.conf").c_str(), 1);
  setenv("KRB5_KTNAME", (d + "/service.keytab").c_str(), 1);
  setenv("KRB5_CLIENT_KTNAME", (d + "/client.keytab").c_str(), 1);
  setenv("KRB5CCNAME", ("FILE:" + d + "/ccache").c_str(), 1);
  ProcessResult r = run_process({"/usr/sbin/kdb5_util", "create", "-s", "-r", kRealm, "-P", "master-key"});
  for (const char *q : {"addprinc -randkey ldap/127.0.0.1", "addprinc -randkey user1"})
    if (r.exit_code == 0) r = run_process({"/usr/sbin/kadmin.local", "-r", kRealm, "-q", q});
  for (auto [name, keytab] : {std::pair{"ldap/127.0.0.1", "service.keytab"}, {"user1", "client.keytab"}})
    if (r.exit_code == 0)
      r = run_process({"/usr/sbin/kadmin.local", "-r", kRealm, "-q", "ktadd -k " + d + "/" + keytab + " " + name});
  if (r.exit_code != 0) {
    *error = "creating the realm failed: " + r.out + r.err;
    return false;
  }
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int fd = open((d + "/kdc.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    dup2(fd, 2);
    execl("/usr/sbin/krb5kdc", "krb5kdc", "-n", "-r", kRealm, (char *)nullptr);
    _exit(127);
  }
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10); !answers(port);
       std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_ || std::chrono::steady_clock::now() > deadline) {
      *error = "krb5kdc did not answer";
      return false;
    }
  }
  return true;
}

KerberosKdc::~KerberosKdc() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

}  // namespace tavtest
