// The message engine: messages and their chains, the message-ID table's
// operations, request transmission, response reception and ldap_result.
#ifndef TAV_LDAP_ENGINE_H
#define TAV_LDAP_ENGINE_H

#include <sys/time.h>
#include <unistd.h>

#include <cstdint>

#include "fber-stream.h"
#include "lber-int.h"
#include "ldap-int.h"

// A request or response.  One zero-filled allocation; owns lm_ber.
struct ldapmsg {
  int32_t lm_msgid;
  int32_t lm_msgtype;
  uint32_t lm_flags;
  BerElement *lm_ber;
  LDAPConn *lm_conn;
  LDAPMessage *lm_chain;
  LDAPMessage *lm_prev;
};

// lm_flags: handed out alone by LDAP_MSG_ONE; a chain of one for walking and freeing.
#define LDAP_MSG_HANDED_ALONE 0x2
// lm_flags: the reply could not be decoded or does not answer its request; it
// stands as the request's final response, and every result parser reads it as
// LDAP_DECODING_ERROR.  Its lm_ber is not to be read.
#define LDAP_MSG_UNDECODABLE 0x4
// lm_flags: the message and its reading element are one allocation (a
// received message); free_msg releases the element's contents only.
#define LDAP_MSG_ONE_BLOCK 0x8
// lm_flags: a compact received message: its element's contents follow the
// record in the same allocation and lm_ber is null; read it through
// ldap_msg_ber.  Most received messages are compact: a message holds its
// bytes and little else.
#define LDAP_MSG_COMPACT 0x10
// lm_flags of a request: written whole to its connection (under the write
// lock), so its answer can come only from that socket.
#define LDAP_MSG_SENT 0x20
// lm_flags: stands as the final response of a request that was out on a
// connection lost and reopened since (LDAP_OPT_RECONNECT); every result
// parser reads it as LDAP_SERVER_DOWN.  Its lm_ber is not to be read.
#define LDAP_MSG_LOST 0x40
// The code a stand-in final response gives (LDAP_MSG_UNDECODABLE,
// LDAP_MSG_LOST), or 0 for a message the server sent.
inline int ldap_msg_stand_in_code(const LDAPMessage *msg) {
  if (msg->lm_flags & LDAP_MSG_UNDECODABLE) return LDAP_DECODING_ERROR;
  return (msg->lm_flags & LDAP_MSG_LOST) ? LDAP_SERVER_DOWN : 0;
}

// Bytes the readers report when a socket has nothing more for now.
#define LDAP_WOULD_BLOCK 11

// A connection's state flags are read by readers and writers that hold
// different locks; they change once (not connected -> connected -> closed),
// so atomic loads and stores are all they need.
inline int conn_closed(const LDAPConn *c) { return __atomic_load_n(&c->lc_closed, __ATOMIC_ACQUIRE); }
inline void set_conn_closed(LDAPConn *c) { __atomic_store_n(&c->lc_closed, 1, __ATOMIC_RELEASE); }
inline int conn_connected(const LDAPConn *c) { return __atomic_load_n(&c->lc_connected, __ATOMIC_ACQUIRE); }
inline void set_conn_connected(LDAPConn *c) { __atomic_store_n(&c->lc_connected, 1, __ATOMIC_RELEASE); }
inline void clear_conn_connected(LDAPConn *c) { __atomic_store_n(&c->lc_connected, 0, __ATOMIC_RELEASE); }
// Records 81 for a connection that is gone, with the server's notice text
// when it said goodbye.
// The calling thread's kernel id, asked once per thread: gettid is a system
// call, and every operation asks.  (A child of fork keeps its parent's cached
// value; it cannot share the parent's sessions anyway, the connections being
// the parent's.)
inline int32_t ldap_thread_tid() {
  static thread_local const int32_t tid = (int32_t)gettid();
  return tid;
}

inline void record_conn_down(LDAP *ld, const LDAPConn *c) {
  ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, __atomic_load_n(&c->lc_notice, __ATOMIC_ACQUIRE));
}

extern "C" {
// Messages and chains.
TAV_INTERNAL LDAPMessage *ldap_msg_new(LDAPConn *conn);
// A message to receive into: the message and a reading element with the
// session's translation settings in one allocation; null without memory.
TAV_INTERNAL LDAPMessage *ldap_msg_new_reading(LDAP *ld, LDAPConn *conn);
TAV_INTERNAL void free_msg(LDAPMessage *msg, int all);
// A compact message holding a copy of one whole received element (`tag`,
// `len` contents bytes at `contents`) with the session's translation
// settings; null without memory.
TAV_INTERNAL LDAPMessage *ldap_msg_new_compact(LDAP *ld, LDAPConn *conn, unsigned tag, const char *contents,
                                               ber_len_t len);
// The element to read a message from: lm_ber, or for a compact message
// `view` filled in over its bytes (valid while the message lives; it owns
// nothing).  Null for a message without either.
TAV_INTERNAL BerElement *ldap_msg_ber(const LDAPMessage *msg, BerElement *view);
// Where reading a compact message starts (just after its ID once decoded).
TAV_INTERNAL void ldap_msg_set_start(LDAPMessage *msg, const char *at);
TAV_INTERNAL int ldap_msgfree_direct(LDAPMessage *msg);
TAV_INTERNAL LDAPMessage *ldap_first_message_direct(LDAP *ld, LDAPMessage *res);
TAV_INTERNAL LDAPMessage *ldap_next_message_direct(LDAP *ld, LDAPMessage *msg);
TAV_INTERNAL int ldap_count_messages_direct(LDAP *ld, LDAPMessage *res);
TAV_INTERNAL int is_last_msg(LDAPMessage *msg);
TAV_INTERNAL void ldap_msg_release_msgid(LDAPMessage *request);

// The message-ID table's rows.
TAV_INTERNAL int ldap_msg_table_get_next_msgid(ldap_msg_table *table);
TAV_INTERNAL int ldap_msg_table_send_message(ldap_msg_table *table, LDAP *ld, LDAPMessage *request);
// ldap_msg_table_send_message for the operations: on failure the ID is given
// back and the request freed, whether or not its row had taken it.
TAV_INTERNAL int ldap_msg_table_send_request(ldap_msg_table *table, LDAP *ld, LDAPMessage *request);
TAV_INTERNAL void ldap_msg_table_release_msgid(ldap_msg_table *table, int msgid);
TAV_INTERNAL void ldap_msg_table_release_msgid_direct(ldap_msg_table *table, int msgid);
TAV_INTERNAL int verify_msgid_n_acquire_row(LDAP *ld, ldap_msg_table *table, int *msgid, int all);
TAV_INTERNAL int verify_acquire_row(LDAP *ld, ldap_msg_row *row, int msgid, int all);
TAV_INTERNAL int ldap_get_msg_any(LDAP *ld, ldap_msg_table *table, int *msgid, int all);
TAV_INTERNAL int ldap_msg_table_get_message(LDAP *ld, ldap_msg_table *table, int *msgid, struct timeval *timeout,
                                            LDAPMessage **result);
TAV_INTERNAL void ldap_msg_table_unlink_msg(LDAPMessage *msg);
// A row's chain, under its table lock: `msg` in front of `before` (a member
// of the chain), or at the tail when `before` is null; `msg` out of it.
TAV_INTERNAL void ldap_msg_row_link_before(ldap_msg_row *row, LDAPMessage *msg, LDAPMessage *before);
TAV_INTERNAL void ldap_msg_row_unlink(ldap_msg_row *row, LDAPMessage *msg);
TAV_INTERNAL int ldap_msg_table_release_if_done(ldap_msg_table *table, int msgid);
TAV_INTERNAL void ldap_msg_table_mark_rows(LDAP *ld, int msgid, uint32_t bits);
// Sends an AbandonRequest for `abandoned` on an open connection (never
// opening one), without waiting past the call's deadline; the thread's error
// record is left as it was.  A result code.
TAV_INTERNAL int ldap_send_abandon(LDAP *ld, LDAPConn *conn, int abandoned);
TAV_INTERNAL int ldap_send_abandon_ctrls(LDAP *ld, LDAPConn *conn, int abandoned, LDAPControl **sctrls);
// ldap_abandon's side of the table.  commit 0: whether `msgid` is a request
// still going (its server is to be told).  commit 1: the row is given up:
// messages nobody has read are freed, later answers dropped
// (LDAP_ROW_ABANDONED), and the row released now unless a thread owns it
// (it then gets LDAP_USER_CANCELLED and releases it) or the caller still
// holds messages of it (ldap_msgfree releases it).  A result code.
TAV_INTERNAL int ldap_msg_table_abandon_row(ldap_msg_table *table, int msgid, int commit);
TAV_INTERNAL void ldap_msg_table_detach_referral(LDAP *ld, ldap_msg_table *table, int msgid);

// Request transmission.
TAV_INTERNAL int ldap_write_msg(LDAP *ld, LDAPMessage *request);
TAV_INTERNAL int waitOnSocket(int fd);
TAV_INTERNAL int ldap_get_write_timeout(void);
// Test hook: forget the write time-out read from the environment.
TAV_INTERNAL void ldap_reset_write_timeout(void);

// Response reception.
TAV_INTERNAL int ldap_get_msg(LDAP *ld, LDAPConn *conn, struct timeval *timeout);
TAV_INTERNAL int ldap_msg_table_read(LDAP *ld, ldap_msg_table *table, struct timeval *timeout);
// ldap_msg_table_read for a caller that holds the connection's read lock.
TAV_INTERNAL int ldap_msg_table_read_locked(LDAP *ld, ldap_msg_table *table, struct timeval *timeout);
TAV_INTERNAL int wait_for_message(LDAPConn *conn, BerElement **ber, uint32_t *state, struct timeval *timeout);
TAV_INTERNAL void ldap_msg_table_pending(ldap_msg_table *table, LDAPMessage **msg, int set);
TAV_INTERNAL void put_msg_in_queue(ldap_msg_table *table, LDAPMessage *msg);
TAV_INTERNAL void flush_queue(ldap_msg_table *table);
// Wakes every thread waiting for a reader of the table's connection (after a
// read made outside ldap_msg_table_get_message, which wakes them itself).
TAV_INTERNAL void ldap_msg_table_wake_all(ldap_msg_table *table);
TAV_INTERNAL int put_msg_in_table(ldap_msg_table *table, LDAPMessage *msg);
// Under the connection's read lock: the whole elements left in a lost
// connection's read-ahead go to their rows before the socket is let go.
TAV_INTERNAL void ldap_conn_drain_read_ahead(LDAP *ld, LDAPConn *conn);
// Every request written to the table's (lost) connection and not answered
// gets 81 as its final response, and its waiter is woken: it is never sent
// again on the connection that replaces it.
TAV_INTERNAL void ldap_msg_table_fail_sent(ldap_msg_table *table);

// Reconnection (LDAP_OPT_RECONNECT).
// Before a request is written to the default connection: reopens it when it
// was lost, or waits while another thread does.  0 or the code to fail with.
TAV_INTERNAL int ldap_reconnect_gate(LDAP *ld, LDAPConn *conn, const LDAPMessage *request);
// Whether ldap_reconnect_gate applies to this request on this connection.
TAV_INTERNAL bool ldap_reconnect_applies(LDAP *ld, LDAPConn *conn, const LDAPMessage *request);
// Under the write lock of a connected connection: whether the server has
// closed it (end of stream or an error waiting on the socket).
TAV_INTERNAL bool ldap_peer_gone(LDAPConn *conn);
// The bind a reopened default connection repeats: LDAP_AUTH_SIMPLE (DN and
// password) or LDAP_AUTH_SASL (DN; mechanism and credentials as recorded by
// ldap_save_bind_info).  Without memory for the copy, nothing is repeated
// and reconnection is refused rather than coming back as someone else.
TAV_INTERNAL void ldap_record_replay_bind(LDAP *ld, int method, const char *dn, const char *password);
TAV_INTERNAL void ldap_forget_replay_bind(LDAP *ld);

// Result retrieval.
TAV_INTERNAL int ldap_result_int(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result);
TAV_INTERNAL int ldap_return_all_msgs(LDAP *ld, int msgid, struct timeval *timeout, LDAPMessage **result,
                                      ldap_msg_table *table, int *error, int chase, int hops);
TAV_INTERNAL int ldap_return_one_msg(LDAP *ld, int msgid, struct timeval *timeout, LDAPMessage **result,
                                     ldap_msg_table *table, int *error, int chase, int hops);
TAV_INTERNAL int ldap_get_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result,
                                 ldap_msg_table *table);

// Referral chasing.
TAV_INTERNAL int look_for_referrals(LDAP *ld, LDAPMessage *msg, LDAPMessage **out, struct timeval *timeout, int *error,
                                    int hops);
TAV_INTERNAL LDAPMessage *chase_v2_referrals(LDAP *ld, LDAPMessage *msg, const char *text, struct timeval *timeout,
                                             int *error, int hops);
TAV_INTERNAL LDAPMessage *chase_v3_referrals(LDAP *ld, char **urls, LDAPMessage *msg, struct timeval *timeout,
                                             int *error, int hops);
// The first URL's connection that can be had, held for the caller
// (ldap_conn_release).
TAV_INTERNAL LDAPConn *get_referral_connection(LDAP *ld, char **urls, LDAPURLDesc **lud, int *error);
// Whether a server-supplied URL may be followed: never to a local socket
// (LDAP_PARAM_ERROR), and an ldaps URL (*secure 1) only with SSL set up, the
// session then holding the SSL environment (LDAP_SSL_NOT_AVAILABLE).  0 when
// it may; failures are traced under `who`.
TAV_INTERNAL int ldap_url_server_allowed(LDAP *ld, const LDAPURLDesc *lud, int *secure, const char *who);
TAV_INTERNAL int send_referral_bind_request(LDAP *ld, ldap_msg_table *table);
// send_referral_bind_request the first time a connection is used for
// referrals and after the session's identity has changed; later calls find it
// bound and return 0.  LDAP_CONN_RETIRED: it was bound for an older identity
// while other requests were out on it (a bind would make the server drop
// them), so it is retired; the caller looks up another connection.
constexpr int LDAP_CONN_RETIRED = -3;
TAV_INTERNAL int ldap_referral_rebind_once(LDAP *ld, ldap_msg_table *table);
TAV_INTERNAL int reencode_and_send(LDAP *ld, ldap_msg_table *table, LDAPURLDesc *lud, LDAPMessage *msg,
                                   LDAPMessage **out, int *error);
TAV_INTERNAL BerElement *re_encode_request(LDAP *ld, BerElement *ber, int newid, LDAPURLDesc *lud);
TAV_INTERNAL int set_parent_child_pointers(LDAPMessage *msg, ldap_msg_table *ctable, int cid);
TAV_INTERNAL int append_referral(char **text, const char *url);
TAV_INTERNAL int get_return_error_msg(LDAPMessage *carrier, int code, const char *text, LDAPMessage **out);
TAV_INTERNAL BerElement *ldap_build_result_ber(int code, const char *matched, const char *text, int msgid, int type);
TAV_INTERNAL void ldap_referral_find_root(ldap_msg_table **table, int *msgid);
TAV_INTERNAL int ldap_referral_record_failure(LDAP *ld, ldap_msg_table *table, int msgid, const char *url, int code);
TAV_INTERNAL int ldap_referral_final_result(LDAP *ld, LDAPMessage *msg, LDAPMessage **out);
TAV_INTERNAL void ldap_referral_hold_child_result(LDAPMessage **msg);
TAV_INTERNAL void ldap_referral_discard_msg(LDAPMessage *msg);
TAV_INTERNAL int ldap_referral_copy_controls(BerElement *to, BerElement *from);
TAV_INTERNAL int ldap_request_to_response_tag(int tag);
// Merges a chased row's message into its parent row (the parent table's lock
// is taken inside); 1 when *msg is to be delivered.
TAV_INTERNAL int ldap_msg_table_merge_referral_msg(LDAPMessage **msg, ldap_msg_table *ptable, int pid,
                                                   int child_finished);
// Releases a row unless a chased child still feeds it; a parent link of the
// row is queued on the table for ldap_msg_table_detach_released.  Table lock held.
TAV_INTERNAL void ldap_msg_table_release_row(ldap_msg_table *table, int msgid);
// Clears the parents of child rows released under this table's lock (and
// releases parents that were only waiting for them).  Table lock not held.
TAV_INTERNAL void ldap_msg_table_detach_released(ldap_msg_table *table);

// Elements made for a session carry copies of its translation settings.
TAV_INTERNAL BerElement *ldap_alloc_ber_with_options(LDAP *ld, int for_reading);
// A reading copy of the rest of an element (translation settings included).
TAV_INTERNAL BerElement *ldap_ber_dup(const BerElement *ber);
}

// Fills `copy` with a reader of the message's element (a record copy: what
// it reads is the message's); false for a null message or one without.
inline bool ldap_msg_reader(const LDAPMessage *msg, BerElement *copy) {
  const BerElement *element = msg != nullptr ? ldap_msg_ber(msg, copy) : nullptr;
  if (element == nullptr) return false;
  if (element != copy) *copy = *element;
  return true;
}

// One deadline per call, on the monotonic clock (wall-clock steps neither
// stretch nor cut a call).  A call that takes a time-out (or that the
// session's default operation time-out covers) puts a CallDeadline in scope
// on its thread; every blocking step under it (connecting, the SSL
// handshake, re-binds for referrals, writing, reading, DNS queries) waits no
// longer than what is left of it.  Nested scopes keep the earlier deadline,
// so a step given a time-out of its own still ends with the call.  A zero
// time-out (a poll) sets none.  The arithmetic saturates: any timeval a
// caller can pass gives a deadline (a far one is as good as none).
constexpr int64_t kNoDeadline = INT64_MAX;
// Nanoseconds on the monotonic clock.
TAV_INTERNAL int64_t ldap_monotonic_ns(void);
// The deadline `timeout` from now (kNoDeadline for null; a negative field
// counts as zero), without overflow.
TAV_INTERNAL int64_t ldap_deadline_after(const struct timeval *timeout);
// The calling thread's call deadline, or kNoDeadline.
TAV_INTERNAL int64_t ldap_call_deadline(void);
// The earlier of `timeout` from now and the call's deadline.
TAV_INTERNAL int64_t ldap_deadline_within_call(const struct timeval *timeout);
// What is left of `deadline` (zero once passed): -1 for kNoDeadline, else
// milliseconds rounded up and clamped to INT_MAX.
TAV_INTERNAL int ldap_deadline_left_ms(int64_t deadline);
// What is left of `deadline` as a timeval in *out (zero once passed); null
// for kNoDeadline.
TAV_INTERNAL struct timeval *ldap_deadline_left_tv(int64_t deadline, struct timeval *out);

class CallDeadline {
 public:
  explicit CallDeadline(const struct timeval *timeout);
  ~CallDeadline();
  CallDeadline(const CallDeadline &) = delete;
  CallDeadline &operator=(const CallDeadline &) = delete;
  // What is left of this scope's deadline (the earlier of its own and the
  // enclosing call's), zero once it has passed or for a poll; null when
  // there is none.
  struct timeval *left(struct timeval *out) const;
  int64_t at() const { return at_; }

 private:
  int64_t at_ = kNoDeadline;
  int64_t outer_ = kNoDeadline;
  bool poll_ = false;  // a zero time-out: left() is zero
};
// True while a call's deadline is in scope on this thread and has passed.
TAV_INTERNAL bool call_deadline_passed(void);

#endif
