// A SASL plug-in on the Cyrus SASL client library: any mechanism Cyrus
// offers, one configuration line per mechanism, e.g.
//   plugin sasl SCRAM-SHA-256 /usr/lib/libtavsasl.so
//   plugin sasl DIGEST-MD5 /usr/lib/libtavsasl.so ldap_plugin_init realm=EXAMPLE
// The bind DN is the authentication name, the credentials the password.
// Arguments: realm=R, authzid=ID, service=S (default "ldap"), and
// allow-cleartext, without which PLAIN and LOGIN are refused unless the bind
// goes out over SSL.
#include <pthread.h>
#include <sasl/sasl.h>
#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tavldap_plugin.h"

namespace {

constexpr int kSuccess = 0, kConfidentialityRequired = 13, kInProgress = 14, kLocalError = 0x52, kAuthUnknown = 0x56,
              kNoMemory = 0x5a;

int sasl_ready = SASL_FAIL;
pthread_once_t sasl_once = PTHREAD_ONCE_INIT;

// Cyrus' default locks do nothing; sessions bind on many threads.
void *mutex_alloc() {
  auto *m = static_cast<pthread_mutex_t *>(malloc(sizeof(pthread_mutex_t)));
  if (m != nullptr) pthread_mutex_init(m, nullptr);
  return m;
}
int mutex_lock(void *m) { return pthread_mutex_lock(static_cast<pthread_mutex_t *>(m)) == 0 ? SASL_OK : SASL_FAIL; }
int mutex_unlock(void *m) { return pthread_mutex_unlock(static_cast<pthread_mutex_t *>(m)) == 0 ? SASL_OK : SASL_FAIL; }
void mutex_free(void *m) {
  pthread_mutex_destroy(static_cast<pthread_mutex_t *>(m));
  free(m);
}

void start_sasl() {
  sasl_set_mutex(mutex_alloc, mutex_lock, mutex_unlock, mutex_free);
  sasl_ready = sasl_client_init(nullptr);
}

// Mechanisms that hand the password itself to the server.
bool sends_password(const char *mech) {
  return mech != nullptr && (strcasecmp(mech, "PLAIN") == 0 || strcasecmp(mech, "LOGIN") == 0);
}

struct Identity {
  std::string authcid, authzid, realm, service = "ldap", host;
  sasl_secret_t *secret = nullptr;
};

int get_name(void *context, int id, const char **result, unsigned *len) {
  auto *who = static_cast<Identity *>(context);
  *result = id == SASL_CB_AUTHNAME ? who->authcid.c_str() : who->authzid.c_str();
  if (len != nullptr) *len = strlen(*result);
  return SASL_OK;
}

int get_secret(sasl_conn_t *, void *context, int, sasl_secret_t **secret) {
  auto *who = static_cast<Identity *>(context);
  if (who->secret == nullptr) return SASL_FAIL;
  *secret = who->secret;
  return SASL_OK;
}

int get_realm(void *context, int, const char **offered, const char **result) {
  auto *who = static_cast<Identity *>(context);
  *result = !who->realm.empty() ? who->realm.c_str() : offered != nullptr ? offered[0] : "";
  return SASL_OK;
}

int ldap_code(int sasl_rc) {
  switch (sasl_rc) {
    case SASL_NOMEM:
      return kNoMemory;
    case SASL_NOMECH:
      return kAuthUnknown;
    default:
      return kLocalError;
  }
}

template <typename T>
T get(const tavldap_plugin_api *api, LDAP_PBLOCK *pb, int id) {
  void *v = nullptr;
  api->pblock_get(pb, id, &v);
  return reinterpret_cast<T>(v);
}

// The first host of the session's host list, without a port.
std::string first_host(const char *hosts) {
  std::string h = hosts != nullptr ? hosts : "";
  h = h.substr(0, h.find(' '));
  if (!h.empty() && h[0] == '[') return h.substr(1, h.find(']') - 1);
  return h.substr(0, h.find(':'));
}

int exchange(const tavldap_plugin_api *api, LDAP *ld, const char *mech, sasl_conn_t *conn, LDAPControl **sctrls,
             LDAPControl **cctrls) {
  const char *out = nullptr, *chosen = nullptr;
  unsigned out_len = 0;
  int s = sasl_client_start(conn, mech, nullptr, &out, &out_len, &chosen);
  if (s != SASL_OK && s != SASL_CONTINUE) return ldap_code(s);
  for (;;) {
    struct berval cred = {out_len, const_cast<char *>(out != nullptr ? out : "")}, *server = nullptr;
    // No initial response (out null) is not the same as an empty one.
    int rc = api->sasl_bind_step(ld, nullptr, mech, out != nullptr ? &cred : nullptr, sctrls, cctrls, &server);
    if (rc != kSuccess && rc != kInProgress) {
      api->berval_free(server);
      return rc;
    }
    if (rc == kSuccess && s == SASL_OK) {  // both sides done
      api->berval_free(server);
      return kSuccess;
    }
    // On success the client may still have the server's proof to check.
    s = sasl_client_step(conn, server != nullptr ? server->bv_val : nullptr,
                         server != nullptr ? static_cast<unsigned>(server->bv_len) : 0, nullptr, &out, &out_len);
    api->berval_free(server);
    if (s != SASL_OK && s != SASL_CONTINUE) return ldap_code(s);
    if (rc == kSuccess) return s == SASL_OK ? kSuccess : kLocalError;
  }
}

int tavsasl_bind(LDAP_PBLOCK *pb) {
  const tavldap_plugin_api *api = tavldap_plugin_api_of(pb);
  if (api->version < 1) return kLocalError;
  LDAP *ld = get<LDAP *>(api, pb, LDAP_PLUGIN_LD);
  const char *mech = get<const char *>(api, pb, LDAP_PLUGIN_SASL_MECH);
  const char *dn = get<const char *>(api, pb, LDAP_PLUGIN_SASL_BIND_DN);
  const struct berval *password = get<const struct berval *>(api, pb, LDAP_PLUGIN_SASL_CRED);
  int argc = static_cast<int>(get<intptr_t>(api, pb, LDAP_PLUGIN_ARGC));
  char **argv = get<char **>(api, pb, LDAP_PLUGIN_ARGV);

  Identity who;
  who.authcid = dn != nullptr ? dn : "";
  who.host = first_host(get<const char *>(api, pb, LDAP_PLUGIN_DEFHOST));
  bool allow_cleartext = false;
  for (int i = 0; i < argc; ++i) {
    std::string a = argv[i];
    for (auto [key, field] : {std::pair{"realm=", &who.realm}, {"authzid=", &who.authzid}, {"service=", &who.service}})
      if (a.rfind(key, 0) == 0) *field = a.substr(strlen(key));
    if (a == "allow-cleartext") allow_cleartext = true;
  }
  // Without SSL anyone on the path would read the password: refused before
  // anything is sent.  A library that does not say counts as no SSL.
  const bool protect = get<intptr_t>(api, pb, LDAP_PLUGIN_SSL_ACTIVE) != 1 && !allow_cleartext;
  if (protect && sends_password(mech)) return kConfidentialityRequired;
  if (password != nullptr) {
    who.secret = static_cast<sasl_secret_t *>(calloc(1, sizeof(sasl_secret_t) + password->bv_len + 1));
    if (who.secret == nullptr) return kNoMemory;
    who.secret->len = password->bv_len;
    memcpy(who.secret->data, password->bv_val, password->bv_len);
  }
  // Cyrus takes every callback as int (*)(void); the id says its real type.
  auto cb = [](auto f) { return reinterpret_cast<int (*)()>(reinterpret_cast<void *>(f)); };
  sasl_callback_t callbacks[] = {
      {SASL_CB_AUTHNAME, cb(get_name), &who}, {SASL_CB_USER, cb(get_name), &who},
      {SASL_CB_PASS, cb(get_secret), &who},   {SASL_CB_GETREALM, cb(get_realm), &who},
      {SASL_CB_LIST_END, nullptr, nullptr},
  };
  sasl_conn_t *conn = nullptr;
  int rc = sasl_client_new(who.service.c_str(), who.host.c_str(), nullptr, nullptr, callbacks, 0, &conn);
  if (rc == SASL_OK) {
    // No security layer: nothing would wrap the session's later traffic.
    // Without SSL, no other mechanism Cyrus knows to be plaintext either.
    sasl_security_properties_t props = {};
    props.max_ssf = 0;
    props.maxbufsize = 0;
    props.security_flags = protect ? SASL_SEC_NOPLAINTEXT : 0;
    rc = sasl_setprop(conn, SASL_SEC_PROPS, &props);
  }
  rc = rc == SASL_OK ? exchange(api, ld, mech, conn, get<LDAPControl **>(api, pb, LDAP_PLUGIN_SERVER_CTRLS),
                                get<LDAPControl **>(api, pb, LDAP_PLUGIN_CLIENT_CTRLS))
                     : ldap_code(rc);
  sasl_dispose(&conn);
  free(who.secret);
  return rc;
}

}  // namespace

// The default initialisation function: starts Cyrus SASL once per process
// and hands over the bind function.
extern "C" __attribute__((visibility("default"))) int ldap_plugin_init(LDAP_PBLOCK *pb) {
  const tavldap_plugin_api *api = tavldap_plugin_api_of(pb);
  if (api->version < 1) return -1;
  pthread_once(&sasl_once, start_sasl);
  if (sasl_ready != SASL_OK) return -1;
  return api->pblock_set(pb, LDAP_PLUGIN_BIND_FN, reinterpret_cast<void *>(tavsasl_bind)) == 0 ? 0 : -1;
}
