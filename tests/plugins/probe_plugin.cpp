// A plug-in for the tests: initialisation functions that fail in each way the
// library tells apart, and a bind function that reports what it was given.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "tavldap_plugin.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

// What the last bind saw, read by the tests through dlsym.
extern "C" {
__attribute__((visibility("default"))) char probe_seen[1024];
__attribute__((visibility("default"))) int probe_inits;
__attribute__((visibility("default"))) int probe_closes;
}

namespace {

template <typename T>
T get(LDAP_PBLOCK *pb, int id, T fallback = T()) {
  void *v = nullptr;
  return tavldap_plugin_api_of(pb)->pblock_get(pb, id, &v) == 0 && v != nullptr ? reinterpret_cast<T>(v) : fallback;
}

int probe_close(LDAP_PBLOCK *) { return ++probe_closes, 0; }

// "mech|dn|cred|argv...|defhost|option54|status": GSSAPI answers 49 with
// extended error 77 and status 2; others answer the code the credentials
// name ("0" when none).
int probe_bind(LDAP_PBLOCK *pb) {
  const tavldap_plugin_api *api = tavldap_plugin_api_of(pb);
  const char *mech = get<const char *>(pb, LDAP_PLUGIN_SASL_MECH, "");
  const struct berval *cred = get<const struct berval *>(pb, LDAP_PLUGIN_SASL_CRED);
  std::string c = cred != nullptr ? std::string(cred->bv_val, cred->bv_len) : "";
  std::string seen = std::string(mech) + "|" + get<const char *>(pb, LDAP_PLUGIN_SASL_BIND_DN, "-") + "|" + c;
  char **argv = get<char **>(pb, LDAP_PLUGIN_ARGV);
  for (intptr_t i = 0; i < get<intptr_t>(pb, LDAP_PLUGIN_ARGC); ++i) seen += std::string("|") + argv[i];
  seen += std::string("|") + get<const char *>(pb, LDAP_PLUGIN_DEFHOST, "-") + "|" +
          std::to_string(get<intptr_t>(pb, LDAP_PLUGIN_OPTION54, -1));
  api->pblock_set(pb, LDAP_PLUGIN_CLOSE_FN, reinterpret_cast<void *>(probe_close));
  if (int *status = get<int *>(pb, LDAP_PLUGIN_STATUS)) {
    *status = 2;
    api->pblock_set(pb, LDAP_PLUGIN_EXT_ERROR, reinterpret_cast<void *>(intptr_t{77}));
    snprintf(probe_seen, sizeof probe_seen, "%s", seen.c_str());
    return 49;
  }
  snprintf(probe_seen, sizeof probe_seen, "%s", seen.c_str());
  return c.empty() ? 0 : std::stoi(c);
}

int other_bind(LDAP_PBLOCK *) { return 53; }

}  // namespace

EXPORT int ldap_plugin_init(LDAP_PBLOCK *pb) {
  ++probe_inits;
  return tavldap_plugin_api_of(pb)->pblock_set(pb, LDAP_PLUGIN_BIND_FN, reinterpret_cast<void *>(probe_bind));
}
EXPORT int other_init(LDAP_PBLOCK *pb) {
  return tavldap_plugin_api_of(pb)->pblock_set(pb, LDAP_PLUGIN_BIND_FN, reinterpret_cast<void *>(other_bind));
}
EXPORT int failing_init(LDAP_PBLOCK *) { return 1; }
EXPORT int init_without_bind(LDAP_PBLOCK *) { return 0; }
