// Internal declarations shared by the LDAP client modules: the session and
// connection records, the message-ID table, the per-thread error record, and
// the functions the modules call across files.
#ifndef TAV_LDAP_INT_H
#define TAV_LDAP_INT_H

#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cstdint>

#include "lber-int.h"
#include "sockbuf.h"
#include "tav-visibility.h"
#include "tavldap.h"
#include "tavldap_full.h"

typedef struct ldapconn LDAPConn;
struct ldap_referral_link;
struct ldap_server_request;

// The platform's thread identity, compared only with pthread_equal.
typedef pthread_t ldap_thread_id;

// Bits of ld_options.
#define LDAP_BITOPT_REFERRALS 0x2
#define LDAP_BITOPT_RESTART 0x4

// Rows a session's default connection table starts with.
#define LDAP_MSG_TABLE_INITIAL_SIZE 256

// Longest host name (or URL text) ldap_init looks at.
#define LDAP_MAX_HOSTNAME 256
// Working buffer for one entry of a host list in open_ldap_connection: a DNS
// name (at most 253 characters), brackets, a colon and a port fit with room.
#define LDAP_HOST_ENTRY_MAX 512
// olx_getaddrinfo's copy of the host name.
#define LDAP_ADDRINFO_HOST_MAX 512

// One thread's last outcome on one session.  Guarded by ld_err_mutex.
typedef struct ldap_thread_error {
  ldap_thread_id lte_thread;
  int lte_code;
  int lte_ext_code;
  char *lte_matched;  // owned
  char *lte_message;  // owned
  struct ldap_thread_error *lte_next;
} ldap_thread_error;

// A thread's own connection override.  Guarded by ld_thread_conn_mutex.
typedef struct ldap_thread_conn {
  ldap_thread_id ltc_thread;
  LDAPConn *ltc_conn;
  struct ldap_thread_conn *ltc_next;
  struct ldap_thread_conn *ltc_prev;
} ldap_thread_conn;

// One row per message ID.  Guarded by the table lock.
typedef struct ldap_msg_row {
  // Kernel thread id of the one thread served by this row; 0 = none.  Unlike
  // pthread_t, which is reused as soon as a thread is joined, it is not handed
  // to another thread until the id space wraps.
  int32_t owner_tid;
  LDAPMessage *request;
  LDAPMessage *head;
  LDAPMessage *tail;
  LDAPMessage *next_unread;
  uint32_t flags;
  int32_t refhops;
  struct ldap_referral_link *parent_link;
  struct ldap_referral_link *child_link;
  char *ref_text;
  LDAPMessage *held_result;
  // Which use of the row this is (from the table's counter, never 0): a
  // thread waiting on a row that was abandoned and handed out again sees it
  // changed.
  uint32_t use;
} ldap_msg_row;

#define LDAP_ROW_IN_USE 0x1
#define LDAP_ROW_COMPLETE 0x2
#define LDAP_ROW_REF_FIXED 0x4
#define LDAP_ROW_CHASE 0x8
#define LDAP_ROW_RELEASE_WHEN_DONE 0x20
// Given up by ldap_abandon: complete, nothing more is stored or handed out.
#define LDAP_ROW_ABANDONED 0x40

#define LDAP_MSG_TABLE_GROWTH 256
#define LDAP_MSG_TABLE_MAX 65536

// A thread asleep until the connection's reader has stored something for
// its row (it lives on that thread's stack while it waits).
struct ldap_table_waiter {
  pthread_cond_t cond;
  int id;
  bool woken;
  struct ldap_table_waiter *next;
};

typedef struct ldap_msg_table {
  ldap_msg_row *rows;
  LDAPConn *conn;
  pthread_mutex_t table_mutex;
  pthread_cond_t table_cond;
  // Threads waiting for a row while another reads the connection, each on
  // its own condition variable: the reader wakes the owners of the rows it
  // filled and, when it leaves, one more to take over reading.
  struct ldap_table_waiter *waiters;  // table_mutex
  // Waiter records not in use.  They live until the table is freed, so the
  // reader may signal one after letting the table lock go: a record that its
  // waiter has left (or another has taken) then sees a spurious wake-up.
  struct ldap_table_waiter *spare_waiters;  // table_mutex
  int32_t free_count;                       // table_mutex
  uint32_t size;                            // table_mutex
  LDAPMessage *queue_head;                  // queue_mutex
  LDAPMessage *queue_tail;                  // queue_mutex
  pthread_mutex_t queue_mutex;
  int32_t last_msgid;     // table_mutex
  uint32_t last_any_row;  // table_mutex
  LDAPMessage *pending_msg;
  uint32_t pending_state;
  // Parent links of child rows released while their parent's table lock could
  // not be taken; their parents are cleared after this table's lock is let go.
  struct ldap_referral_link *detached;  // table_mutex
  uint32_t uses;                        // table_mutex: rows handed out so far
} ldap_msg_table;

// Ties a chased request's row (child) to the row that referred (parent).
struct ldap_referral_link {
  ldap_msg_table *rl_table;  // the linked row's table
  int32_t rl_msgid;          // the linked row
  LDAPMessage *rl_msg;       // child link: the parent's carrier message
  // Bookkeeping of a detached parent link: the child row it came from.
  int32_t rl_child_msgid;
  struct ldap_referral_link *rl_next;
};

// A server connection of a session.
struct ldapconn {
  char *lc_host;       // blank-separated host list
  char *lc_peer_name;  // the host of lc_host this connection reached, or null
  int lc_port;         // host byte order
  Sockbuf lc_sb;
  int lc_connected;
  ldap_msg_table *lc_msgtable;
  pthread_mutex_t lc_bind_ctrls_mutex;
  pthread_mutex_t lc_read_mutex;
  pthread_mutex_t lc_write_mutex;
  LDAPConn *lc_next;            // ld_conn_mutex
  LDAPControl **lc_bind_ctrls;  // lc_bind_ctrls_mutex
  LDAP *lc_ld;
  void *lc_plugin;  // SASL plug-in parameter block, or null
  int lc_closed;
  // A referral connection is re-bound before its first request and again
  // when the session's bind identity has changed: 1 + the session's
  // ld_bind_generation it was bound for, 0 before its first bind.
  unsigned int lc_rebound;  // ld_conn_mutex
  // The server's text of a notice of disconnection; set once (atomically)
  // when the notice is read, freed with the connection.
  char *lc_notice;
  // Opened over SSL whatever the session says: a connection an ldaps URL
  // asked for.  Set before the connection is opened.
  int lc_ssl;
  // Threads holding the connection from ldap_get_connection_for_url until
  // ldap_conn_release, before and besides any row of its table.
  int lc_holders;  // ld_conn_mutex
  // A referral connection bound for an identity the session has left while
  // requests were out on it: a bind now would make the server drop them, so
  // it is found no more and goes once unused, like a failed one.
  int lc_retired;  // ld_conn_mutex
  // The session's default connection, reopened in place after it was lost
  // (LDAP_OPT_RECONNECT): one thread at a time reopens and re-binds it;
  // threads that come meanwhile wait on lc_reconnect_cond for that attempt
  // and share its outcome (waiting in line for attempts of their own, one
  // could be passed over for a whole outage).  lc_reconnect_mutex guards the
  // attempt's bookkeeping only, never the attempt.
  pthread_mutex_t lc_reconnect_mutex;
  pthread_cond_t lc_reconnect_cond;  // CLOCK_MONOTONIC
  // Kernel thread id of the thread reopening the connection, 0 when no
  // attempt is under way (written under lc_reconnect_mutex, read atomically
  // at the gate): its own re-bind passes the gate the others wait at.
  int32_t lc_reconnector;
  uint32_t lc_reconnect_tries;  // lc_reconnect_mutex: attempts so far
  // TLS started on this connection by ldap_start_tls_s: reconnection does
  // not reopen it (it would come back in clear).
  int lc_starttls;
};

// The session handle.  A handle is live while ld_eyecatcher holds "LDAP HDL".
struct ldap {
  char ld_eyecatcher[8];
  char *ld_bind_mech;           // ld_mutex
  int ld_bind_method;           // ld_mutex
  struct berval *ld_bind_cred;  // ld_mutex
  int ld_version;
  int ld_timelimit;
  int ld_sizelimit;
  int ld_deref;
  unsigned int ld_options;
  unsigned int ld_active_ops;  // ld_mutex
  int ld_refhoplimit;
  LDAPControl **ld_sctrls;
  LDAPControl **ld_cctrls;
  LDAPConn *ld_defconn;
  LDAPConn *ld_servers;  // ld_conn_mutex
  pthread_mutex_t ld_mutex;
  pthread_mutex_t ld_conn_mutex;
  pthread_mutex_t ld_err_mutex;
  pthread_cond_t ld_op_cond;
  int ld_xlate;
  LDAP_REBINDPROC_CALLBACK *ld_rebind_proc;
  int ld_unbind_started;  // ld_mutex
  char *ld_ssl_cert_label;
  int ld_ssl;
  void *ld_ssl_env;
  char *ld_ssl_cipher;
  int ld_option52;
  int ld_ssl_timeout;
  ldap_thread_error *ld_errors;  // ld_err_mutex
  pthread_mutex_t ld_thread_conn_mutex;
  ldap_thread_conn *ld_thread_conns;  // ld_thread_conn_mutex
  int ld_option54;
  int ld_plugin_status;
  char *ld_defhost;
  int ld_defport;
  // 1: secure connections do not check the server's name against its
  // certificate (LDAP_OPT_SSL_CHECK_HOSTNAME off, or LDAP_SSL_HOSTNAME_CHECK=FALSE).
  int ld_ssl_no_host_check;
  // Counts the binds sent on the session's default connection (atomic), so
  // that referral connections bound for an older identity are bound again.
  unsigned int ld_bind_generation;
  // LDAP_OPT_TIMEOUT and LDAP_OPT_NETWORK_TIMEOUT (valid while *_on is 1).
  struct timeval ld_op_timeout;
  int ld_op_timeout_on;
  struct timeval ld_net_timeout;
  int ld_net_timeout_on;
  // LDAP_OPT_RECONNECT: a request on a lost default connection reopens it.
  int ld_reconnect;
  // The last bind sent on the default connection, repeated on a reopened one
  // (ld_mutex): LDAP_AUTH_SIMPLE with DN and password, LDAP_AUTH_SASL with
  // DN (the mechanism and credentials are ld_bind_mech and ld_bind_cred), or
  // 0 for none.
  int ld_replay_method;
  char *ld_replay_dn;
  char *ld_replay_pw;
};

#define LDAP_EYECATCHER "LDAP HDL"
#define LDAP_EYECATCHER_LEN 8

// Functions of the public headers are declared there only; what follows is
// internal.
extern "C" {
// Session lifecycle.
TAV_INTERNAL LDAPConn *ldap_lc_init(const char *host, int port, int table_size);
TAV_INTERNAL void ldap_lc_free(LDAPConn *lc);
TAV_INTERNAL int ldap_start_operation(LDAP *ld);
TAV_INTERNAL void ldap_end_operation(LDAP *ld);
TAV_INTERNAL int open_ldap_connection(LDAP *ld, LDAPConn *lc);
TAV_INTERNAL int open_default_connection(LDAP *ld);
TAV_INTERNAL void ldap_ld_free(LDAP *ld);
// Splits one host-list entry into host and port (0 when none is written).
// Returns 0, or LDAP_PARAM_ERROR for an entry that does not fit `host_size`
// or carries a bad port.
TAV_INTERNAL int ldap_split_host_entry(const char *entry, char *host, size_t host_size, int *port);

// Connections.
TAV_INTERNAL int olx_getaddrinfo(const char *host, int port_net, struct addrinfo **res);
TAV_INTERNAL int open_connection(Sockbuf *sb, const char *host, int port_net);
TAV_INTERNAL int set_socket_nb(Sockbuf *sb);
TAV_INTERNAL void close_connection(Sockbuf *sb);
TAV_INTERNAL LDAPConn *get_default_connection(LDAP *ld);
TAV_INTERNAL int ldap_set_thread_connection(LDAP *ld, LDAPConn *conn);
TAV_INTERNAL LDAPConn *ldap_get_connection(LDAP *ld, const char *host, int port, int open, int *rc,
                                           int include_default);
// ldap_get_connection for a URL: `secure` (an ldaps URL) finds or opens only
// a connection over SSL, and a port-less ldaps URL means port 636.  A
// connection other than the default one is held for the caller, who lets go
// of it with ldap_conn_release.
TAV_INTERNAL LDAPConn *ldap_get_connection_for_url(LDAP *ld, const char *host, int port, int secure, int *rc,
                                                   int include_default);
// The session's LDAP_OPT_TIMEOUT or LDAP_OPT_NETWORK_TIMEOUT into *out:
// true when it is set.
TAV_INTERNAL bool ldap_session_timeout(LDAP *ld, int option, struct timeval *out);
TAV_INTERNAL int ldap_conn_matches(LDAPConn *conn, const char *host, int port);
TAV_INTERNAL void ldap_free_connection_if_idle(LDAP *ld, LDAPConn *conn);
// Lets go of a connection (`held`: one taken by ldap_get_connection_for_url)
// once the caller is done with it and its rows.  A failed connection that no
// thread holds and no row uses is unlinked and freed; rows whose waiters gave
// up on it are released first (nothing more will come for them).  Safe to
// call for a connection another thread may have freed meanwhile: only one
// still on the session's list is looked at.
TAV_INTERNAL void ldap_conn_release(LDAP *ld, LDAPConn *conn, int held);

// Message-ID table: creation and release.
TAV_INTERNAL ldap_msg_table *ldap_msg_table_init(int rows);
TAV_INTERNAL void ldap_msg_table_free(ldap_msg_table *table);

// Result codes and the per-thread error record.
TAV_INTERNAL int ldap_get_errno_direct(LDAP *ld);
TAV_INTERNAL int ldap_set_errno(LDAP *ld, int code, const char *matched, const char *msg);
TAV_INTERNAL int ldap_set_errno_direct(LDAP *ld, int code, const char *matched, const char *msg);
TAV_INTERNAL int ldap_get_error_info_direct(LDAP *ld, char **matched, char **msg);
TAV_INTERNAL int ldap_get_ext_errno_direct(LDAP *ld);
TAV_INTERNAL int ldap_set_ext_errno(LDAP *ld, int value);
TAV_INTERNAL void ldap_perror_direct(LDAP *ld, const char *prefix);
TAV_INTERNAL void ldap_free_thread_errors(LDAP *ld);

// Options.
TAV_INTERNAL int ldap_set_option_direct(LDAP *ld, int option, const void *value);
TAV_INTERNAL int ldap_get_option_direct(LDAP *ld, int option, void *out);
TAV_INTERNAL LDAP *ld_set_global_default(void);
// URLs.
TAV_INTERNAL int ldap_url_parse_internal(const char *url, LDAPURLDesc **ludpp);
TAV_INTERNAL int ldap_url_skip_prefix(const char **urlp, LDAPURLDesc *ludp, int *enclosed, int *secure, int store);
TAV_INTERNAL void ldap_url_unescape(char *s);
TAV_INTERNAL int ldap_url_port_is_numeric(const char *s);

// Server location.
TAV_INTERNAL char *auto_server_locate(struct ldap_server_request *request, int secure);
}

// Controls.
extern "C" {
// 0, or LDAP_ENCODING_ERROR; an absent or empty list writes nothing.
TAV_INTERNAL int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls);
// 0 (a list, or none when the next tag is not [0]), LDAP_DECODING_ERROR, LDAP_NO_MEMORY.
TAV_INTERNAL int get_ctrls_from_ber(BerElement *ber, LDAPControl ***ctrls);
// Refuses critical client controls (12); with no server controls given,
// substitutes a copy of the session's defaults and sets *substituted so the
// caller frees it after the operation.
TAV_INTERNAL int ldap_apply_default_controls(LDAP *ld, LDAPControl ***sctrls, LDAPControl **cctrls, int *substituted);
TAV_INTERNAL int ldap_copy_controls(LDAPControl ***to_here, LDAPControl **from);
TAV_INTERNAL int ldap_merge_control_lists(LDAPControl ***dest, LDAPControl **input);
TAV_INTERNAL void ldap_free_empty_control_list(LDAPControl **ctrls);
TAV_INTERNAL int ldap_alloc_control(LDAPControl **ctrl);
TAV_INTERNAL int ldap_append_control(LDAPControl *ctrl, LDAPControl ***list);
TAV_INTERNAL int ldap_remove_control(LDAPControl *ctrl, LDAPControl ***list, int freeit);
TAV_INTERNAL int ldap_set_bind_controls(LDAP *ld, LDAPControl **ctrls);
TAV_INTERNAL int ldap_get_bind_controls(LDAP *ld, LDAPControl ***ctrls);

// ldap_simple_bind_s without the operation bracket (re-binds for referrals).
TAV_INTERNAL int ldap_simple_bind_s_int(LDAP *ld, const char *dn, const char *passwd);
TAV_INTERNAL int ldap_simple_bind_direct(LDAP *ld, const char *dn, const char *passwd, LDAPControl **sctrls,
                                         int *msgidp, LDAPConn *conn);
TAV_INTERNAL int ldap_sasl_bind_int(LDAP *ld, const char *dn, const char *mech, const struct berval *cred,
                                    LDAPControl **sctrls, LDAPControl **cctrls, struct berval **servercredp, int async,
                                    int *msgidp);
TAV_INTERNAL int ldap_sasl_bind_direct(LDAP *ld, const char *dn, const char *mech, const struct berval *cred,
                                       LDAPControl **sctrls, int *msgidp, LDAPConn *conn);
TAV_INTERNAL int ldap_sasl_bind_encode_and_send(LDAP *ld, const char *dn, const char *mech, const struct berval *cred,
                                                LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp,
                                                LDAPConn *conn);
TAV_INTERNAL int ldap_sasl_bind_s_direct(LDAP *ld, const char *dn, const char *mech, const struct berval *cred,
                                         LDAPControl **sctrls, LDAPControl **cctrls, struct berval **servercredp);
TAV_INTERNAL int ldap_sasl_bind_call_plugin(LDAP *ld, const char *dn, const char *mech, const struct berval *cred,
                                            LDAPControl **sctrls, LDAPControl **cctrls, struct berval **servercredp,
                                            int xlate, int async, int *msgidp);
TAV_INTERNAL int ldap_save_bind_info(LDAP *ld, int method, const char *mech, LDAPControl **sctrls, LDAPControl **cctrls,
                                     const struct berval *cred);

// Result parsing.
// 0 parsed; LDAP_DECODING_ERROR; 1 when the chain holds no result; 89 bad handle.
TAV_INTERNAL int ldap_parse_result_direct(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                                          char ***referralsp, LDAPControl ***serverctrlsp, int freeit);
// The result code of the chain's last message, also stored (with matched DN
// and message) as the thread's error; used by the synchronous operations.
TAV_INTERNAL int ldap_result2error_direct(LDAP *ld, LDAPMessage *res, int freeit);
TAV_INTERNAL int ldap_parse_sasl_bind_result_direct(LDAP *ld, LDAPMessage *res, struct berval **servercredp,
                                                    int freeit);
TAV_INTERNAL int ldap_parse_extended_result_direct(LDAP *ld, LDAPMessage *res, char **resultoidp,
                                                   struct berval **resultdatap, int freeit,
                                                   LDAPControl ***serverctrlsp);
}

// The operation bracket as a scope: a started operation ends when the scope
// does, on every return path.  A refused start (89: a bad handle or one whose
// unbind has begun; 129: its lock failed) leaves nothing to end, and the call
// returns at once what it documents for an unusable handle: the refusal code
// where the call returns a result code (89 where the call fixes that value),
// -1 for message IDs and counts, null for pointers, 0 from ldap_msgfree.
class OperationScope {
 public:
  explicit OperationScope(LDAP *ld) : ld_(ld), rc_(ldap_start_operation(ld)) {}
  // Bracketed only when `take`: the process-wide default handle (never
  // unbound) and calls that accept a null handle go without.
  OperationScope(LDAP *ld, bool take) : ld_(take ? ld : nullptr), rc_(take ? ldap_start_operation(ld) : 0) {}
  ~OperationScope() {
    if (ld_ != nullptr && rc_ == 0) ldap_end_operation(ld_);
  }
  OperationScope(const OperationScope &) = delete;
  OperationScope &operator=(const OperationScope &) = delete;
  bool refused() const { return rc_ != 0; }
  int code() const { return rc_; }

 private:
  LDAP *ld_;
  int rc_;
};

#endif
