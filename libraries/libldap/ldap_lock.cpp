// Checked mutex helpers and the process-wide locks for configuration,
// defaults, the SSL environment and translation.
#include "ldap-lock.h"

#include <atomic>

#include "ldap-debug.h"

namespace {

enum { kConfig, kDefaults, kSslEnv, kXlate, kCount };

pthread_mutex_t process_mutex[kCount];
// How many of process_mutex were created: a failed creation stops the rest.
int process_created = 0;
pthread_once_t process_once = PTHREAD_ONCE_INIT;
// Fast path only; the once-control does the real work.
std::atomic<int> process_initialised{0};

void lock_process(int which, int line) {
  if (process_initialised.load(std::memory_order_acquire) == 0) ldap_mutex_init_once();
  if (which >= process_created) {
    // Never touch a mutex that was not created: report it as a lock failure.
    LDAP_LOG(LDAP_LOG_ERROR, "Error in pthread_mutex_lock at File %s, Line %d, errno %d\n", __FILE__, line, 0);
    return;
  }
  ldap_mutex_lock_at(&process_mutex[which], __FILE__, line);
}

void unlock_process(int which, int line) {
  if (which >= process_created) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error in pthread_mutex_unlock at File %s, Line %d, errno %d\n", __FILE__, line, 0);
    return;
  }
  ldap_mutex_unlock_at(&process_mutex[which], __FILE__, line);
}

}  // namespace

extern "C" {

int ldap_mutex_create(pthread_mutex_t *m, const char *file, int line) {
  int rc = pthread_mutex_init(m, nullptr);
  if (rc == 0) LDAP_LOG(LDAP_LOG_MUTEX, "MUTEX %p %s %d\n", (void *)m, file, line);
  return rc;
}

int ldap_mutex_lock_at(pthread_mutex_t *m, const char *file, int line) {
  int rc = pthread_mutex_lock(m);
  if (rc == 0) return 0;
  LDAP_LOG(LDAP_LOG_ERROR, "Error in pthread_mutex_lock at File %s, Line %d, errno %d\n", file, line, rc);
  return LDAP_LOCK_ERROR;
}

int ldap_mutex_unlock_at(pthread_mutex_t *m, const char *file, int line) {
  int rc = pthread_mutex_unlock(m);
  if (rc == 0) return 0;
  LDAP_LOG(LDAP_LOG_ERROR, "Error in pthread_mutex_unlock at File %s, Line %d, errno %d\n", file, line, rc);
  return LDAP_LOCK_ERROR;
}

void ldap_init_all_mutex_once(void) {
  for (int i = 0; i < kCount; ++i) {
    int rc = pthread_mutex_init(&process_mutex[i], nullptr);
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR,
               "ldap_init_all_mutex_once: pthread_mutex_init failed at File %s, Line %d, errno %d\n", __FILE__,
               __LINE__, rc);
      return;
    }
    process_created = i + 1;
    LDAP_LOG(LDAP_LOG_MUTEX, "MUTEX %p %s %d\n", (void *)&process_mutex[i], __FILE__, __LINE__);
  }
}

void ldap_mutex_init_once(void) {
  pthread_once(&process_once, ldap_init_all_mutex_once);
  process_initialised.store(1, std::memory_order_release);
}

int ldap_process_mutexes_created(void) {
  return process_initialised.load(std::memory_order_acquire) ? process_created : 0;
}

void ldap_lock_config(void) { lock_process(kConfig, __LINE__); }
void ldap_unlock_config(void) { unlock_process(kConfig, __LINE__); }
void ldap_lock_defaults(void) { lock_process(kDefaults, __LINE__); }
void ldap_unlock_defaults(void) { unlock_process(kDefaults, __LINE__); }
void ldap_lock_ssl_env(void) { lock_process(kSslEnv, __LINE__); }
void ldap_unlock_ssl_env(void) { unlock_process(kSslEnv, __LINE__); }
void ldap_lock_xlate(void) { lock_process(kXlate, __LINE__); }
void ldap_unlock_xlate(void) { unlock_process(kXlate, __LINE__); }
}
