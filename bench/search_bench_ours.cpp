// The search benchmark's client on our library, loaded from the shared object
// and called through its exported tav_ldap_* functions, as users load it.  It
// runs the same workload code as the libldap peer (search_bench_work.h, which
// calls the classic API names: here they are pointers to the exports).
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tavldap.h"

namespace {
LDAP *(*ldap_init)(const char *, int);
int (*ldap_unbind)(LDAP *);
int (*ldap_set_option)(LDAP *, int, const void *);
int (*ldap_simple_bind_s)(LDAP *, const char *, const char *);
int (*search_st)(LDAP *, const char *, int, const char *, char **, int, struct timeval *, LDAPMessage **);
int (*ldap_count_entries)(LDAP *, LDAPMessage *);
LDAPMessage *(*ldap_first_entry)(LDAP *, LDAPMessage *);
LDAPMessage *(*ldap_next_entry)(LDAP *, LDAPMessage *);
char *(*ldap_get_dn)(LDAP *, LDAPMessage *);
char *(*ldap_first_attribute)(LDAP *, LDAPMessage *, BerElement **);
char *(*ldap_next_attribute)(LDAP *, LDAPMessage *, BerElement *);
struct berval **(*ldap_get_values_len)(LDAP *, LDAPMessage *, const char *);
void (*ldap_value_free_len)(struct berval **);
int (*ldap_msgfree)(LDAPMessage *);
void (*ldap_memfree)(void *);
void (*ldap_ber_free)(BerElement *);

template <typename F>
bool bind(void *so, F &f, const char *name) {
  f = reinterpret_cast<F>(dlvsym(so, name, "tav8"));
  if (f == nullptr) fprintf(stderr, "search_bench_ours: %s not exported\n", name);
  return f != nullptr;
}

// The shared object beside the benchmark (../lib/), or TAVLDAP_LIBRARY.
bool load() {
  std::string path = getenv("TAVLDAP_LIBRARY") ? getenv("TAVLDAP_LIBRARY") : "";
  if (path.empty()) {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return false;
    self[n] = '\0';
    path = std::string(self);
    path = path.substr(0, path.rfind('/')) + "/../lib/libtav8ldap_64.so";
  }
  void *so = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (so == nullptr) {
    fprintf(stderr, "search_bench_ours: %s\n", dlerror());
    return false;
  }
  return bind(so, ldap_init, "tav_ldap_init") && bind(so, ldap_unbind, "tav_ldap_unbind") &&
         bind(so, ldap_set_option, "tav_ldap_set_option") &&
         bind(so, ldap_simple_bind_s, "tav_ldap_simple_bind_s") && bind(so, search_st, "tav_ldap_search_st") &&
         bind(so, ldap_count_entries, "tav_ldap_count_entries") && bind(so, ldap_first_entry, "tav_ldap_first_entry") &&
         bind(so, ldap_next_entry, "tav_ldap_next_entry") && bind(so, ldap_get_dn, "tav_ldap_get_dn") &&
         bind(so, ldap_first_attribute, "tav_ldap_first_attribute") &&
         bind(so, ldap_next_attribute, "tav_ldap_next_attribute") &&
         bind(so, ldap_get_values_len, "tav_ldap_get_values_len") &&
         bind(so, ldap_value_free_len, "tav_ldap_value_free_len") && bind(so, ldap_msgfree, "tav_ldap_msgfree") &&
         bind(so, ldap_memfree, "tav_ldap_memfree") && bind(so, ldap_ber_free, "tav_ldap_ber_free");
}

int our_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return search_st(ld, base, scope, filter, nullptr, 0, nullptr, res);
}
int our_search_t(LDAP *ld, const char *base, int scope, const char *filter, struct timeval *wait, LDAPMessage **res) {
  return search_st(ld, base, scope, filter, nullptr, 0, wait, res);
}

// Referrals are chased binding as SB_REBIND_DN / SB_REBIND_PW when set.
int our_rebind(LDAP *, char **dn, char **pw, int *method, int freeit) {
  if (freeit) return 0;
  *dn = getenv("SB_REBIND_DN");
  *pw = getenv("SB_REBIND_PW");
  *method = LDAP_AUTH_SIMPLE;
  return 0;
}
}  // namespace
#define SB_SEARCH our_search
#define SB_SEARCH_T our_search_t
#define SB_BER_FREE(c) ldap_ber_free(c)
#include "search_bench_work.h"

int main(int argc, char **argv) {
  if (argc < 4 || !load()) return 2;
  LDAP *ld = ldap_init(argv[1], atoi(argv[2]));
  if (ld == nullptr) return 1;
  if (getenv("SB_REBIND_DN") && getenv("SB_REBIND_PW"))
    ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(&our_rebind));
  // A bound session that reopens its connection after an outage.
  if (getenv("SB_BIND_DN") && getenv("SB_BIND_PW")) {
    ldap_set_option(ld, LDAP_OPT_RECONNECT, LDAP_OPT_ON);
    if (ldap_simple_bind_s(ld, getenv("SB_BIND_DN"), getenv("SB_BIND_PW")) != 0) return 1;
  }
  int rc = sb_main(ld, argc - 3, argv + 3);
  ldap_unbind(ld);
  return rc;
}
