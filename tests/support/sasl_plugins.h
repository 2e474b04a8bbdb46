// slapd set up for SASL (Cyrus mechanisms checked against the entries'
// cleartext userPassword, uid=NAME[@REALM],...,cn=auth mapped to the entry; PLAIN and
// LOGIN accepted without SSL, so only the client can refuse them) and a
// krvldap.conf naming the test plug-ins, in a directory KRVLDAP_CONF points at.
#ifndef TAV_TEST_SASL_PLUGINS_H
#define TAV_TEST_SASL_PLUGINS_H

#include <stdlib.h>

#include <string>

#include "ldap-plugin.h"
#include "ldap_requests.h"
#include "process.h"
#include "slapd_server.h"

namespace tavtest {

inline SlapdOptions sasl_slapd_options() {
  return {.global_config =
              "sasl-auxprops slapd\nsasl-host 127.0.0.1\nsasl-realm example\nsasl-secprops noanonymous\n"
              "authz-regexp \"^uid=([^,@]+)(@[^,]+)?,(cn=[^,]+,)?cn=[^,]+,cn=auth$\" "
              "\"uid=$1,ou=People,dc=example,dc=com\"\n"};
}

// Writes `text` as krvldap.conf into `dir`, points KRVLDAP_CONF there and
// makes the library read it again.
inline void use_config(const std::string &dir, const std::string &text) {
  write_file(dir + "/krvldap.conf", text);
  setenv("KRVLDAP_CONF", dir.c_str(), 1);
  ldap_conf_forget();
}

}  // namespace tavtest

#endif
