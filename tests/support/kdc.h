// A private MIT Kerberos KDC on a free loopback port: realm TAV.TEST, its own
// krb5.conf (no DNS look-ups, no host name canonicalisation), the key of
// ldap/127.0.0.1 in service.keytab and of user1 in client.keytab.  start()
// points this process's Kerberos environment at them, so a slapd started
// afterwards and the process itself use the realm.  Stopped by its pid.
#ifndef TAV_TEST_KDC_H
#define TAV_TEST_KDC_H

#include <sys/types.h>

#include <string>

#include "process.h"

namespace tavtest {

class KerberosKdc {
 public:
  KerberosKdc() = default;
  ~KerberosKdc();
  KerberosKdc(const KerberosKdc &) = delete;
  KerberosKdc &operator=(const KerberosKdc &) = delete;
  bool start(std::string *error);

 private:
  TempDir dir_;
  pid_t pid_ = -1;
};

}  // namespace tavtest

#endif
