// The ldaps benchmark's client on our library and toolkit, run as its own
// process by ssl_bench.
//   ssl_bench_ours HOST PORT KDB PASSWORD walk BASE FILTER
//   ssl_bench_ours HOST PORT KDB PASSWORD handshakes N full|resumed
// "full" gives every connection a new environment (no session to resume),
// made outside the measured part; "resumed" keeps one environment, whose
// toolkit offers the server's last session ticket.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ldap-search.h"
#include "ldap-ssl.h"

namespace {
const char *host, *kdb, *password;
int port;
bool fresh_environment = false;

int our_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return ldap_search_s(ld, base, scope, filter, nullptr, 0, res);
}
int our_connect(LDAP **ld) {
  *ld = ldap_ssl_init(host, port, nullptr);
  return *ld != nullptr ? ldap_simple_bind_s(*ld, nullptr, nullptr) : -1;
}
void our_between() {
  if (fresh_environment) ldap_ssl_environment_init(kdb, password, 0, nullptr);
}
// The toolkit's own account of the default connection.
int our_describe(LDAP *ld, char *protocol, char *cipher, char *group) {
  void *cell = ld->ld_defconn != nullptr ? ld->ld_defconn->lc_sb.sb_ssl : nullptr;
  if (cell == nullptr) return -1;
  tav_handle conn = *static_cast<tav_handle *>(cell);
  const struct {
    int id;
    char *into;
  } facts[] = {{TAV_CONNECT_PROTOCOL, protocol}, {TAV_CONNECT_CIPHER_NAME, cipher}, {TAV_CONNECT_GROUP, group}};
  for (const auto &f : facts) {
    const char *v = nullptr;
    if (tav_fn.attribute_get_buffer(conn, f.id, &v, nullptr) != 0) return -1;
    snprintf(f.into, 64, "%s", *v != '\0' ? v : "none");
  }
  int resumed = 0;
  return tav_fn.attribute_get_numeric_value(conn, TAV_CONNECT_RESUMED, &resumed) == 0 ? resumed : -1;
}
}  // namespace
#define SB_SEARCH our_search
#define SB_BER_FREE(c) ldap_ber_free(c)
#define SB_CONNECT our_connect
#define SB_DISCONNECT(ld) ldap_unbind(ld)
#define SB_BETWEEN our_between
#define SB_DESCRIBE our_describe
#include "ssl_bench_work.h"

int main(int argc, char **argv) {
  if (argc < 7) return 2;
  host = argv[1];
  port = atoi(argv[2]);
  kdb = argv[3];
  password = argv[4];
  setenv("TAVLIB_LOCAL_INSTALL_MODE", "1", 1);
  int code = 0;
  if (int rc = ldap_ssl_client_init(kdb, password, 0, &code); rc != 0) {
    fprintf(stderr, "ssl_bench_ours: ldap_ssl_client_init rc=%d code=%d\n", rc, code);
    return 1;
  }
  if (strcmp(argv[5], "handshakes") == 0 && argc >= 8) {
    fresh_environment = strcmp(argv[7], "full") == 0;
    return sb_handshakes_mode(atoi(argv[6]));
  }
  LDAP *ld = ldap_ssl_init(host, port, nullptr);
  if (ld == nullptr) return 1;
  int rc = sb_main(ld, argc - 5, argv + 5);
  ldap_unbind(ld);
  return rc;
}
