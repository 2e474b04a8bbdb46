// Ending a session: wait for the operations in progress, then release.
#include <pthread.h>

#include <cstring>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-lock.h"

extern "C" {

int ldap_unbind(LDAP *ld) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_unbind: ld(%p)\n", (void *)ld);
  if (ld == nullptr || memcmp(ld->ld_eyecatcher, LDAP_EYECATCHER, LDAP_EYECATCHER_LEN) != 0) return LDAP_PARAM_ERROR;
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  // New operations are refused from here on, not only after the wait: a
  // steady stream of new operations would otherwise keep unbind waiting.
  ld->ld_unbind_started = 1;
  while (ld->ld_active_ops != 0) {
    int rc = pthread_cond_wait(&ld->ld_op_cond, &ld->ld_mutex);
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_unbind: pthread_cond_wait failed. errno %d\n", rc);
      ld->ld_unbind_started = 0;
      LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
      return LDAP_LOCK_ERROR;
    }
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
  ldap_ld_free(ld);
  return LDAP_SUCCESS;
}

int ldap_unbind_s(LDAP *ld) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_unbind_s\n");
  return ldap_unbind(ld);
}

int ldap_unbind_ext(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls) {
  (void)sctrls;
  (void)cctrls;
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_unbind_ext\n");
  return ldap_unbind(ld);
}
}
