// ldaps_demo HOST PORT KDB LABEL BASE
// A session over ldaps through the library's SSL entry points, which the
// exported interface does not offer: SSL set up from a key database whose
// password is in its stash file, a SASL EXTERNAL bind with the client
// certificate LABEL, Who am I?, the connection's SSL properties, and a
// one-level search under BASE.  Exits 0 when every step succeeded.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-search.h"
#include "ldap-ssl.h"
#include "ldap_requests.h"

namespace {

int failed(const char *what, int rc) {
  fprintf(stderr, "ldaps_demo: %s: %s (%d)\n", what, ldap_err2string(rc), rc);
  return 1;
}

std::string option(LDAP *ld, int number) {
  char *v = nullptr;
  std::string s = ldap_get_option(ld, number, &v) == 0 && v != nullptr ? v : "(none)";
  free(v);
  return s;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: ldaps_demo HOST PORT KDB LABEL BASE\n");
    return 2;
  }
  int code = 0;
  int rc = ldap_ssl_client_init(argv[3], nullptr, 0, &code);
  printf("ldap_ssl_client_init(%s, password from the stash file): rc=%d, toolkit code %d\n", argv[3], rc, code);
  if (rc != 0) return failed("ldap_ssl_client_init", rc);
  LDAP *ld = ldap_ssl_init(argv[1], atoi(argv[2]), argv[4]);
  if (ld == nullptr) return failed("ldap_ssl_init", LDAP_PARAM_ERROR);
  struct berval empty = {0, const_cast<char *>("")};
  rc = ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", &empty, nullptr, nullptr, nullptr);
  printf("SASL EXTERNAL bind with the certificate labelled \"%s\": rc=%d\n", argv[4], rc);
  if (rc != 0) return failed("bind", rc);

  const std::string who = tavtest::whoami(ld);
  if (who.empty()) return failed("Who am I?", ldap_get_errno(ld));
  printf("Who am I?  %s\n", who.c_str());

  printf("cipher in use: %s\nkey database: %s\nclient label: %s\nserver names: %s (common name %s)\n",
         option(ld, LDAP_OPT_SSL_CURRENT_CIPHER).c_str(), option(ld, LDAP_OPT_SSL_KEYDB).c_str(),
         option(ld, LDAP_OPT_SSL_CLIENT_LABEL).c_str(), option(ld, LDAP_OPT_SSL_CERT_ALTNAME).c_str(),
         option(ld, LDAP_OPT_SSL_CERT_ALTNAME2).c_str());

  LDAPMessage *res = nullptr;
  const int id = tavtest::send_search(ld, argv[5], LDAP_SCOPE_ONELEVEL);
  if (id < 0 || ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) != LDAP_RES_SEARCH_RESULT)
    return failed("search", ldap_get_errno(ld));
  printf("one-level search under %s over ldaps:\n", argv[5]);
  for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e))
    printf("  %s\n", tavtest::entry_dn(e).c_str());
  ldap_msgfree(res);
  return ldap_unbind(ld) == 0 ? 0 : 1;
}
