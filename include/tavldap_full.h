/* libtav8ldap_64: the whole client interface.
 *
 * For programs that link the client itself rather than load the shared
 * object: the static archive libtav8ldap_64_full.a (pkg-config
 * tav8ldap_64_full, CMake Tav8Ldap::full) holds every function declared here
 * under the name written here, with C linkage.  The shared object exports
 * only the tav_ldap_* forwarders of tavldap.h; the two interfaces share the
 * records and constants of tavldap_types.h.
 *
 * Conventions.  Functions that take a session (LDAP *) check it first and
 * refuse a bad or unbinding handle with LDAP_PARAM_ERROR (89).  Result codes
 * are 0 for success, the server's code (0 to 80), or the library's own (81
 * and up, tavldap_types.h); tav_ldap_err2string / ldap_err2string gives the
 * text.  Asynchronous forms return 0 with the request's message ID in
 * *msgidp (the _ext forms), or the message ID itself (the classic forms, -1
 * on failure); wait for the answer with ldap_result.  Every call leaves its
 * outcome in the calling thread's error record of the session
 * (ldap_get_errno, ldap_get_error_info), so threads sharing a session do not
 * see each other's errors.  Strings and lists the library returns are new
 * allocations: free them with the function named beside them (ldap_memfree
 * when none is named).  Result chains stay tied to the session until
 * ldap_msgfree; free them before ldap_unbind. */
#ifndef TAVLDAP_FULL_H
#define TAVLDAP_FULL_H

#include <stddef.h>

#include "tavldap_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Messages: what ldap_result returns (the type of the message, or of the
 * last message of the chain). */
#define LDAP_RES_BIND 0x61
#define LDAP_RES_SEARCH_ENTRY 0x64
#define LDAP_RES_SEARCH_RESULT 0x65
#define LDAP_RES_MODIFY 0x67
#define LDAP_RES_ADD 0x69
#define LDAP_RES_DELETE 0x6b
#define LDAP_RES_MODRDN 0x6d
#define LDAP_RES_COMPARE 0x6f
#define LDAP_RES_SEARCH_REFERENCE 0x73
#define LDAP_RES_EXTENDED 0x78
/* An IntermediateResponse: handed out alone by LDAP_MSG_ONE, never final; a
 * chain of LDAP_MSG_ALL (and the synchronous calls) leaves it out. */
#define LDAP_RES_INTERMEDIATE 0x79
/* ldap_result: any outstanding request; one message at a time or the whole chain. */
#define LDAP_RES_ANY (-1)
#define LDAP_MSG_ONE 0
#define LDAP_MSG_ALL 1

/* Control OIDs the constructors and parsers below use. */
#define LDAP_CONTROL_PROXYAUTH "2.16.840.1.113730.3.4.18"
#define LDAP_CONTROL_PAGEDRESULTS "1.2.840.113556.1.4.319"
#define LDAP_CONTROL_SORTREQUEST "1.2.840.113556.1.4.473"
#define LDAP_CONTROL_SORTRESPONSE "1.2.840.113556.1.4.474"
#define LDAP_CONTROL_ENTRYCHANGE "2.16.840.1.113730.3.4.7"
#define LDAP_CONTROL_PERSISTENTSEARCH "2.16.840.1.113730.3.4.3"
#define LDAP_CONTROL_CHAINING_AUDIT "1.3.18.0.2.10.22"
#define LDAP_CONTROL_GROUP "1.3.18.0.2.10.21"
#define LDAP_CONTROL_OID25 "1.3.18.0.2.10.25"
#define LDAP_CONTROL_OID26 "1.3.18.0.2.10.26"
#define LDAP_CONTROL_OID33 "1.3.18.0.2.10.33"
#define LDAP_CONTROL_TRANSACTION "1.3.18.0.2.10.5"
#define LDAP_CONTROL_LIMIT_NUM_VALUES "1.3.18.0.2.10.30"
#define LDAP_CONTROL_ASSERTION "1.3.6.1.1.12"
#define LDAP_CONTROL_VLVREQUEST "2.16.840.1.113730.3.4.9"
#define LDAP_CONTROL_VLVRESPONSE "2.16.840.1.113730.3.4.10"
#define LDAP_CONTROL_PWDPOLICY "1.3.6.1.4.1.42.2.27.8.5.1"
#define LDAP_EXOP_EFFECTIVE_PWDPOLICY_RESPONSE "1.3.18.0.2.12.77"

/* Change types of a persistent search (or them together; 15 is all four). */
#define LDAP_CHANGETYPE_ADD 1
#define LDAP_CHANGETYPE_DELETE 2
#define LDAP_CHANGETYPE_MODIFY 4
#define LDAP_CHANGETYPE_MODDN 8
#define LDAP_CHANGETYPE_ANY 15

/* One attribute of a limit-number-of-values response: name and two counts. */
typedef struct ldap_limit_num_values {
  char *lnv_attribute;
  int lnv_returned;
  int lnv_total;
} LDAPLimitNumValues;

/* One named item of an effective-password-policy response with its values. */
typedef struct ldap_policy_item {
  char *lpi_name;
  char **lpi_values;
} LDAPPolicyItem;

/* ------------------------------------------------------------------------
 * A parsed DN: RDNs (leftmost first) made of attribute-value assertions. */
/* Parse modes: AVAs of an RDN sorted by type, then value (both without
 * regard to case), or kept in string order. */
#define LDAP_DN_MODE_SORTED 99
#define LDAP_DN_MODE_ORDERED 98

typedef struct ldap_ava {
  char *ava_type;
  char *ava_value; /* decoded */
} LDAPAVA;

typedef struct ldap_ava_list {
  LDAPAVA al_ava;
  struct ldap_ava_list *al_next;
} LDAPAVAList;

typedef struct ldap_rdn {
  LDAPAVAList *rdn_avas;
  long rdn_ava_count;
  struct ldap_rdn *rdn_next;
} LDAPRDN;

typedef struct ldap_dn {
  LDAPRDN *dn_rdns; /* leftmost first */
  long dn_rdn_count;
  void *dn_spare;        /* reserved */
  char *dn_spare_string; /* reserved */
  char *dn_string;       /* the normalised form */
  char *dn_string_upper; /* the same, upper-cased */
} LDAPDN;

/* ------------------------------------------------------------------------
 * Server location. */
/* What ldap_server_locate looks for; every field may be zero (the default). */
typedef struct ldap_server_request {
  int search_source;      /* 0 server information file, then DNS; 1 file only; 2 DNS only */
  char *conf_filename;    /* server information file; default "/etc/ldap_server_info.conf" */
  void *reserved;         /* unused */
  char *service_key;      /* first label of the service name; default "ldap", then "_ldap" */
  char *enetwork_domain;  /* optional label appended to the service key */
  char **name_servers;    /* null-terminated addresses; default from /etc/resolv.conf */
  char **dns_domains;     /* null-terminated; default LOCALDOMAIN, resolv.conf, host name */
  int connection_type;    /* 0 UDP then TCP; 1 UDP; 2 TCP */
  int connection_timeout; /* seconds; 0 without bound */
  char *dn_filter;        /* keep only servers whose suffix holds this DN */
  char *protocol;         /* protocol label; default "tcp", then "_tcp" */
  void *reserved2;        /* unused */
} LDAPServerRequest;

/* One located server; a doubly linked list, freed with ldap_server_free_list. */
typedef struct ldap_server_info {
  char *host;
  unsigned short port;
  char *suffix; /* naming context, or null */
  char *service;
  char *domain;
  int replica;  /* 0 unknown, 1 master, 2 replica */
  int sec_flag; /* 0 unknown, 1 ldap://, 2 ldaps:// */
  unsigned short priority;
  unsigned short weight;
  char *vendor; /* or null */
  char *info;   /* or null */
  struct ldap_server_info *prev;
  struct ldap_server_info *next;
} LDAPServerInfo;

/* ------------------------------------------------------------------------
 * SSL and plug-ins. */
/* A PKCS#11 device holding the client's keys (ldap_ssl_pkcs11_*_init). */
typedef struct LDAP_PKCS11_PARMS {
  char *pkcs11_lib_path;
  char *pkcs11_token_label;
  char *pkcs11_token_pwd;
  int pkcs11_keystorage; /* 1: keys are kept on the device */
  int pkcs11_accel_mode; /* 0..7 */
} LDAP_PKCS11_PARMS;

/* A SASL plug-in as krvldap.conf names it (words 2 to 6 of a line). */
typedef struct ldap_plugin_info {
  char *type;          /* "sasl" */
  char *name;          /* the mechanism */
  char *path;          /* the shared library */
  char *init_function; /* null: "ldap_plugin_init" */
  char *args;
} ldap_plugin_info;

/* ========================================================================
 * Sessions. */

/* A new session for a host list ("h1 h2:1389 [::1]:389 /path/to/socket") or
 * an LDAP URL ("ldap:///dc=example,dc=com" locates the servers by DNS); port
 * 0 means 389.  Protocol version 3.  Nothing is connected yet; null on
 * failure. */
LDAP *ldap_init(const char *host, int port);
/* As ldap_init, but connected at once, and protocol version 2 unless
 * LDAP_VERSION is "3".  Null when the connection cannot be made. */
LDAP *ldap_open(const char *host, int port);
/* Waits for the session's running operations, closes its connections and
 * releases it with every chain still tied to it: 0, 89, or LDAP_LOCK_ERROR
 * (129).  The _s and _ext forms are the same call. */
int ldap_unbind(LDAP *ld);
int ldap_unbind_s(LDAP *ld);
int ldap_unbind_ext(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_unbind_ext_s(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls);
/* A session on a list of URIs separated by blanks or commas, tried in order
 * when the connection is opened: ldap://host[:port] (389), ldaps://host[:port]
 * (636; needs ldap_ssl_client_init first, and every URI must be ldaps),
 * ldapi://%2Fpath%2Fto%2Fsocket.  Nothing is connected yet.  0 with *ldp, or
 * LDAP_PARAM_ERROR for a URI it cannot use, LDAP_SSL_NOT_AVAILABLE for ldaps
 * without an SSL environment. */
int ldap_initialize(LDAP **ldp, const char *uris);

/* Options (LDAP_OPT_*).  A null ld addresses the process-wide defaults that
 * new sessions start from.  0, 89 for a value out of range, -1 when the
 * defaults cannot be made.  Limits, dereferencing, restart, hop limits, the
 * debug mask and the SSL time-out take a pointer to an int (in protocol
 * version 2 sessions the value as the pointer itself); on/off options such as
 * LDAP_OPT_REFERRALS and LDAP_OPT_XLATE take LDAP_OPT_ON or LDAP_OPT_OFF. */
int ldap_set_option(LDAP *ld, int option, const void *value);
/* Strings come back newly allocated (ldap_memfree). */
int ldap_get_option(LDAP *ld, int option, void *out);

/* ========================================================================
 * Errors. */

/* Static text of a result code ("Unknown error" for none). */
char *ldap_err2string(int err);
/* The calling thread's last result code on ld; -1 for a refused handle. */
int ldap_get_errno(LDAP *ld);
/* The extended code some failures carry (SSL, plug-ins); 0 without. */
int ldap_get_ext_errno(LDAP *ld);
/* The thread's last code, with copies of the server's matched DN and message
 * (ldap_memfree; null when there were none). */
int ldap_get_error_info(LDAP *ld, char **matched, char **msg);
/* Writes "prefix: text" of the thread's last error (with matched DN and the
 * server's message) to standard error. */
void ldap_perror(LDAP *ld, const char *prefix);
/* The result code of a response (the last message of a chain), also stored
 * as the thread's error; freeit non-zero frees the chain. */
int ldap_result2error(LDAP *ld, LDAPMessage *res, int freeit);
/* The text of a password-policy error number. */
char *ldap_pwdpolicy_err2string(int err);
/* Reads the password-policy response control from a list: 0 when there is
 * none, -1 when it cannot be decoded. */
int ldap_parse_pwdpolicy_response(LDAPControl **ctrls, int *controlerr, int *controlwarn, int *controlres);

/* ========================================================================
 * Bind. */

/* Simple bind (both null: anonymous).  Asynchronous: the message ID or -1. */
int ldap_simple_bind(LDAP *ld, const char *dn, const char *passwd);
/* Synchronous: the bind's result code. */
int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd);
/* The classic forms with a method: only LDAP_AUTH_SIMPLE; any other gives
 * LDAP_AUTH_UNKNOWN (86; -1 from the asynchronous form). */
int ldap_bind(LDAP *ld, const char *dn, const char *cred, int method);
int ldap_bind_s(LDAP *ld, const char *dn, const char *cred, int method);
/* A SASL bind step (asynchronous: 0 and *msgidp).  Sent as it is. */
int ldap_sasl_bind(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                   LDAPControl **cctrls, int *msgidp);
/* A SASL bind, waited for.  A mechanism krvldap.conf names a plug-in for
 * (SCRAM-SHA-256, DIGEST-MD5, GSSAPI, ...) runs the whole exchange through
 * the plug-in; EXTERNAL and unconfigured mechanisms are sent as they are.
 * The result code (14 while a multi-step exchange goes on); the server's
 * credentials go to *servercredp (fber_bvfree) when it is not null.  Plug-in
 * failures: LDAP_PLUGIN_* (192 to 196). */
int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                     LDAPControl **cctrls, struct berval **servercredp);
/* The result code of a bind response and the server's SASL credentials. */
int ldap_parse_sasl_bind_result(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit);

/* SASL plug-ins: loads the library and runs its initialisation function, as
 * a krvldap.conf line would; 0 or LDAP_PLUGIN_* (192 to 196). */
int ldap_register_plugin(ldap_plugin_info *info);
/* The registered plug-ins, a null-terminated array of new descriptions
 * (*out stays null when none is registered); free with ldap_free_plugin_list. */
int ldap_get_plugin_list(ldap_plugin_info ***out);
int ldap_free_plugin_list(ldap_plugin_info ***list);

/* ========================================================================
 * Search.  scope is LDAP_SCOPE_BASE, _ONELEVEL or _SUBTREE; attrs a
 * null-terminated list (null: all user attributes); filter an RFC 4515
 * string (required; a null filter is 89, a malformed one 87
 * LDAP_FILTER_ERROR). */

/* Asynchronous: the message ID, or -1. */
int ldap_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly);
/* Synchronous: the search's result code; *res holds the entries (and the
 * final result) whenever the final result arrived, whatever its code. */
int ldap_search_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                  LDAPMessage **res);
/* As ldap_search_s, waiting at most *timeout (85 LDAP_TIMEOUT, *res null). */
int ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                   struct timeval *timeout, LDAPMessage **res);
/* With controls, a time limit for the server (*timeout, null: the session's
 * LDAP_OPT_TIMELIMIT) and a size limit (0: none).  0 and *msgidp, or a code;
 * the _s form waits for the whole answer and returns its result code. */
int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                    LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout, int sizelimit, int *msgidp);
int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                      LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout, int sizelimit,
                      LDAPMessage **res);

/* The search an LDAP URL describes (ldap://host:port/base?attrs?scope?filter),
 * on the server it names (chasing there as a referral would).  Asynchronous:
 * the message ID or -1; _s/_st: 0 when a result arrived (read its code from
 * the chain), 85 on a time-out, 89 for a URL that does not parse. */
int ldap_url_search(LDAP *ld, const char *url, int attrsonly);
int ldap_url_search_s(LDAP *ld, const char *url, int attrsonly, LDAPMessage **res);
int ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout, LDAPMessage **res);

/* ========================================================================
 * Updates.  Asynchronous classic forms return the message ID or -1; _ext
 * forms 0 and *msgidp; synchronous forms the server's result code. */

int ldap_add(LDAP *ld, const char *dn, LDAPMod **attrs);
int ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs);
int ldap_add_ext(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_delete(LDAP *ld, const char *dn);
int ldap_delete_s(LDAP *ld, const char *dn);
int ldap_delete_ext(LDAP *ld, const char *dn, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_modify(LDAP *ld, const char *dn, LDAPMod **mods);
int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);
int ldap_modify_ext(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls, LDAPControl **cctrls);
/* Renames (and, with newsuperior, moves) an entry; deleteoldrdn drops the
 * old RDN's value. */
int ldap_rename(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
int ldap_rename_s(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                  LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_modrdn(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);
/* Compares one value of an attribute: the synchronous forms return
 * LDAP_COMPARE_TRUE (6) or LDAP_COMPARE_FALSE (5) when the server could
 * compare, else its or the library's code. */
int ldap_compare_ext(LDAP *ld, const char *dn, const char *attr, struct berval *value, LDAPControl **sctrls,
                     LDAPControl **cctrls, int *msgidp);
int ldap_compare_ext_s(LDAP *ld, const char *dn, const char *attr, struct berval *value, LDAPControl **sctrls,
                       LDAPControl **cctrls);
int ldap_compare(LDAP *ld, const char *dn, const char *attr, const char *value);
int ldap_compare_s(LDAP *ld, const char *dn, const char *attr, const char *value);
/* Tells the server to stop working on msgid and gives the request up: what
 * nobody has read is freed and later answers are dropped; a thread waiting
 * on it in ldap_result gets -1 with LDAP_USER_CANCELLED (88).  0 (also for
 * a request already answered or unknown), or a code; ldap_abandon gives 0 or
 * -1. */
int ldap_abandon_ext(LDAP *ld, int msgid, LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_abandon(LDAP *ld, int msgid);
/* Extended operations: the request's OID and optional value.  The
 * synchronous form returns the server's code and, on success, the
 * response's OID and value (free with ldap_memfree and ber_bvfree /
 * ldap_bvfree); asynchronous answers are read with
 * ldap_parse_extended_result. */
int ldap_extended_operation(LDAP *ld, const char *oid, struct berval *data, LDAPControl **sctrls,
                            LDAPControl **cctrls, int *msgidp);
int ldap_extended_operation_s(LDAP *ld, const char *oid, struct berval *data, LDAPControl **sctrls,
                              LDAPControl **cctrls, char **retoidp, struct berval **retdatap);
/* Who am I? (RFC 4532): the session's authorization identity ("dn:...",
 * "u:...", empty when anonymous), a new berval for ber_bvfree. */
int ldap_whoami(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
int ldap_whoami_s(LDAP *ld, struct berval **authzid, LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_parse_whoami(LDAP *ld, LDAPMessage *res, struct berval **authzid);
/* Password modify (RFC 3062): user, old and new password each optional (a
 * null or null-valued berval leaves it out).  A password the server
 * generated comes back in *newpasswd (bv_val to free with ldap_memfree;
 * empty when none). */
int ldap_passwd(LDAP *ld, struct berval *user, struct berval *oldpw, struct berval *newpw, LDAPControl **sctrls,
                LDAPControl **cctrls, int *msgidp);
int ldap_passwd_s(LDAP *ld, struct berval *user, struct berval *oldpw, struct berval *newpw, struct berval *newpasswd,
                  LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_parse_passwd(LDAP *ld, LDAPMessage *res, struct berval *newpasswd);
/* StartTLS (RFC 4513) on the session's open connection, with the SSL
 * environment of ldap_ssl_client_init and the same server-name check as
 * ldaps.  Refused (LDAP_LOCAL_ERROR) while TLS is on or requests are
 * outstanding.  A server that refuses the operation leaves the connection
 * as it was and gives its code; a failed handshake closes the connection
 * (later calls get 81) and gives the SSL code (116 for a name mismatch). */
int ldap_start_tls_s(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls);
int ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);
/* Frees every modification (type, values, record) and, with freemods, the list. */
void ldap_mods_free(LDAPMod **mods, int freemods);

/* ========================================================================
 * Results. */

/* Waits at most *timeout (null: without limit) for a response of msgid (or
 * LDAP_RES_ANY): the next single message (LDAP_MSG_ONE) or the whole chain
 * once the final result arrived (LDAP_MSG_ALL).  The type of the message (or
 * of the chain's last), 0 on a time-out, -1 on error (code in ldap_get_errno).
 * Referrals are chased unless LDAP_OPT_REFERRALS is off. */
int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result);
/* Frees a chain (null is ignored); the type of its last message. */
int ldap_msgfree(LDAPMessage *chain);
/* Message ID and type of a message; -1 for null. */
int ldap_msgid(LDAPMessage *msg);
int ldap_msgtype(LDAPMessage *msg);
/* Walking every message of a chain (entries, references, the result). */
LDAPMessage *ldap_first_message(LDAP *ld, LDAPMessage *chain);
LDAPMessage *ldap_next_message(LDAP *ld, LDAPMessage *msg);
int ldap_count_messages(LDAP *ld, LDAPMessage *chain);
/* The result of a chain: code, matched DN, message, referral URLs (a
 * null-terminated list, ldap_value_free) and response controls
 * (ldap_controls_free); any out pointer may be null.  0 when parsed, 84
 * LDAP_DECODING_ERROR, 1 when the chain holds no result.  Does not touch the
 * thread's error record. */
int ldap_parse_result(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp, char ***referralsp,
                      LDAPControl ***serverctrlsp, int freeit);
/* An extended response: its name and value (fber_bvfree); the result code. */
int ldap_parse_extended_result(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap, int freeit);
int ldap_parse_extended_result_ext(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                   int freeit, LDAPControl ***serverctrlsp);

/* ========================================================================
 * Entries, references, attributes, values. */

LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *chain);
LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry);
/* -1 for a bad handle. */
int ldap_count_entries(LDAP *ld, LDAPMessage *chain);
/* Search references (continuation URLs left unchased). */
LDAPMessage *ldap_first_reference(LDAP *ld, LDAPMessage *chain);
LDAPMessage *ldap_next_reference(LDAP *ld, LDAPMessage *ref);
int ldap_count_references(LDAP *ld, LDAPMessage *chain);
/* The URLs of a reference (ldap_value_free) and its controls; a result code. */
int ldap_parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp, int freeit);
int ldap_parse_reference_np(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp, int freeit);
/* The entry's DN (ldap_memfree), null on error. */
char *ldap_get_dn(LDAP *ld, LDAPMessage *entry);
/* The controls that came with an entry (ldap_controls_free); a result code. */
int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrlsp);
int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrlsp);
/* Attribute names, each new (ldap_memfree); *cursor is freed with
 * ldap_ber_free before the chain is.  Null with ldap_get_errno 0 ends. */
char *ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursor);
char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor);
int ldap_count_attributes(LDAP *ld, LDAPMessage *entry);
/* The values of one attribute (name without regard to case), null-terminated:
 * as strings (ldap_value_free) or counted byte strings (ldap_value_free_len).
 * A list is freed as a whole: its records may share one allocation, so never
 * free a single record of it (fber_bvfree) or keep one past the list. */
char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *attr);
struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr);
int ldap_count_values(char **vals);
int ldap_count_values_len(struct berval **vals);
void ldap_value_free(char **vals);
void ldap_value_free_len(struct berval **vals);

/* Releasing what the library handed out: a string or array; the attribute
 * cursor; one counted string with its record; a null-terminated list of them. */
void ldap_memfree(void *p);
void ldap_ber_free(BerElement *ber);
void fber_bvfree(struct berval *bv);
void fber_bvecfree(struct berval **bvec);

/* ========================================================================
 * Controls.  Lists are null-terminated.  Constructors return 0 with a new
 * control in *out (ldap_control_free), 89 for bad arguments, 83
 * LDAP_ENCODING_ERROR, 90 LDAP_NO_MEMORY.  Parsers look for their control in
 * a response's list: 0, 93 LDAP_CONTROL_NOT_FOUND, 84 LDAP_DECODING_ERROR. */

void ldap_control_free(LDAPControl *ctrl);
void ldap_controls_free(LDAPControl **ctrls);
/* Any control: OID, value bytes (len may be 0), criticality. */
int ldap_build_control(LDAPControl **ctrl, const char *oid, ber_len_t len, const char *value, int critical);
/* Appends a new control made from the arguments to *list (a new list when null). */
int ldap_add_control_to_list(const char *oid, ber_len_t len, const char *value, int critical, LDAPControl ***list);

/* Simple paged results: a page of pagesize entries after cookie (null or
 * empty for the first page).  The response gives the server's estimate and
 * the next cookie (fber_bvfree); an empty cookie means the last page. */
int ldap_create_page_control(LDAP *ld, unsigned int pagesize, const struct berval *cookie, char critical,
                             LDAPControl **out);
int ldap_parse_page_control(LDAP *ld, LDAPControl **ctrls, unsigned int *size, struct berval **cookie);
/* Server-side sorting: keys from a string such as "sn -givenName cn:2.5.13.3"
 * ("-" reverses, ":" names an ordering rule); free with ldap_free_sort_keylist. */
int ldap_create_sort_keylist(LDAPsortkey ***out, const char *keys);
void ldap_free_sort_keylist(LDAPsortkey **keys);
int ldap_create_sort_control(LDAP *ld, LDAPsortkey **keys, char critical, LDAPControl **out);
/* The sort result code and the attribute that failed (or null). */
int ldap_parse_sort_control(LDAP *ld, LDAPControl **ctrls, unsigned long *result, char **attribute);
/* Persistent search: changetypes one LDAP_CHANGETYPE_* or LDAP_CHANGETYPE_ANY,
 * changesonly 0 or 1 (anything else: 89), return_echg_ctls asks for an
 * entry-change control with each changed entry. */
int ldap_create_persistentsearch_control(LDAP *ld, int changetypes, int changesonly, int return_echg_ctls,
                                         char critical, LDAPControl **out);
/* The entry-change control of an entry: change type, previous DN (for a
 * rename; ldap_memfree) and the change number when present. */
int ldap_parse_entrychange_control(LDAP *ld, LDAPControl **ctrls, int *changetype, char **prevdn, int *chgnumpresent,
                                   long *chgnum);
/* Virtual list view: the window the record describes; the response gives the
 * target position, the content count and a context ID (fber_bvfree). */
int ldap_create_vlv_control(LDAP *ld, LDAPVLVInfo *info, LDAPControl **out);
int ldap_parse_vlv_control(LDAP *ld, LDAPControl **ctrls, unsigned long *target_pos, unsigned long *list_count,
                           struct berval **context);
/* Proxied authorisation as dn (must be critical). */
int ldap_create_proxyauth_control(LDAP *ld, const char *dn, int critical, LDAPControl **out);
/* Assertion: the operation runs only when the entry matches the filter. */
int ldap_create_assertion_control(LDAP *ld, const char *filter, int critical, LDAPControl **out);
/* Limit the number of values returned per attribute and in all (negative: 89). */
int ldap_create_limit_num_values_control(LDAP *ld, int per_attribute, int total, int flag, int critical,
                                         LDAPControl **out);
/* The entry's DN and the attributes whose values were cut (ldap_free_limit_num_values). */
int ldap_parse_limit_num_values_response(LDAP *ld, LDAPControl **ctrls, char **dn, LDAPLimitNumValues ***attributes);
void ldap_free_limit_num_values(LDAPLimitNumValues **list);
/* Chaining audit, group membership, transaction and vendor controls. */
int ldap_create_chaining_audit_control(char **list, const char *value, int critical, LDAPControl **out);
int ldap_create_group_control_from_list(char **groups, int normalized, LDAPControl **out);
int ldap_create_group_control(const struct berval *value, LDAPControl **out);
int ldap_create_transaction_control(const struct berval *txnid, LDAPControl **out);
int ldap_create_oid25_control(LDAPControl **out);
int ldap_create_oid26_control(LDAPControl **out);
int ldap_create_oid33_control(int critical, LDAPControl **out);
/* Values of extended requests (fber_bvfree): account status, end and prepare
 * transaction, group evaluation, effective password policy. */
int ldap_create_account_status_request(const char *dn, struct berval **out);
int ldap_create_end_transaction_request(const struct berval *txnid, int commit, struct berval **out);
int ldap_create_prepare_tranaction_request(const struct berval *txnid, struct berval **out);
int ldap_create_group_eval_request(const char *dn, char **groups, struct berval **out);
int ldap_create_effective_pwdpolicy_request(const char *dn, struct berval **out);
/* The items of an effective-password-policy response (ldap_free_effective_pwdpolicy). */
int ldap_parse_effective_pwdpolicy_response(const char *oid, const struct berval *value, LDAPPolicyItem ***items,
                                            char ***trailing);
void ldap_free_effective_pwdpolicy(LDAPPolicyItem **items, char **trailing);

/* ========================================================================
 * DNs. */

/* A parsed DN (mode LDAP_DN_MODE_ORDERED or _SORTED), also on a parse error
 * (then with empty string forms and the error's code in *rc); null with 90
 * when memory runs out.  rc may be null.  Free with
 * ldap_dn_free, which also clears *dnp. */
LDAPDN *ldap_dn_parse(const char *dn, int mode, int *rc);
void ldap_dn_free(LDAPDN **dnp);
/* A DN as a user-friendly name: its values without the attribute types. */
char *ldap_dn2ufn(const char *dn);
/* The RDNs of a DN, or the AVAs of an RDN, as a null-terminated list
 * (ldap_value_free); notypes drops the "type=" parts.  Null on error. */
char **ldap_explode_dn(const char *dn, int notypes);
char **ldap_explode_rdn(const char *rdn, int notypes);

/* ========================================================================
 * URLs. */

/* Parses an LDAP URL (ldap:// or ldaps://, optionally inside "<" ">" and
 * after "URL:"); free with ldap_free_urldesc.  0 or LDAP_URL_ERR_* (96 to 99). */
int ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
void ldap_free_urldesc(LDAPURLDesc *ludp);
/* 1 when the string starts like an LDAP URL. */
int ldap_url_is_ldap_url(const char *url);

/* ========================================================================
 * SSL.  The library loads the security toolkit (libtav7ssl_64.so) from
 * "/usr/lib/64/", or by its bare name through the loader's path when
 * TAVLIB_LOCAL_INSTALL_MODE is set.  One SSL environment serves every session
 * of the process. */

/* Sets up the SSL environment from a key database made with tavkeydb; a null
 * password is read from the database's stash file.  timeout is the SSL
 * session lifetime in seconds (0 to 86400; 0: 12 hours).  Once per process:
 * 0, LDAP_SSL_ALREADY_INITIALIZED (112), or 113 to 120 with the toolkit's
 * own code in *tavrc. */
int ldap_ssl_client_init(const char *kdb, const char *pw, int timeout, int *tavrc);
/* The same, but replacing an environment set up before: sessions made later
 * use the new one. */
int ldap_ssl_environment_init(const char *kdb, const char *pw, int timeout, int *tavrc);
int ldap_ssl_pkcs11_client_init(const char *kdb, const char *pw, int timeout, int *tavrc, LDAP_PKCS11_PARMS *pkcs11);
int ldap_ssl_pkcs11_environment_init(const char *kdb, const char *pw, int timeout, int *tavrc,
                                     LDAP_PKCS11_PARMS *pkcs11);
/* Accepted for compatibility; 0. */
int ldap_ssl_set_fips_mode_np(int mode);
/* A session with SSL on (host and port as ldap_init takes them), presenting
 * the certificate of the key database under label (null: the database's
 * default) when the server asks for one.  Null on failure, and before the
 * SSL environment is set up. */
LDAP *ldap_ssl_init(const char *host, int port, const char *label);
/* Turns SSL on for a session made with ldap_init (older form). */
int ldap_ssl_start(LDAP *ld, const char *kdb, const char *pw, const char *label);

/* ========================================================================
 * Server location. */

/* The LDAP servers of a DNS domain (SRV records "_ldap._tcp.<domain>" and
 * their TXT records) and/or of the server information file, ordered by
 * priority and, within a priority, by a weighted draw.  request may be null
 * (everything by default).  0 with the list in *listp; 133
 * LDAP_DNS_SERVERS_FOUND when none was found; 134 when an answer was
 * truncated (a list is still returned); 135 to 137 for DNS and file errors. */
int ldap_server_locate(LDAPServerRequest *request, LDAPServerInfo **listp);
void ldap_server_free_list(LDAPServerInfo *list);
/* Writes a list to the server information file (null: the default), to
 * expire ttl seconds from now (0: never).  0 or 82. */
int ldap_server_cache_save(const char *filename, unsigned long ttl, LDAPServerInfo *list);

/* ========================================================================
 * Translation between the local code page and UTF-8.  LDAP_OPT_XLATE says
 * "leave strings untranslated" and is on in new sessions: a session set to
 * LDAP_OPT_OFF translates every string it sends and receives.  The local code
 * page comes from ldap_set_iconv_local_codepage, else LDAP_CODEPAGE, else the
 * locale.
 * Tables are looked for under TISDIR (default "/opt/KRV/ldap/V6.2") in
 * codeset/.  Codes: 0, 82, 89, 90, 160 LDAP_XLATE_OUTPUT_OVERFLOW, 161
 * _INPUT_TRUNCATED, 162 _BAD_INPUT_CHAR, 163 _NO_MAPPING. */

/* Sets the process's locale, setlocale(LC_ALL, locale), under the library's
 * translation lock, and notes it for choosing the local code page. */
int ldap_set_locale(const char *locale);
/* Sets the local code page ("ISO8859-1", "IBM-1047", ...; null: from the
 * environment and locale again); every converter is re-opened. */
int ldap_set_iconv_local_codepage(const char *name);
/* The same from a charset name (IANA spelling); 89 for a name it does not
 * know, 161 for KRV864 and EUC-TW, which have no table (docs/codeset.md). */
int ldap_set_iconv_local_charset(const char *charset);
/* The converter's spelling of a code page name (ldap_memfree). */
char *ldap_get_iconv_compliant_codepage(const char *name);
/* Converts *in_len bytes of in into out, which has *out_space bytes;
 * *out_space is reduced by the bytes written.  Unicode here is UCS-2, as
 * big-endian byte pairs (high byte first) on every machine. */
int ldap_xlate_local_to_utf8(const char *in, size_t *in_len, char *out, size_t *out_space);
int ldap_xlate_utf8_to_local(const char *in, size_t *in_len, char *out, size_t *out_space);
int ldap_xlate_local_to_unicode(const char *in, size_t *in_len, char *out, size_t *out_space);
int ldap_xlate_unicode_to_local(const char *in, size_t *in_len, char *out, size_t *out_space);
/* A NUL-terminated local string as a new UTF-8 string (ldap_memfree). */
int ldap_xlate_local_to_utf8_wrp(const char *string, char **out);

#ifdef __cplusplus
}
#endif

#include "tavldap_compat.h"

#endif
