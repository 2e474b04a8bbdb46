// Parameter blocks: the (identifier, value) pairs a plug-in and the library
// exchange.  Freeing a block frees its pairs, never the values.
#include <cstdlib>

#include "ldap-int.h"
#include "ldap-plugin.h"
#include "ldap-utils.h"

namespace {

int plugin_sasl_bind_step(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                          LDAPControl **cctrls, struct berval **servercred) {
  if (servercred != nullptr) *servercred = nullptr;
  return ldap_sasl_bind_s_direct(ld, dn, mech, cred, sctrls, cctrls, servercred);
}

}  // namespace

extern "C" {

const struct tavldap_plugin_api ldap_plugin_api = {TAVLDAP_PLUGIN_API_VERSION, ldap_pblock_get, ldap_pblock_set,
                                                   plugin_sasl_bind_step, fber_bvfree};

LDAP_PBLOCK *ldap_pblock_new(void) {
  auto *pb = static_cast<LDAP_PBLOCK *>(olx_calloc(1, sizeof(LDAP_PBLOCK)));
  if (pb != nullptr) pb->api = &ldap_plugin_api;
  return pb;
}

int ldap_pblock_set(LDAP_PBLOCK *pb, int id, void *value) {
  if (pb == nullptr) return LDAP_LOCAL_ERROR;
  for (ldap_pblock_pair *p = pb->head; p != nullptr; p = p->next) {
    if (p->id == id) {
      p->value = value;
      return LDAP_SUCCESS;
    }
  }
  auto *pair = static_cast<ldap_pblock_pair *>(olx_calloc(1, sizeof(ldap_pblock_pair)));
  if (pair == nullptr) return LDAP_NO_MEMORY;
  pair->id = id;
  pair->value = value;
  if (pb->tail != nullptr)
    pb->tail->next = pair;
  else
    pb->head = pair;
  pb->tail = pair;
  return LDAP_SUCCESS;
}

int ldap_pblock_get(LDAP_PBLOCK *pb, int id, void **value) {
  for (ldap_pblock_pair *p = pb != nullptr ? pb->head : nullptr; p != nullptr; p = p->next) {
    if (p->id == id) {
      *value = p->value;
      return LDAP_SUCCESS;
    }
  }
  return 1;
}

void ldap_pblock_free(LDAP_PBLOCK *pb) {
  if (pb == nullptr) return;
  for (ldap_pblock_pair *p = pb->head; p != nullptr;) {
    ldap_pblock_pair *next = p->next;
    free(p);
    p = next;
  }
  free(pb);
}
}
