// The message-ID table of a connection: creation and release.
#include <pthread.h>

#include <cstdlib>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-utils.h"

extern "C" {

ldap_msg_table *ldap_msg_table_init(int rows) {
  if (rows <= 0 || rows > LDAP_MSG_TABLE_MAX) return nullptr;
  auto *table = static_cast<ldap_msg_table *>(olx_calloc(1, sizeof(ldap_msg_table)));
  if (table == nullptr) return nullptr;
  table->rows = static_cast<ldap_msg_row *>(olx_calloc((size_t)rows, sizeof(ldap_msg_row)));
  if (table->rows == nullptr) {
    free(table);
    return nullptr;
  }
  table->size = (uint32_t)rows;
  table->free_count = rows;
  int rc = LDAP_MUTEX_CREATE(&table->table_mutex);
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_init: pthread_mutex_init failed for table lock, errno %d\n", rc);
    free(table->rows);
    free(table);
    return nullptr;
  }
  rc = LDAP_MUTEX_CREATE(&table->queue_mutex);
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_init: pthread_mutex_init failed for queue lock, errno %d\n", rc);
    pthread_mutex_destroy(&table->table_mutex);
    free(table->rows);
    free(table);
    return nullptr;
  }
  rc = pthread_cond_init(&table->table_cond, nullptr);
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_init: pthread_cond_init failed, errno %d\n", rc);
    pthread_mutex_destroy(&table->queue_mutex);
    pthread_mutex_destroy(&table->table_mutex);
    free(table->rows);
    free(table);
    return nullptr;
  }
  return table;
}

// Rows carry no messages until requests can be sent; releasing messages left
// in rows and the pending element joins this function with the message code.
void ldap_msg_table_free(ldap_msg_table *table) {
  if (table == nullptr) return;
  free(table->rows);
  int rc = pthread_mutex_destroy(&table->table_mutex);
  if (rc != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_free: pthread_mutex_destroy failed for table lock, errno %d\n", rc);
  rc = pthread_mutex_destroy(&table->queue_mutex);
  if (rc != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_free: pthread_mutex_destroy failed for queue lock, errno %d\n", rc);
  rc = pthread_cond_destroy(&table->table_cond);
  if (rc != 0) LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_free: pthread_cond_destroy failed, errno %d\n", rc);
  free(table);
}
}
