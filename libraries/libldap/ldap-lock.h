// Checked mutex operations and the four process-wide locks.
//
// Every lock and unlock in the library goes through ldap_mutex_lock_at /
// ldap_mutex_unlock_at so that a failure is traced the same way everywhere and
// turns into LDAP_LOCK_ERROR where the caller has a handle to record it on.
// The nesting order of all locks is written down in docs/locking.md.
#ifndef TAV_LDAP_LOCK_H
#define TAV_LDAP_LOCK_H

#include <pthread.h>

#include "tav-visibility.h"

#ifndef LDAP_LOCK_ERROR
#define LDAP_LOCK_ERROR 0x81
#endif

extern "C" {
// pthread_mutex_init with default attributes; traces "MUTEX %p %s %d" on
// success.  Returns the pthread error code.
TAV_INTERNAL int ldap_mutex_create(pthread_mutex_t *m, const char *file, int line);
// 0, or LDAP_LOCK_ERROR after tracing the failure with the caller's place.
TAV_INTERNAL int ldap_mutex_lock_at(pthread_mutex_t *m, const char *file, int line);
TAV_INTERNAL int ldap_mutex_unlock_at(pthread_mutex_t *m, const char *file, int line);

TAV_INTERNAL void ldap_init_all_mutex_once(void);
TAV_INTERNAL void ldap_mutex_init_once(void);
TAV_INTERNAL void ldap_lock_config(void);
TAV_INTERNAL void ldap_unlock_config(void);
TAV_INTERNAL void ldap_lock_defaults(void);
TAV_INTERNAL void ldap_unlock_defaults(void);
TAV_INTERNAL void ldap_lock_ssl_env(void);
TAV_INTERNAL void ldap_unlock_ssl_env(void);
TAV_INTERNAL void ldap_lock_xlate(void);
TAV_INTERNAL void ldap_unlock_xlate(void);
// Test view: how many of the four process-wide mutexes exist (0 to 4).
TAV_INTERNAL int ldap_process_mutexes_created(void);
}

#define LDAP_MUTEX_CREATE(m) ldap_mutex_create((m), __FILE__, __LINE__)
#define LDAP_MUTEX_LOCK(m) ldap_mutex_lock_at((m), __FILE__, __LINE__)
#define LDAP_MUTEX_UNLOCK(m) ldap_mutex_unlock_at((m), __FILE__, __LINE__)

// Scoped lock for the plain cases.  ok() says whether the lock was taken;
// callers that must report LDAP_LOCK_ERROR test it.
class LdapLockGuard {
 public:
  LdapLockGuard(pthread_mutex_t *m, const char *file, int line)
      : m_(m), file_(file), line_(line), rc_(ldap_mutex_lock_at(m, file, line)) {}
  ~LdapLockGuard() {
    if (rc_ == 0) ldap_mutex_unlock_at(m_, file_, line_);
  }
  LdapLockGuard(const LdapLockGuard &) = delete;
  LdapLockGuard &operator=(const LdapLockGuard &) = delete;
  bool ok() const { return rc_ == 0; }
  int rc() const { return rc_; }

 private:
  pthread_mutex_t *m_;
  const char *file_;
  int line_;
  int rc_;
};

#define LDAP_LOCK_GUARD(name, m) LdapLockGuard name((m), __FILE__, __LINE__)

#endif
