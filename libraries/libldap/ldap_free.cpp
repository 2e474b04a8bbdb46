// Releasing what the library hands to callers, and tearing a session down.
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-plugin.h"
#include "ldap-ssl.h"

namespace {

void destroy_mutex(pthread_mutex_t *m, int line) {
  int rc = pthread_mutex_destroy(m);
  if (rc != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_ld_free: Error in pthread_mutex_destroy File %s, Line %d, errno %d\n", __FILE__,
             line, rc);
}

}  // namespace

extern "C" {
void ldap_memfree(void *p) {
  if (p != nullptr) free(p);
}

// The attribute iteration state is a single allocation, so freeing the block
// releases all of it.
void ldap_ber_free(BerElement *ber) {
  if (ber != nullptr) free(ber);
}

// One connection record with its socket, SSL session, plug-in parameter
// block, table and locks.
void ldap_lc_free(LDAPConn *lc) {
  if (lc == nullptr) return;
  free(lc->lc_host);
  free(lc->lc_peer_name);
  if (conn_connected(lc) == 1) {
    ssl_close_direct(&lc->lc_sb);
    close_connection(&lc->lc_sb);
  }
  fber_sockbuf_release(&lc->lc_sb);
  free(lc->lc_notice);
  ldap_pblock_free(static_cast<LDAP_PBLOCK *>(lc->lc_plugin));
  ldap_msg_table_free(lc->lc_msgtable);
  ldap_controls_free(lc->lc_bind_ctrls);
  pthread_mutex_destroy(&lc->lc_read_mutex);
  pthread_mutex_destroy(&lc->lc_write_mutex);
  pthread_mutex_destroy(&lc->lc_bind_ctrls_mutex);
  pthread_mutex_destroy(&lc->lc_reconnect_mutex);
  pthread_cond_destroy(&lc->lc_reconnect_cond);
  memset(lc, 0, sizeof *lc);
  free(lc);
}

void ldap_ld_free(LDAP *ld) {
  LDAPConn *lc = get_default_connection(ld);
  if (lc != nullptr && lc->lc_plugin != nullptr) {
    void *close_fn = nullptr;
    auto *pb = static_cast<LDAP_PBLOCK *>(lc->lc_plugin);
    if (ldap_pblock_get(pb, LDAP_PLUGIN_CLOSE_FN, &close_fn) == 0 && close_fn != nullptr)
      reinterpret_cast<ldap_plugin_close_fn>(close_fn)(pb);
  }
  lc = ld->ld_servers;
  while (lc != nullptr) {
    LDAPConn *next = lc->lc_next;
    ldap_lc_free(lc);
    lc = next;
  }
  ld->ld_servers = ld->ld_defconn = nullptr;

  free(ld->ld_bind_mech);
  ldap_forget_replay_bind(ld);
  if (ld->ld_bind_cred != nullptr) {
    free(ld->ld_bind_cred->bv_val);
    free(ld->ld_bind_cred);
  }
  ldap_controls_free(ld->ld_sctrls);
  ldap_controls_free(ld->ld_cctrls);
  // The last session of a replaced environment closes it.
  deleteTavEnvRef(static_cast<TavEnvRef *>(ld->ld_ssl_env));
  ld->ld_ssl_env = nullptr;
  free(ld->ld_ssl_cipher);
  free(ld->ld_ssl_cert_label);
  free(ld->ld_defhost);

  destroy_mutex(&ld->ld_mutex, __LINE__);
  destroy_mutex(&ld->ld_conn_mutex, __LINE__);
  destroy_mutex(&ld->ld_err_mutex, __LINE__);
  int rc = pthread_cond_destroy(&ld->ld_op_cond);
  if (rc != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_ld_free: Error in pthread_mutex_destroy File %s, Line %d, errno %d\n", __FILE__,
             __LINE__, rc);
  destroy_mutex(&ld->ld_thread_conn_mutex, __LINE__);

  ldap_free_thread_errors(ld);
  for (ldap_thread_conn *t = ld->ld_thread_conns; t != nullptr;) {
    ldap_thread_conn *next = t->ltc_next;
    free(t);
    t = next;
  }
  // Clearing the eye-catcher makes a stale pointer read as foreign, as far
  // as the allocator leaves the memory alone.
  memset(ld, 0, sizeof *ld);
  free(ld);
}
}
