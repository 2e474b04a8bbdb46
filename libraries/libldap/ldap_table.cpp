// The message-ID table of a connection: creation and release, handing out
// identifiers, storing requests, serving each row's responses to the one
// thread that owns it.
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-engine.h"
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

void ldap_msg_table_free(ldap_msg_table *table) {
  if (table == nullptr) return;
  for (uint32_t i = 0; i < table->size; ++i) ldap_msg_table_release_msgid_direct(table, (int)i);
  free_msg(table->pending_msg, 0);
  for (ldap_referral_link *l = table->detached; l != nullptr;) {
    ldap_referral_link *next = l->rl_next;
    free(l);
    l = next;
  }
  for (ldap_table_waiter *w = table->spare_waiters; w != nullptr;) {
    ldap_table_waiter *next = w->next;
    pthread_cond_destroy(&w->cond);
    free(w);
    w = next;
  }
  // Responses read but never sorted into rows.
  free_msg(table->queue_head, 1);
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

namespace {

constexpr int kMaxIds = LDAP_MSG_TABLE_MAX;  // rows 0..65535; IDs 1..65535

int32_t my_tid() { return ldap_thread_tid(); }

bool owned_by_me(const ldap_msg_row *row) { return row->owner_tid != 0 && row->owner_tid == my_tid(); }

void take_ownership(ldap_msg_row *row) { row->owner_tid = my_tid(); }

bool finished(const ldap_msg_row *row) { return (row->flags & LDAP_ROW_COMPLETE) && row->next_unread == nullptr; }

// Condition variables that time out on the monotonic clock, as deadlines do.
int monotonic_cond_init(pthread_cond_t *cond) {
  pthread_condattr_t attr;
  if (pthread_condattr_init(&attr) != 0) return -1;
  int rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  if (rc == 0) rc = pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
  return rc;
}

}  // namespace

extern "C" {

int ldap_msg_table_get_next_msgid(ldap_msg_table *table) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_next_msgid entered %p\n", (void *)table);
  if (table == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_next_msgid: NULL table passed - Error.\n");
    return -1;
  }
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_get_next_msgid: failed to lock table, rc=%d\n", LDAP_LOCK_ERROR);
    return -1;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_next_msgid: free msgs = %d\n", table->free_count);
  while (table->free_count < 2) {
    uint32_t new_size = table->size + LDAP_MSG_TABLE_GROWTH;
    ldap_msg_row *rows = nullptr;
    if (new_size <= (uint32_t)kMaxIds) rows = static_cast<ldap_msg_row *>(olx_calloc(new_size, sizeof(ldap_msg_row)));
    if (rows != nullptr) {
      memcpy(rows, table->rows, table->size * sizeof(ldap_msg_row));
      free(table->rows);
      table->rows = rows;
      table->size = new_size;
      table->free_count += LDAP_MSG_TABLE_GROWTH;
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_next_msgid: table size increased to %d\n", (int)new_size);
      break;
    }
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_next_msgid: waiting to get any free msg. No msgid available\n");
    int rc = pthread_cond_wait(&table->table_cond, &table->table_mutex);
    if (rc != 0) LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_get_next_msgid: pthread_cond_wait failed, errno %d\n", rc);
  }
  int id = -1;
  for (uint32_t i = (uint32_t)table->last_msgid + 1; i < table->size && id < 0; ++i)
    if (!(table->rows[i].flags & LDAP_ROW_IN_USE)) id = (int)i;
  for (uint32_t i = 1; i <= (uint32_t)table->last_msgid && i < table->size && id < 0; ++i)
    if (!(table->rows[i].flags & LDAP_ROW_IN_USE)) id = (int)i;
  if (id > 0) {
    table->rows[id].flags = LDAP_ROW_IN_USE;
    table->rows[id].use = ++table->uses != 0 ? table->uses : ++table->uses;
    table->rows[id].refhops = -1;
    --table->free_count;
    table->last_msgid = id;
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_next_msgid returning %d\n", id);
  return id;
}

void ldap_msg_table_release_msgid_direct(ldap_msg_table *table, int msgid) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_release_msgid_direct: entered with msgid=%d, table=%p\n", msgid,
           (void *)table);
  if (table == nullptr || msgid < 0 || (uint32_t)msgid >= table->size) return;
  ldap_msg_row *row = &table->rows[msgid];
  const bool was_in_use = (row->flags & LDAP_ROW_IN_USE) != 0;
  free_msg(row->request, 0);
  free_msg(row->head, 1);
  free_msg(row->held_result, 1);
  free(row->parent_link);
  free(row->child_link);
  free(row->ref_text);
  memset(row, 0, sizeof *row);
  // Row 0 is never handed out, so only rows that were in use count as freed.
  if (was_in_use) {
    ++table->free_count;
    pthread_cond_broadcast(&table->table_cond);
  }
}

void ldap_msg_table_release_msgid(ldap_msg_table *table, int msgid) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_release_msgid entered (table=%p), msgid=%d\n", (void *)table, msgid);
  if (table == nullptr) return;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return;
  ldap_msg_table_release_msgid_direct(table, msgid);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
}

int ldap_msg_table_send_message(ldap_msg_table *table, LDAP *ld, LDAPMessage *request) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_send_message entered: table=%p msg=%p msgid=%d\n", (void *)table,
           (void *)request, request ? request->lm_msgid : -1);
  if (table == nullptr || request == nullptr) return LDAP_PARAM_ERROR;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  // size moves when another thread grows the table: compare under the lock.
  const int id = request->lm_msgid;
  const bool valid = id > 0 && (uint32_t)id < table->size && (table->rows[id].flags & LDAP_ROW_IN_USE);
  if (valid) table->rows[id].request = request;
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  if (!valid) return LDAP_PARAM_ERROR;
  int rc = ldap_write_msg(ld, request);
  if (rc == 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_send_message: returning rc=%d\n", 0);
    return 0;
  }
  LDAP_LOG(LDAP_LOG_ERROR,
           "ldap_msg_table_send_message: failed to send request message, rc=%d, removing request msg from table\n", rc);
  // The caller releases the ID, and with it the request, under this lock; a
  // lock that cannot be had now leaves the row to the session's tear-down.
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_send_message: failed to get table lock, row %d now unusable", id);
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  return rc;
}

int ldap_msg_table_send_request(ldap_msg_table *table, LDAP *ld, LDAPMessage *request) {
  const int rc = ldap_msg_table_send_message(table, ld, request);
  if (rc == 0 || table == nullptr || request == nullptr) return rc;
  // Without the lock the row cannot be touched; the table's release frees it.
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return rc;
  const int id = request->lm_msgid;
  const bool in_row = id > 0 && (uint32_t)id < table->size && table->rows[id].request == request;
  ldap_msg_table_release_msgid_direct(table, id);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  if (!in_row) free_msg(request, 0);
  return rc;
}

int verify_acquire_row(LDAP *ld, ldap_msg_row *row, int msgid, int all) {
  if (msgid == 0) {
    if (all) {
      LDAP_LOG(LDAP_LOG_ERROR, "verify_acquire_row: LDAP_MSG_ALL asked for msgid=0 - Error\n");
      ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
      return -1;
    }
    return 0;  // unsolicited notifications: no owner, any thread may take them
  }
  if (row->request == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "verify_acquire_row: no request msg present and msgid is non-zero - Error\n");
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return -1;
  }
  if (row->owner_tid != 0 && !owned_by_me(row)) {
    ldap_set_errno_direct(ld, LDAP_LOCAL_ERROR, nullptr, nullptr);
    return -1;
  }
  if (row->flags & LDAP_ROW_ABANDONED) {
    ldap_set_errno_direct(ld, LDAP_USER_CANCELLED, nullptr, nullptr);
    return -1;
  }
  take_ownership(row);
  if (finished(row) && row->child_link == nullptr) {
    ldap_set_errno_direct(ld, LDAP_LOCAL_ERROR, nullptr, nullptr);
    return -1;
  }
  return 0;
}

int ldap_get_msg_any(LDAP *ld, ldap_msg_table *table, int *msgid, int all) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_msg_any: entered\n");
  uint32_t candidate = 0;
  // Only rows handed out can match, and there are size - free_count of them
  // (row 0 is never handed out and counts as free): the scan stops once it
  // has seen them all rather than walking every row of the table.
  const uint32_t in_use = table->size - (uint32_t)table->free_count;
  uint32_t seen = 0;
  for (uint32_t i = 1; i < table->size && seen < in_use; ++i) {
    ldap_msg_row *row = &table->rows[i];
    if (!(row->flags & LDAP_ROW_IN_USE)) continue;
    ++seen;
    if (owned_by_me(row) && (!(row->flags & LDAP_ROW_COMPLETE) || row->next_unread != nullptr)) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_msg_any: found a pre-occupied row for this thread, row-id = %d\n", (int)i);
      *msgid = (int)i;
      return 0;
    }
    if (candidate == 0 && row->request != nullptr && row->owner_tid == 0) candidate = i;
  }
  if (candidate == 0) {
    if (all) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ldap_get_msg_any: No free row available in table for msgid=LDAP_RES_ANY\n");
      ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
      *msgid = -1;
      return -1;
    }
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_msg_any: returning msgid=0\n");
    *msgid = 0;
    return 0;
  }
  uint32_t chosen = candidate;
  if (table->last_any_row != 0 && table->last_any_row != table->size - 1) {
    // Round robin: the next outstanding request after the one served last.
    for (uint32_t i = table->last_any_row + 1; i < table->size; ++i) {
      ldap_msg_row *row = &table->rows[i];
      if (row->request != nullptr && row->owner_tid == 0) {
        chosen = i;
        break;
      }
    }
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_msg_any: will take row-id = %d\n", (int)chosen);
  table->last_any_row = chosen;
  take_ownership(&table->rows[chosen]);
  *msgid = (int)chosen;
  return 0;
}

int verify_msgid_n_acquire_row(LDAP *ld, ldap_msg_table *table, int *msgid, int all) {
  LDAP_LOG(LDAP_LOG_TRACE, "verify_msgid_n_acquire_row: ld(%p) table(%p) msgid(%d)\n", (void *)ld, (void *)table,
           *msgid);
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  int rc = 0;
  if (*msgid == LDAP_RES_ANY) {
    if (ldap_get_msg_any(ld, table, msgid, all) != 0 || *msgid == LDAP_RES_ANY) {
      LDAP_LOG(LDAP_LOG_ERROR, "verify_msgid_n_acquire_row: No free row available for this thread\n");
      ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
      rc = LDAP_PARAM_ERROR;
    }
  } else if (*msgid < 0 || (uint32_t)*msgid >= table->size) {
    LDAP_LOG(LDAP_LOG_ERROR, "verify_msgid_n_acquire_row: Bad msgid %d\n", *msgid);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    rc = LDAP_PARAM_ERROR;
  } else if (verify_acquire_row(ld, &table->rows[*msgid], *msgid, all) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "verify_msgid_n_acquire_row: Unable to lock the row\n");
    ldap_set_errno_direct(ld, LDAP_LOCAL_ERROR, nullptr, nullptr);
    rc = -1;
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  if (rc == 0) LDAP_LOG(LDAP_LOG_TRACE, "verify_msgid_n_acquire_row: returning msgid=%d\n", *msgid);
  return rc;
}

}  // extern "C"

namespace {

enum WakeWhom { kWakeFilled, kWakeOne, kWakeAll };

// Waiters picked under the table lock and signalled after it is let go, so
// a woken thread does not wake only to wait for the lock its waker holds.
class Wakeups {
 public:
  Wakeups() = default;
  Wakeups(const Wakeups &) = delete;
  Wakeups &operator=(const Wakeups &) = delete;
  ~Wakeups() { signal(); }
  // Table lock held; false when full (the caller then signals at once).
  bool add(ldap_table_waiter *w) {
    if (count_ == kMax) return false;
    picked_[count_++] = w;
    return true;
  }
  // Table lock released (or about to be: a record is never freed while the
  // table lives, so a late signal is at worst a spurious wake-up).
  void signal() {
    for (int i = 0; i < count_; ++i) pthread_cond_signal(&picked_[i]->cond);
    count_ = 0;
  }

 private:
  static constexpr int kMax = 64;
  ldap_table_waiter *picked_[kMax];
  int count_ = 0;
};

// Table lock held.  kWakeFilled: the waiters whose rows have something to
// deliver; kWakeOne: one waiter whose row has nothing (to take over reading);
// kWakeAll: everyone.  A woken waiter leaves the list.
void wake_waiters(ldap_msg_table *table, WakeWhom whom, Wakeups *later) {
  for (ldap_table_waiter **at = &table->waiters; *at != nullptr;) {
    ldap_table_waiter *w = *at;
    const bool filled = table->rows[w->id].next_unread != nullptr;
    if (whom == kWakeAll || (whom == kWakeFilled) == filled) {
      *at = w->next;
      w->woken = true;
      if (!later->add(w)) pthread_cond_signal(&w->cond);
      if (whom == kWakeOne) return;
    } else {
      at = &w->next;
    }
  }
}

// Sleeps (table lock held, released while asleep) until the reader wakes this
// thread or `left` has passed; leaves the list either way.
void wait_for_reader(ldap_msg_table *table, int id, const struct timeval *left) {
  ldap_table_waiter *self = table->spare_waiters;
  if (self != nullptr) {
    table->spare_waiters = self->next;
  } else {
    self = static_cast<ldap_table_waiter *>(olx_malloc(sizeof(ldap_table_waiter)));
    if (self == nullptr) return;  // then the caller simply looks again
    if (monotonic_cond_init(&self->cond) != 0) {
      free(self);
      return;
    }
  }
  self->id = id;
  self->woken = false;
  self->next = table->waiters;
  table->waiters = self;
  struct timespec until = {0, 0};
  if (left != nullptr) {
    const int64_t end = ldap_deadline_after(left);
    until = {(time_t)(end / 1000000000), (long)(end % 1000000000)};
  }
  while (!self->woken) {
    const int rc = left != nullptr ? pthread_cond_timedwait(&self->cond, &table->table_mutex, &until)
                                   : pthread_cond_wait(&self->cond, &table->table_mutex);
    if (rc != 0) break;
  }
  if (!self->woken)
    for (ldap_table_waiter **at = &table->waiters; *at != nullptr; at = &(*at)->next)
      if (*at == self) {
        *at = self->next;
        break;
      }
  self->next = table->spare_waiters;
  table->spare_waiters = self;
}

}  // namespace

extern "C" {

void ldap_msg_table_wake_all(ldap_msg_table *table) {
  if (table == nullptr || LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return;
  Wakeups wakeups;
  wake_waiters(table, kWakeAll, &wakeups);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
}

int ldap_msg_table_get_message(LDAP *ld, ldap_msg_table *table, int *msgid, struct timeval *timeout,
                               LDAPMessage **result) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_message entered: %p %lu %p\n", (void *)table,
           (unsigned long)(msgid ? *msgid : -1), (void *)result);
  if (table == nullptr || result == nullptr || msgid == nullptr || *msgid < 0) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return -1;
  }
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return -1;
  }
  const int id = *msgid;
  if ((uint32_t)id >= table->size) {
    LDAP_MUTEX_UNLOCK(&table->table_mutex);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return -1;
  }
  ldap_msg_row *row = &table->rows[id];
  if (id != 0 && finished(row)) {
    // Everything was delivered: only a result kept by referral chasing is left.
    int rc = -1;
    LDAPMessage *answer = nullptr;
    if (row->parent_link == nullptr && row->ref_text != nullptr && row->request != nullptr) {
      // Referrals that could not be followed, as the version-2 text.
      if (get_return_error_msg(row->request, 0, row->ref_text, &answer) != 0) answer = nullptr;
      free_msg(row->held_result, 1);
      row->held_result = nullptr;
      free(row->ref_text);
      row->ref_text = nullptr;
    } else if (row->parent_link == nullptr && row->held_result != nullptr) {
      answer = row->held_result;
      row->held_result = nullptr;
    }
    if (answer != nullptr) {
      // The answer stands in for the row's final result (the referral that
      // could not be followed); entries before it stay in the chain.
      LDAPMessage *last = row->tail;
      if (last != nullptr && is_last_msg(last)) {
        ldap_msg_row_unlink(row, last);
        free_msg(last, 0);
      }
      ldap_msg_row_link_before(row, answer, nullptr);
      *result = answer;
      rc = answer->lm_msgtype;
    } else {
      ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    }
    LDAP_MUTEX_UNLOCK(&table->table_mutex);
    return rc;
  }

  // One deadline for the whole wait: the caller's time-out, and the call's
  // deadline when one is in scope (a re-bind for a referral, say, waits with
  // no time-out of its own).
  const int64_t deadline = ldap_deadline_within_call(timeout);
  int rc = 0;
  auto deliver = [&]() -> bool {
    row = &table->rows[id];  // growth may have moved the rows
    LDAPMessage *msg = row->next_unread;
    if (msg == nullptr) return false;
    row->next_unread = msg->lm_chain;
    *result = msg;
    rc = msg->lm_msgtype;
    return true;
  };
  bool reading = false;  // whether this thread's last turn read the connection
  Wakeups wakeups;       // signalled once the table lock is let go
  const uint32_t use = table->rows[id].use;
  for (;;) {
    if (deliver()) break;
    flush_queue(table);
    if (deliver()) break;
    // Abandoned by another thread meanwhile (and perhaps handed out again).
    if (id != 0 && (table->rows[id].use != use || (table->rows[id].flags & LDAP_ROW_ABANDONED))) {
      ldap_set_errno_direct(ld, LDAP_USER_CANCELLED, nullptr, nullptr);
      rc = -1;
      break;
    }
    // Each read gets what is left of the deadline, not all of it.
    struct timeval left_value;
    struct timeval *left = ldap_deadline_left_tv(deadline, &left_value);
    // One thread reads the connection at a time; the others sleep until it
    // has stored something for them (or leaves), then look at their rows.
    LDAPConn *conn = table->conn;
    reading = pthread_mutex_trylock(&conn->lc_read_mutex) == 0;
    if (reading) {
      LDAP_MUTEX_UNLOCK(&table->table_mutex);
      wakeups.signal();
      // The reader looks up at least every 100 ms: another thread may abandon
      // its request, and nothing on the socket would wake it for that.
      struct timeval slice = {0, 100000};
      if (id != 0 && (left == nullptr || timercmp(left, &slice, >))) left = &slice;
      const int soc_err = ldap_msg_table_read_locked(ld, table, left);
      LDAP_MUTEX_UNLOCK(&conn->lc_read_mutex);
      if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
        ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
        return -1;
      }
      if (soc_err != 0) {
        wake_waiters(table, kWakeAll, &wakeups);
        LDAP_MUTEX_UNLOCK(&table->table_mutex);
        LDAP_LOG(LDAP_LOG_ERROR, "ldap_msg_table_get_message: soc_err=%d\n", soc_err);
        record_conn_down(ld, conn);
        ldap_msg_table_detach_released(table);
        return -1;
      }
      flush_queue(table);
      wake_waiters(table, kWakeFilled, &wakeups);
    } else {
      wakeups.signal();  // not to sleep on wake-ups still owed
      wait_for_reader(table, id, left);
    }
    flush_queue(table);
    if (deliver()) break;
    if (deadline != kNoDeadline && ldap_monotonic_ns() >= deadline) {
      rc = 0;
      break;
    }
  }
  // A reader that leaves hands reading on: one waiter looks at the
  // connection next (it goes back to sleep if another thread reads it).  A
  // thread that did not read leaves the reader where it is, so it wakes
  // nobody.
  if (reading) wake_waiters(table, kWakeOne, &wakeups);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  wakeups.signal();
  ldap_msg_table_detach_released(table);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_get_message: returning rc=%d\n", rc);
  return rc;
}

void ldap_msg_row_link_before(ldap_msg_row *row, LDAPMessage *msg, LDAPMessage *before) {
  msg->lm_chain = before;
  msg->lm_prev = before != nullptr ? before->lm_prev : row->tail;
  if (msg->lm_prev != nullptr)
    msg->lm_prev->lm_chain = msg;
  else
    row->head = msg;
  if (before != nullptr)
    before->lm_prev = msg;
  else
    row->tail = msg;
}

void ldap_msg_row_unlink(ldap_msg_row *row, LDAPMessage *msg) {
  if (msg->lm_prev != nullptr)
    msg->lm_prev->lm_chain = msg->lm_chain;
  else if (row->head == msg)
    row->head = msg->lm_chain;
  if (msg->lm_chain != nullptr)
    msg->lm_chain->lm_prev = msg->lm_prev;
  else if (row->tail == msg)
    row->tail = msg->lm_prev;
  if (row->next_unread == msg) row->next_unread = msg->lm_chain;
  msg->lm_chain = msg->lm_prev = nullptr;
}

void ldap_msg_table_unlink_msg(LDAPMessage *msg) {
  if (msg == nullptr || msg->lm_conn == nullptr || msg->lm_conn->lc_msgtable == nullptr) return;
  ldap_msg_table *table = msg->lm_conn->lc_msgtable;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return;
  if (msg->lm_msgid >= 0 && (uint32_t)msg->lm_msgid < table->size)
    ldap_msg_row_unlink(&table->rows[msg->lm_msgid], msg);
  msg->lm_chain = msg->lm_prev = nullptr;
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
}

int ldap_msg_table_abandon_row(ldap_msg_table *table, int msgid, int commit) {
  if (table == nullptr || LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return 0;
  int going = 0;
  if (msgid > 0 && (uint32_t)msgid < table->size && (table->rows[msgid].flags & LDAP_ROW_IN_USE) &&
      table->rows[msgid].request != nullptr && !(table->rows[msgid].flags & LDAP_ROW_ABANDONED)) {
    ldap_msg_row *row = &table->rows[msgid];
    going = (row->flags & LDAP_ROW_COMPLETE) ? 0 : 1;
    if (commit) {
      while (row->next_unread != nullptr) {
        LDAPMessage *unread = row->next_unread;
        ldap_msg_row_unlink(row, unread);
        free_msg(unread, 0);
      }
      row->flags |= LDAP_ROW_COMPLETE | LDAP_ROW_ABANDONED;
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_abandon_row: msgid=%d abandoned\n", msgid);
      // A thread waiting on it sees the row's use change and gets 88.
      if (row->head == nullptr && row->child_link == nullptr) ldap_msg_table_release_msgid_direct(table, msgid);
    }
  }
  Wakeups wakeups;
  if (commit) wake_waiters(table, kWakeAll, &wakeups);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  wakeups.signal();
  return going;
}

int ldap_msg_table_release_if_done(ldap_msg_table *table, int msgid) {
  if (table == nullptr || LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return 0;
  int released = 0;
  if (msgid > 0 && (uint32_t)msgid < table->size) {
    ldap_msg_row *row = &table->rows[msgid];
    if ((row->flags & LDAP_ROW_COMPLETE) && row->head == nullptr && row->child_link == nullptr) {
      ldap_msg_table_release_msgid_direct(table, msgid);
      released = 1;
    }
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  return released;
}

void ldap_msg_table_mark_rows(LDAP *ld, int msgid, uint32_t bits) {
  LDAPConn *conn = get_default_connection(ld);
  ldap_msg_table *table = conn ? conn->lc_msgtable : nullptr;
  // Down the chain of chased requests, one table lock at a time.
  while (table != nullptr && LDAP_MUTEX_LOCK(&table->table_mutex) == 0) {
    ldap_msg_table *next = nullptr;
    int next_id = 0;
    LDAPConn *const here = table->conn;
    bool released = false;
    bool abandon = false;
    if (msgid > 0 && (uint32_t)msgid < table->size && (table->rows[msgid].flags & LDAP_ROW_IN_USE)) {
      ldap_msg_row *row = &table->rows[msgid];
      row->flags |= bits;
      if (row->child_link != nullptr) {
        next = row->child_link->rl_table;
        next_id = row->child_link->rl_msgid;
      } else if ((bits & LDAP_ROW_RELEASE_WHEN_DONE) && ((row->flags & LDAP_ROW_COMPLETE) || conn_closed(here))) {
        // The final response may already be stored (read by this or another
        // thread after the wait gave up), or can no longer come: nothing
        // will arrive to release it.
        ldap_msg_table_release_row(table, msgid);
        released = true;
      }
      // A caller that gives up on a request tells its server to stop, so the
      // server neither goes on working nor sends what nobody will read.
      abandon = (bits & LDAP_ROW_RELEASE_WHEN_DONE) && !released && !(row->flags & LDAP_ROW_COMPLETE);
    }
    LDAP_MUTEX_UNLOCK(&table->table_mutex);
    if (abandon) ldap_send_abandon(ld, here, msgid);
    // A table this thread released nothing in is not touched again: its
    // failed connection may be freed by its last user meanwhile.
    if (released) {
      ldap_msg_table_detach_released(table);
      ldap_conn_release(ld, here, 0);
    }
    table = next;
    msgid = next_id;
  }
}

void ldap_msg_table_release_row(ldap_msg_table *table, int msgid) {
  ldap_msg_row *row = &table->rows[msgid];
  if (row->child_link != nullptr) return;
  if (row->parent_link != nullptr) {
    ldap_referral_link *up = row->parent_link;
    row->parent_link = nullptr;
    up->rl_child_msgid = msgid;
    up->rl_next = table->detached;
    __atomic_store_n(&table->detached, up, __ATOMIC_RELEASE);
  }
  ldap_msg_table_release_msgid_direct(table, msgid);
}

void ldap_msg_table_detach_released(ldap_msg_table *table) {
  // Almost always there is nothing to do, which needs no lock to see: the
  // list head is stored atomically, and a link added after this look is
  // handled by the next call.
  if (table == nullptr || __atomic_load_n(&table->detached, __ATOMIC_ACQUIRE) == nullptr) return;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return;
  ldap_referral_link *list = table->detached;
  __atomic_store_n(&table->detached, nullptr, __ATOMIC_RELAXED);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  while (list != nullptr) {
    ldap_referral_link *up = list;
    list = list->rl_next;
    ldap_msg_table *ptable = up->rl_table;
    if (LDAP_MUTEX_LOCK(&ptable->table_mutex) == 0) {
      if ((uint32_t)up->rl_msgid < ptable->size) {
        ldap_msg_row *prow = &ptable->rows[up->rl_msgid];
        ldap_referral_link *down = prow->child_link;
        // The parent row may have been released and reused meanwhile.
        if (down != nullptr && down->rl_table == table && down->rl_msgid == up->rl_child_msgid) {
          free(down);
          prow->child_link = nullptr;
          if ((prow->flags & LDAP_ROW_RELEASE_WHEN_DONE) && (prow->flags & LDAP_ROW_COMPLETE))
            ldap_msg_table_release_row(ptable, up->rl_msgid);
        }
      }
      LDAP_MUTEX_UNLOCK(&ptable->table_mutex);
      ldap_msg_table_detach_released(ptable);
    }
    free(up);
  }
}

void ldap_msg_table_detach_referral(LDAP *, ldap_msg_table *table, int msgid) {
  if (table == nullptr || LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return;
  ldap_referral_link *up = nullptr;
  if (msgid > 0 && (uint32_t)msgid < table->size) {
    ldap_msg_row *row = &table->rows[msgid];
    // A chased row is served by whichever thread waits on its root.
    if ((row->owner_tid == 0 || owned_by_me(row)) && row->parent_link != nullptr) {
      up = row->parent_link;
      row->parent_link = nullptr;
      ldap_msg_table_release_msgid_direct(table, msgid);
    }
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  if (up == nullptr) return;
  if (LDAP_MUTEX_LOCK(&up->rl_table->table_mutex) == 0) {
    ldap_msg_row *prow = &up->rl_table->rows[up->rl_msgid];
    if (prow->child_link != nullptr && prow->child_link->rl_table == table && prow->child_link->rl_msgid == msgid) {
      free(prow->child_link);
      prow->child_link = nullptr;
    }
    LDAP_MUTEX_UNLOCK(&up->rl_table->table_mutex);
  }
  free(up);
}
}
