// Ending a session: wait for the operations in progress, then release.
#include <errno.h>
#include <pthread.h>
#include <time.h>

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
  // Operations count themselves without the lock; one that ended just as
  // this began may not have woken it, so the wait looks again every 10 ms.
  __atomic_store_n(&ld->ld_unbind_started, 1, __ATOMIC_SEQ_CST);
  while (__atomic_load_n(&ld->ld_active_ops, __ATOMIC_SEQ_CST) != 0) {
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_nsec += 10 * 1000 * 1000;
    if (until.tv_nsec >= 1000000000L) {
      until.tv_nsec -= 1000000000L;
      ++until.tv_sec;
    }
    int rc = pthread_cond_timedwait(&ld->ld_op_cond, &ld->ld_mutex, &until);
    if (rc != 0 && rc != ETIMEDOUT) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_unbind: pthread_cond_wait failed. errno %d\n", rc);
      __atomic_store_n(&ld->ld_unbind_started, 0, __ATOMIC_SEQ_CST);
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

int ldap_unbind_ext_s(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls) {
  return ldap_unbind_ext(ld, sctrls, cctrls);
}
}
