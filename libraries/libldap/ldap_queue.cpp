// Response reception: waiters read the socket in turn under the connection's
// read lock, one BER element at a time, queue what they read, and sort the
// queue into table rows.
#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"

namespace {
// lm_msgid of a reply whose message ID could not be read.
constexpr int kUnreadableId = -1;

using ldap_proto::kIntermediateResponse;
using ldap_proto::kSearchEntry;
using ldap_proto::kSearchReference;

// Tags come from the wire as ber_tag_t: one too wide for an int is no protocolOp.
bool is_response_type(ber_tag_t tag) { return tag <= (ber_tag_t)INT32_MAX && ldap_proto::is_response((int)tag); }

bool undecodable(const LDAPMessage *msg) { return (msg->lm_flags & LDAP_MSG_UNDECODABLE) != 0; }

// Message ID and operation of a complete reply; the element is left just after
// the ID.  Only a non-negative INTEGER that fits 32 bits is an ID: anything
// else attributes the reply to no request.  A reply whose envelope is not a
// SEQUENCE, or whose operation is missing, unknown or longer than the reply,
// is marked undecodable for the request its ID names.
void decode_envelope(LDAPMessage *msg) {
  BerElement view;
  BerElement *ber = ldap_msg_ber(msg, &view);
  msg->lm_msgid = kUnreadableId;
  msg->lm_msgtype = 0;
  ber_len_t len = 0;
  int64_t id = 0;
  if (fber_peek_tag(ber, &len) != ldap_proto::kInteger || fber_get_long(ber, &id) == LBER_DEFAULT || id < 0 ||
      id > INT32_MAX) {
    msg->lm_flags |= LDAP_MSG_UNDECODABLE;
    return;
  }
  msg->lm_msgid = (int32_t)id;
  char *after_id = ber->ber_ptr;
  const ber_tag_t op = fber_skip_tag(ber, &len);
  const bool whole = op != LBER_DEFAULT && len <= (ber_len_t)(ber->ber_end - ber->ber_ptr);
  ber->ber_ptr = after_id;
  ldap_msg_set_start(msg, after_id);
  if (op != LBER_DEFAULT) msg->lm_msgtype = (int32_t)op;
  if (ber->ber_tag != ldap_proto::kSequence || !whole || !is_response_type(op)) msg->lm_flags |= LDAP_MSG_UNDECODABLE;
}

// Appends a response to its row's chain; a final one completes the row.
void store_in_row(ldap_msg_table *table, ldap_msg_row *row, LDAPMessage *msg) {
  const int id = msg->lm_msgid;
  if (row->head != nullptr) {
    msg->lm_prev = row->tail;
    msg->lm_chain = nullptr;
    row->tail->lm_chain = msg;
    row->tail = msg;
    if (row->next_unread == nullptr) row->next_unread = msg;
  } else {
    msg->lm_chain = msg->lm_prev = nullptr;
    row->head = row->tail = row->next_unread = msg;
  }
  if (id != 0 && is_last_msg(msg)) {
    row->flags |= LDAP_ROW_COMPLETE;
    // The waiter gave up on this request: drop it all as soon as it is done.
    if (row->flags & LDAP_ROW_RELEASE_WHEN_DONE) ldap_msg_table_release_row(table, id);
  }
}

// Makes `msg` the request's final answer, read by every result parser as a
// decoding error.
void stand_as_decoding_error(LDAPMessage *msg, int final_type) {
  msg->lm_msgtype = final_type;
  msg->lm_flags |= LDAP_MSG_UNDECODABLE;
}

// A reply without a readable ID may have been meant for any request on the
// connection, so none of them can trust its answer any more: each outstanding
// request gets a decoding error as its final response.  Should memory run out
// for one, the connection is given up so that its waiter is not left waiting.
void fail_outstanding(ldap_msg_table *table) {
  for (uint32_t id = 1; id < table->size; ++id) {
    ldap_msg_row *row = &table->rows[id];
    if (row->request == nullptr || (row->flags & LDAP_ROW_COMPLETE)) continue;
    const int final_type = ldap_proto::final_response_for(row->request->lm_msgtype);
    if (final_type == 0) continue;
    LDAPMessage *marker = ldap_msg_new(table->conn);
    if (marker == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: no memory to fail msgid=%d, closing the connection\n", (int)id);
      set_conn_closed(table->conn);
      continue;
    }
    marker->lm_msgid = (int32_t)id;
    stand_as_decoding_error(marker, final_type);
    store_in_row(table, row, marker);
  }
}
// The server's notice that it is closing the connection (an unsolicited
// ExtendedResponse naming 1.3.6.1.4.1.1466.20036) ends the connection at once:
// every waiter gets 81, with the server's text.
bool notice_of_disconnection(ldap_msg_table *table, LDAPMessage *msg) {
  static const char kOid[] = "1.3.6.1.4.1.1466.20036";
  if (msg->lm_msgtype != ldap_proto::kExtendedResponse) return false;
  BerElement view;
  BerElement *copy = ldap_ber_dup(ldap_msg_ber(msg, &view));
  if (copy == nullptr) return false;
  int code = 0;
  char *matched = nullptr, *text = nullptr, *name = nullptr;
  ber_len_t len = 0;
  bool notice = fber_scanf(copy, "{iaa", &code, &matched, &text) != LBER_ERROR && copy->ber_ptr < copy->ber_end &&
                fber_peek_tag(copy, &len) == ldap_proto::kResponseName && fber_scanf(copy, "a", &name) != LBER_ERROR &&
                strcmp(name, kOid) == 0;
  fber_free(copy);
  free(matched);
  free(name);
  if (notice) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: notice of disconnection (%d): %s\n", code, text ? text : "");
    char *expected = nullptr;
    if (!__atomic_compare_exchange_n(&table->conn->lc_notice, &expected, text, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE))
      free(text);
    set_conn_closed(table->conn);
  } else {
    free(text);
  }
  return notice;
}

// Row 0 is read only by a caller asking for any message one at a time; what
// nobody reads must not pile up, so only the newest few stay unread.
constexpr int kRow0Unread = 16;
void keep_row0_bounded(ldap_msg_row *row) {
  int unread = 0;
  for (LDAPMessage *m = row->next_unread; m != nullptr; m = m->lm_chain) ++unread;
  while (unread-- >= kRow0Unread && row->next_unread != nullptr) {
    LDAPMessage *oldest = row->next_unread;
    ldap_msg_row_unlink(row, oldest);
    free_msg(oldest, 0);
  }
}

// A request's row keeps only the newest kRow0Unread unread IntermediateResponses
// too: a server cannot grow a row with them while nobody reads.  The walk
// back from the tail stops at the first unread message.
void keep_intermediates_bounded(ldap_msg_row *row) {
  int seen = 0;
  for (LDAPMessage *m = row->tail; m != nullptr; m = m->lm_prev) {
    const bool oldest_unread = m == row->next_unread;
    if (m->lm_msgtype == kIntermediateResponse && ++seen > kRow0Unread) {
      ldap_msg_row_unlink(row, m);
      free_msg(m, 0);
      return;
    }
    if (oldest_unread) return;
  }
}

// A long run of search entries is read in batches: once kStreak entries or
// references have come in a row, the socket's receive low-water mark is
// raised to kBatch bytes, so the reader sleeps until a batch has arrived
// rather than waking for every entry the server writes (most of a large
// search's client CPU is those wake-ups).  A pause in the run (kGatherUs
// without a batch) or any other message ends it, so a result's tail, its
// SearchResultDone and other requests' replies are at most kGatherUs late.
// A closed or failed socket is readable whatever the mark.  On a secure
// socket the mark counts encrypted bytes, and fber_select asks the toolkit
// first for records it already holds.
constexpr uint32_t kStreak = 32;
constexpr int kBatch = 16 * 1024;
constexpr long kGatherUs = 2000;

void set_gathering(Sockbuf *sb, bool on) {
  if ((sb->sb_gathering != 0) == on) return;
  const int mark = on ? kBatch : 1;
  // Without the option (or with an odd socket) batching is simply off.
  if (setsockopt(sb->sb_sd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark) == 0 || !on) sb->sb_gathering = on;
}

// Waits for readability until `deadline` (kNoDeadline: no limit); the select result.
int wait_readable(Sockbuf *sb, int64_t deadline) {
  struct timeval left = {0, 0};
  auto time_left = [&] { ldap_deadline_left_tv(deadline, &left); };
  bool batch = sb->sb_streak >= kStreak && sb->sb_rpos >= sb->sb_rlen;
  struct timeval gather = {0, kGatherUs};
  if (batch && deadline != kNoDeadline) {
    // Too little time left to wait for a batch: take what comes.
    time_left();
    batch = !timercmp(&left, &gather, <);
  }
  if (batch) {
    set_gathering(sb, true);
    if (sb->sb_gathering) {
      const int rc = fber_select(sb, &gather);
      if (rc != 0) return rc;
    }
  }
  set_gathering(sb, false);
  if (deadline == kNoDeadline) return fber_select(sb, nullptr);
  time_left();
  return fber_select(sb, &left);
}

// A read's first wait for readability: -1 (traced), 0 nothing came, or ready.
int first_wait(LDAPConn *conn, int64_t deadline) {
  const int rc = wait_readable(&conn->lc_sb, deadline);
  if (rc < 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "wait_for_message: select failed with socket error: rc = %d, errno = %d\n", rc, errno);
    return -1;
  }
  return rc;
}

// The reading of wait_for_message against a deadline already fixed.
int read_element_until(LDAPConn *conn, BerElement **ber, uint32_t *state, int64_t deadline) {
  int rc = first_wait(conn, deadline);
  if (rc <= 0) return rc;
  for (;;) {
    ber_tag_t tag = fber_get_next_nb(&conn->lc_sb, *ber, state);
    if (tag == LBER_ERROR) return -1;
    if (tag != LDAP_WOULD_BLOCK) return 1;
    rc = wait_readable(&conn->lc_sb, deadline);
    if (rc < 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "wait_for_message: select 2 failed with socket error: rc=%d, errno=%d\n", rc, errno);
      return -1;
    }
    if (rc == 0) return -2;
  }
}

}  // namespace

extern "C" {

int wait_for_message(LDAPConn *conn, BerElement **ber, uint32_t *state, struct timeval *timeout) {
  // Only one thread reads: the others sleep until it has stored something, so
  // the reader waits for readability the whole time-out (no short poll).  The
  // time-out bounds the whole element, not each wait for more of it: a server
  // sending a byte at a time must not stretch the caller's wait.
  // The call's deadline bounds it too.
  return read_element_until(conn, ber, state, ldap_deadline_within_call(timeout));
}

void ldap_msg_table_pending(ldap_msg_table *table, LDAPMessage **msg, int set) {
  if (set)
    table->pending_msg = *msg;
  else
    *msg = table->pending_msg;
}

void put_msg_in_queue(ldap_msg_table *table, LDAPMessage *msg) {
  if (table == nullptr || msg == nullptr) return;
  LDAP_LOG(LDAP_LOG_TRACE, "put_msg_in_queue: storing msgid=%d in queue\n", msg->lm_msgid);
  if (LDAP_MUTEX_LOCK(&table->queue_mutex) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_queue: failed to lock queue, rc=%d\n", LDAP_LOCK_ERROR);
    return;
  }
  msg->lm_chain = nullptr;
  if (table->queue_tail != nullptr)
    table->queue_tail->lm_chain = msg;
  else
    __atomic_store_n(&table->queue_head, msg, __ATOMIC_RELEASE);
  table->queue_tail = msg;
  LDAP_MUTEX_UNLOCK(&table->queue_mutex);
}

int put_msg_in_table(ldap_msg_table *table, LDAPMessage *msg) {
  if (table == nullptr || msg == nullptr) return LDAP_PARAM_ERROR;
  LDAP_LOG(LDAP_LOG_TRACE, "put_msg_in_table: storing msgtype=0x%x, msgid=%d in table\n", msg->lm_msgtype,
           msg->lm_msgid);
  const int id = msg->lm_msgid;
  if (id == kUnreadableId && undecodable(msg)) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: unreadable msgid, failing every outstanding request\n");
    fail_outstanding(table);
    return LDAP_OTHER;
  }
  if (id < 0 || (uint32_t)id >= table->size) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: BAD Msg (%d), throw it.\n", id);
    return LDAP_OTHER;
  }
  ldap_msg_row *row = &table->rows[id];
  if (row->request == nullptr && id != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: No corresponding request msg found.\n");
    return LDAP_OTHER;
  }
  if (id == 0) {
    // An unsolicited notification that cannot be read answers nothing.
    if (undecodable(msg)) return LDAP_OTHER;
    if (notice_of_disconnection(table, msg)) return LDAP_OTHER;
    keep_row0_bounded(row);
  } else {
    // After its final response a request takes no other: a late reply must
    // not change the result its waiter has or is about to get.
    if (row->flags & LDAP_ROW_COMPLETE) {
      LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: msgid=%d already answered, throw it.\n", id);
      return LDAP_OTHER;
    }
    const int request_type = row->request->lm_msgtype;
    const int final_type = ldap_proto::final_response_for(request_type);
    if (final_type == 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: request type 0x%x takes no response, throw it.\n", request_type);
      return LDAP_OTHER;
    }
    if (undecodable(msg) || !ldap_proto::answers(request_type, msg->lm_msgtype)) {
      LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: msgtype=0x%x does not answer request type 0x%x, msgid=%d\n",
               msg->lm_msgtype, request_type, id);
      stand_as_decoding_error(msg, final_type);
    }
  }
  // Read first: a final response may release the row, and the message with it.
  const bool intermediate = id != 0 && msg->lm_msgtype == kIntermediateResponse;
  store_in_row(table, row, msg);
  if (intermediate) keep_intermediates_bounded(row);
  return 0;
}

void flush_queue(ldap_msg_table *table) {
  // Most calls find nothing queued, which needs no lock to see: the head is
  // stored atomically, and a message queued after this look is sorted by the
  // next flush (the reader's own, before it wakes anyone).
  if (__atomic_load_n(&table->queue_head, __ATOMIC_ACQUIRE) == nullptr) return;
  if (LDAP_MUTEX_LOCK(&table->queue_mutex) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "flush_queue: failed to lock queue!\n");
    return;
  }
  LDAPMessage *msg = table->queue_head;
  __atomic_store_n(&table->queue_head, nullptr, __ATOMIC_RELAXED);
  table->queue_tail = nullptr;
  while (msg != nullptr) {
    LDAPMessage *next = msg->lm_chain;
    msg->lm_chain = nullptr;
    if (put_msg_in_table(table, msg) != 0) free_msg(msg, 0);
    msg = next;
  }
  LDAP_MUTEX_UNLOCK(&table->queue_mutex);
}

namespace {
constexpr ber_len_t kCompactCopyLimit = 64 * 1024;

// A complete element just read: decoded, counted for batching, queued.
void received(ldap_msg_table *table, LDAPConn *conn, LDAPMessage *msg) {
  decode_envelope(msg);
  const bool streaming = msg->lm_msgtype == kSearchEntry || msg->lm_msgtype == kSearchReference;
  conn->lc_sb.sb_streak = streaming ? conn->lc_sb.sb_streak + 1 : 0;
  put_msg_in_queue(table, msg);
}

// A compact message cut from the read-ahead when the next element lies
// there whole: 1 made, 0 not there (or not readable this way: the staged
// reader then reads it and reports what is wrong), -1 no memory.  With BER
// tracing on, the staged reader does it all, so the trace stays the same.
int take_whole_element(LDAP *ld, LDAPConn *conn, LDAPMessage **out) {
  Sockbuf *sb = &conn->lc_sb;
  if (sb->sb_rpos >= sb->sb_rlen || ldap_trace_enabled(LDAP_LOG_BER)) return 0;
  const char *at = sb->sb_rbuf + sb->sb_rpos, *end = sb->sb_rbuf + sb->sb_rlen;
  unsigned tag;
  ber_len_t len;
  const char *contents;
  if (!fber_header_at(at, end, &tag, &len, &contents) || len > (ber_len_t)(end - contents)) return 0;
  LDAPMessage *msg = ldap_msg_new_compact(ld, conn, tag, contents, len);
  if (msg == nullptr) return -1;
  sb->sb_rpos += (uint32_t)(contents + len - at);
  *out = msg;
  return 1;
}
}  // namespace

// One element from the socket into the queue, with the connection's read
// lock held: 1 read, 0 nothing within the time-out, else 81 or -1 with the
// session's error recorded.
int ldap_get_msg_locked(LDAP *ld, LDAPConn *conn, struct timeval *timeout) {
  // The reader before this one may have found the connection gone (a notice
  // of disconnection leaves the socket open).
  if (conn_closed(conn) == 1) {
    record_conn_down(ld, conn);
    return LDAP_SERVER_DOWN;
  }
  ldap_msg_table *table = conn->lc_msgtable;
  LDAPMessage *msg = nullptr;
  int64_t deadline = kNoDeadline;
  bool waited = false;
  ldap_msg_table_pending(table, &msg, 0);
  if (msg == nullptr) {
    // The usual case: the whole next element is in the read-ahead already.
    int took = take_whole_element(ld, conn, &msg);
    if (took == 0 && conn->lc_sb.sb_rpos >= conn->lc_sb.sb_rlen && !ldap_trace_enabled(LDAP_LOG_BER)) {
      // Nothing read ahead: wait and read first.  An answer that arrives
      // whole (most do) then never needs the staged reader's message and
      // buffer; one that arrives in parts is staged from what came.
      deadline = ldap_deadline_within_call(timeout);
      waited = true;
      const int ready = first_wait(conn, deadline);
      if (ready == 0) return 0;
      const int filled = ready < 0 ? -1 : fber_fill_ahead(&conn->lc_sb);
      if (filled == -1) {
        set_conn_closed(conn);
        record_conn_down(ld, conn);
        return -1;
      }
      if (filled > 0) took = take_whole_element(ld, conn, &msg);
    }
    if (took < 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_get_msg: Failed with memory error\n");
      ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
      return -1;
    }
    if (took > 0) {
      received(table, conn, msg);
      return 1;
    }
    msg = ldap_msg_new_reading(ld, conn);
    if (msg == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_get_msg: Failed with memory error\n");
      ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
      return -1;
    }
    ldap_msg_table_pending(table, &msg, 1);
    table->pending_state = 0;
  }
  // One deadline for the whole element, the wait above included.
  if (!waited) deadline = ldap_deadline_within_call(timeout);
  int rc = read_element_until(conn, &msg->lm_ber, &table->pending_state, deadline);
  if (rc == 1) {
    // Kept compact like the rest (the reading element goes); a large element
    // is not copied again, and without memory for the copy the message stays
    // as it was read.
    const BerElement *ber = msg->lm_ber;
    LDAPMessage *compact = nullptr;
    if (ber->ber_len < kCompactCopyLimit &&
        (compact = ldap_msg_new_compact(ld, conn, (unsigned)ber->ber_tag, ber->ber_buf, ber->ber_len)) != nullptr) {
      free_msg(msg, 0);
      msg = compact;
    }
    received(table, conn, msg);
    LDAPMessage *none = nullptr;
    ldap_msg_table_pending(table, &none, 1);
  } else if (rc == -1) {
    free_msg(msg, 0);
    LDAPMessage *none = nullptr;
    ldap_msg_table_pending(table, &none, 1);
    table->pending_state = 0;
    set_conn_closed(conn);
    record_conn_down(ld, conn);
    return -1;
  } else if (rc == -2) {
    ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
    return 0;
  }
  return rc;
}

// 0 when the connection can be read, else 81 recorded.
static int readable_connection(LDAP *ld, LDAPConn *conn) {
  if (conn_closed(conn) == 1) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_msg: Socket connection was closed earlier\n");
    record_conn_down(ld, conn);
    return LDAP_SERVER_DOWN;
  }
  if (conn_connected(conn) == 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_get_msg: FATAL ERROR - Socket is not yet created\n");
    ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
    return LDAP_SERVER_DOWN;
  }
  return 0;
}

int ldap_get_msg(LDAP *ld, LDAPConn *conn, struct timeval *timeout) {
  if (int rc = readable_connection(ld, conn); rc != 0) return rc;
  if (LDAP_MUTEX_LOCK(&conn->lc_read_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return -1;
  }
  const int rc = ldap_get_msg_locked(ld, conn, timeout);
  LDAP_MUTEX_UNLOCK(&conn->lc_read_mutex);
  // Threads that found this one reading sleep until a reader wakes them.
  ldap_msg_table_wake_all(conn->lc_msgtable);
  return rc;
}

void ldap_conn_drain_read_ahead(LDAP *ld, LDAPConn *conn) {
  LDAPMessage *msg = nullptr;
  while (take_whole_element(ld, conn, &msg) > 0) received(conn->lc_msgtable, conn, msg);
  flush_queue(conn->lc_msgtable);
}

void ldap_msg_table_fail_sent(ldap_msg_table *table) {
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return;
  for (uint32_t id = 1; id < table->size; ++id) {
    ldap_msg_row *row = &table->rows[id];
    if (row->request == nullptr || !(row->request->lm_flags & LDAP_MSG_SENT) || (row->flags & LDAP_ROW_COMPLETE))
      continue;
    const int final_type = ldap_proto::final_response_for(row->request->lm_msgtype);
    if (final_type == 0) continue;
    LDAPMessage *marker = ldap_msg_new(table->conn);
    if (marker == nullptr) break;  // the row's waiter then waits out its own time-out
    marker->lm_msgid = (int32_t)id;
    marker->lm_msgtype = final_type;
    marker->lm_flags |= LDAP_MSG_LOST;
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_msg_table_fail_sent: msgid=%d was out on the lost connection\n", (int)id);
    store_in_row(table, row, marker);
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  ldap_msg_table_wake_all(table);
}

int ldap_msg_table_read_locked(LDAP *ld, ldap_msg_table *table, struct timeval *timeout) {
  LDAPConn *conn = table->conn;
  if (int rc = readable_connection(ld, conn); rc != 0) return rc;
  const int rc = ldap_get_msg_locked(ld, conn, timeout);
  if (rc != 1) return rc;
  // Whole elements that came with it go to the queue in the same turn (no
  // system call): a search's entry and its result usually arrive together,
  // and the waiter then finds both at its next sort instead of taking the
  // read lock again.  Without memory for one, the next read reports it.
  LDAPMessage *msg = nullptr;
  while (table->pending_msg == nullptr && take_whole_element(ld, conn, &msg) > 0) received(table, conn, msg);
  return 0;
}

int ldap_msg_table_read(LDAP *ld, ldap_msg_table *table, struct timeval *timeout) {
  int rc = ldap_get_msg(ld, table->conn, timeout);
  return rc == 1 ? 0 : rc;
}
}
