#include "kdc.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "slapd_server.h"

namespace tavtest {

bool KerberosKdc::start(std::string *error) {
  const std::string d = dir_.path(), p = std::to_string(free_port()), realm = "TAV.TEST";
  write_file(d + "/krb5.conf",
             "[libdefaults]\n default_realm = TAV.TEST\n dns_lookup_kdc = false\n"
             " dns_lookup_realm = false\n rdns = false\n dns_canonicalize_hostname = false\n"
             "[realms]\n TAV.TEST = {\n  kdc = 127.0.0.1:" +
                 p + "\n }\n[domain_realm]\n 127.0.0.1 = TAV.TEST\n");
  write_file(d + "/kdc.conf", "[kdcdefaults]\n kdc_listen = 127.0.0.1:" + p + "\n kdc_tcp_listen = 127.0.0.1:" + p +
                                  "\n[realms]\n TAV.TEST = {\n  database_name = " + d +
                                  "/principal\n"
                                  "  key_stash_file = " +
                                  d + "/stash\n }\n");
  for (auto [name, value] : {std::pair{"KRB5_CONFIG", "/krb5.conf"},
                             {"KRB5_KDC_PROFILE", "/kdc.conf"},
                             {"KRB5_KTNAME", "/service.keytab"},
                             {"KRB5_CLIENT_KTNAME", "/client.keytab"}})
    setenv(name, (d + value).c_str(), 1);
  setenv("KRB5CCNAME", ("FILE:" + d + "/ccache").c_str(), 1);
  ProcessResult r = run_process({"/usr/sbin/kdb5_util", "create", "-s", "-r", realm, "-P", "master-key"});
  for (const std::string &q :
       {std::string("addprinc -randkey ldap/127.0.0.1"), std::string("addprinc -randkey user1"),
        "ktadd -k " + d + "/service.keytab ldap/127.0.0.1", "ktadd -k " + d + "/client.keytab user1"})
    if (r.exit_code == 0) r = run_process({"/usr/sbin/kadmin.local", "-r", realm, "-q", q});
  if (r.exit_code != 0) {
    *error = "creating the realm failed (Debian packages krb5-kdc, krb5-admin-server): " + r.out + r.err;
    return false;
  }
  pid_ = spawn({"/usr/sbin/krb5kdc", "-n", "-r", realm}, d + "/kdc.log");
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10); !port_answers(std::stoi(p));
       std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_ || std::chrono::steady_clock::now() > deadline) {
      *error = "krb5kdc did not answer:\n" + read_file(d + "/kdc.log");
      return false;
    }
  }
  return true;
}

KerberosKdc::~KerberosKdc() { terminate(pid_); }

}  // namespace tavtest
