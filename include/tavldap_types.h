/* libtav8ldap_64: the records and constants of the C interface.
 *
 * The one definition of the types both interfaces share: tavldap.h (the
 * exported tav_ldap_* functions of the shared object) and tavldap_full.h (the
 * whole client, from the static archive) include it, and so does the library
 * itself, so a field order here is the order the library reads. */
#ifndef TAVLDAP_TYPES_H
#define TAVLDAP_TYPES_H

#include <stdint.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif
typedef struct berelement BerElement;

/* A counted byte string (a value may hold zero bytes). */
typedef uint64_t ber_len_t;
struct berval {
  ber_len_t bv_len;
  char *bv_val;
};

/* A response or a chain of responses; read with the entry functions, freed
 * with tav_ldap_msgfree. */
typedef struct ldapmsg LDAPMessage;

/* An LDAPv3 control: OID, value (bv_val null for none), criticality. */
typedef struct ldapcontrol {
  char *ldctl_oid;
  struct berval ldctl_value;
  int ldctl_iscritical;
} LDAPControl;

/* One key of a server-side sort request: attribute, ordering rule (or null),
 * reverse flag.  Lists of keys end with a null pointer. */
typedef struct ldapsortkey {
  char *sk_attrtype;
  char *sk_matchruleoid;
  int sk_reverseorder;
} LDAPsortkey;

/* A virtual-list-view request: the window around the target entry, chosen
 * either by offset and content count or by an assertion value. */
typedef struct ldapvlvinfo {
  int ldvlv_before_count;
  int ldvlv_after_count;
  int ldvlv_offset;
  int ldvlv_count;
  struct berval *ldvlv_attrvalue; /* null: position by offset */
  struct berval *ldvlv_context;   /* context ID from the previous response, or null */
} LDAPVLVInfo;

/* A session handle; opaque to callers. */
typedef struct ldap LDAP;

#define LDAP_PORT 389
#define LDAPS_PORT 636
#define LDAP_VERSION2 2
/* The one authentication method of tav_ldap_bind: simple (DN and password). */
#define LDAP_AUTH_SIMPLE 0x80
/* Returned by a rebind procedure: bind the referred server with the
 * session's own recorded SASL bind (mechanism and credentials). */
#define LDAP_AUTH_SASL 0xA3
#define LDAP_VERSION3 3

/* Result codes: 0 to 80 come from servers, 81 and up from the library. */
#define LDAP_SUCCESS 0x00
#define LDAP_OPERATIONS_ERROR 0x01
#define LDAP_PROTOCOL_ERROR 0x02
#define LDAP_TIMELIMIT_EXCEEDED 0x03
#define LDAP_SIZELIMIT_EXCEEDED 0x04
#define LDAP_COMPARE_FALSE 0x05
#define LDAP_COMPARE_TRUE 0x06
#define LDAP_STRONG_AUTH_NOT_SUPPORTED 0x07
#define LDAP_STRONG_AUTH_REQUIRED 0x08
#define LDAP_PARTIAL_RESULTS 0x09
#define LDAP_REFERRAL 0x0a
#define LDAP_ADMINLIMIT_EXCEEDED 0x0b
#define LDAP_UNAVAILABLE_CRITICAL_EXTENSION 0x0c
#define LDAP_CONFIDENTIALITY_REQUIRED 0x0d
#define LDAP_SASL_BIND_IN_PROGRESS 0x0e
#define LDAP_NO_SUCH_ATTRIBUTE 0x10
#define LDAP_UNDEFINED_TYPE 0x11
#define LDAP_INAPPROPRIATE_MATCHING 0x12
#define LDAP_CONSTRAINT_VIOLATION 0x13
#define LDAP_TYPE_OR_VALUE_EXISTS 0x14
#define LDAP_INVALID_SYNTAX 0x15
#define LDAP_NO_SUCH_OBJECT 0x20
#define LDAP_ALIAS_PROBLEM 0x21
#define LDAP_INVALID_DN_SYNTAX 0x22
#define LDAP_IS_LEAF 0x23
#define LDAP_ALIAS_DEREF_PROBLEM 0x24
#define LDAP_INAPPROPRIATE_AUTH 0x30
#define LDAP_INVALID_CREDENTIALS 0x31
#define LDAP_INSUFFICIENT_ACCESS 0x32
#define LDAP_BUSY 0x33
#define LDAP_UNAVAILABLE 0x34
#define LDAP_UNWILLING_TO_PERFORM 0x35
#define LDAP_LOOP_DETECT 0x36
#define LDAP_SORT_CONTROL_MISSING 0x3c
#define LDAP_INDEX_RANGE_ERROR 0x3d
#define LDAP_NAMING_VIOLATION 0x40
#define LDAP_OBJECT_CLASS_VIOLATION 0x41
#define LDAP_NOT_ALLOWED_ON_NONLEAF 0x42
#define LDAP_NOT_ALLOWED_ON_RDN 0x43
#define LDAP_ALREADY_EXISTS 0x44
#define LDAP_NO_OBJECT_CLASS_MODS 0x45
#define LDAP_RESULTS_TOO_LARGE 0x46
#define LDAP_AFFECTS_MULTIPLE_DSAS 0x47
#define LDAP_OTHER 0x50
#define LDAP_SERVER_DOWN 0x51
#define LDAP_LOCAL_ERROR 0x52
#define LDAP_ENCODING_ERROR 0x53
#define LDAP_DECODING_ERROR 0x54
#define LDAP_TIMEOUT 0x55
#define LDAP_AUTH_UNKNOWN 0x56
#define LDAP_FILTER_ERROR 0x57
#define LDAP_USER_CANCELLED 0x58
#define LDAP_PARAM_ERROR 0x59
#define LDAP_NO_MEMORY 0x5a
#define LDAP_CONNECT_ERROR 0x5b
#define LDAP_NOT_SUPPORTED 0x5c
#define LDAP_CONTROL_NOT_FOUND 0x5d
#define LDAP_NO_RESULTS_RETURNED 0x5e
#define LDAP_MORE_RESULTS_TO_RETURN 0x5f
#define LDAP_URL_ERR_NOTLDAP 0x60
#define LDAP_URL_ERR_NODN 0x61
#define LDAP_URL_ERR_BADSCOPE 0x62
#define LDAP_URL_ERR_MEM 0x63
#define LDAP_CLIENT_LOOP 0x64
#define LDAP_REFERRAL_LIMIT_EXCEEDED 0x65
#define LDAP_SSL_ALREADY_INITIALIZED 0x70
#define LDAP_SSL_INITIALIZE_FAILED 0x71
#define LDAP_SSL_CLIENT_INIT_NOT_CALLED 0x72
#define LDAP_SSL_PARAM_ERROR 0x73
#define LDAP_SSL_HANDSHAKE_FAILED 0x74
#define LDAP_SSL_GET_CIPHER_FAILED 0x75
#define LDAP_SSL_NOT_AVAILABLE 0x76
#define LDAP_SSL_KEYRING_NOT_FOUND 0x77
#define LDAP_SSL_PASSWORD_NOT_SPECIFIED 0x78
#define LDAP_ASSERTION_FAILED 0x7a
#define LDAP_NO_EXPLICIT_OWNER 0x80
#define LDAP_LOCK_ERROR 0x81
#define LDAP_DNS_SERVERS_FOUND 0x85
#define LDAP_DNS_TRUNCATED 0x86
#define LDAP_DNS_INVALID_DATA 0x87
#define LDAP_DNS_RESOLVE_ERROR 0x88
#define LDAP_DNS_CONF_FILE_ERROR 0x89
#define LDAP_XLATE_OUTPUT_OVERFLOW 0xa0
#define LDAP_XLATE_INPUT_TRUNCATED 0xa1
#define LDAP_XLATE_BAD_INPUT_CHAR 0xa2
#define LDAP_XLATE_NO_MAPPING 0xa3
#define LDAP_REGISTRY_FILE_NOT_FOUND 0xb0
#define LDAP_REGISTRY_OPEN_FAILED 0xb1
#define LDAP_REGISTRY_ENTRY_NOT_FOUND 0xb2
#define LDAP_PLUGIN_CONF_NOT_OPENED 0xc0
#define LDAP_PLUGIN_NOT_LOADED 0xc1
#define LDAP_PLUGIN_FUNCTION_NOT_RESOLVED 0xc2
#define LDAP_PLUGIN_NOT_INITIALIZED 0xc3
#define LDAP_PLUGIN_COULD_NOT_BIND 0xc4
#define LDAP_GSS_INIT_SEC_CONTEXT_FAILED 0xd0

/* Option numbers for tav_ldap_set_option. */
#define LDAP_OPT_SIZELIMIT 0x00
#define LDAP_OPT_TIMELIMIT 0x01
#define LDAP_OPT_REFERRALS 0x02
#define LDAP_OPT_DEREF 0x03
#define LDAP_OPT_RESTART 0x04
#define LDAP_OPT_REFHOPLIMIT 0x05
#define LDAP_OPT_DEBUG 0x06
#define LDAP_OPT_SSL_CIPHER 0x07
#define LDAP_OPT_SSL_TIMEOUT 0x08
#define LDAP_OPT_REBIND_FN 0x09
#define LDAP_OPT_SSL 0x0a
#define LDAP_OPT_NOSSL 0x0b
#define LDAP_OPT_PROTOCOL_VERSION 0x11
#define LDAP_OPT_SERVER_CONTROLS 0x12
#define LDAP_OPT_CLIENT_CONTROLS 0x13
#define LDAP_OPT_API_INFO 0x14
#define LDAP_OPT_API_FEATURE_INFO 0x15
#define LDAP_OPT_HOST_NAME 0x30
#define LDAP_OPT_ERROR_NUMBER 0x31
#define LDAP_OPT_ERROR_STRING 0x32
#define LDAP_OPT_EXT_ERROR 0x33
#define LDAP_OPT_52 0x34
#define LDAP_OPT_REFHOPLIMIT2 0x35
#define LDAP_OPT_54 0x36
#define LDAP_OPT_PLUGIN_STATUS 0x37
#define LDAP_OPT_SSL_CERT_ALTNAME 0x38
#define LDAP_OPT_SSL_CERT_ALTNAME2 0x39
#define LDAP_OPT_SSL_CURRENT_CIPHER 0x40
#define LDAP_OPT_SSL_KEYDB 0x41
#define LDAP_OPT_SSL_CLIENT_LABEL 0x42
#define LDAP_OPT_SSL_ACTIVE 0x45
/* LDAP_OPT_ON (default) or LDAP_OPT_OFF: secure connections check that the
 * server's certificate names the host connected to. */
#define LDAP_OPT_SSL_CHECK_HOSTNAME 0x46
/* Session-wide time-outs (struct timeval *; NULL: none, the default):
 * LDAP_OPT_TIMEOUT bounds calls that take no time-out of their own (the
 * synchronous calls, ldap_result with NULL); LDAP_OPT_NETWORK_TIMEOUT
 * bounds opening each connection (connect and SSL handshake).  Reading one
 * gives a copy to free with ldap_memfree, or NULL. */
#define LDAP_OPT_TIMEOUT 0x5002
#define LDAP_OPT_NETWORK_TIMEOUT 0x5005
/* LDAP_OPT_OFF (default) or LDAP_OPT_ON: a request on a session whose
 * connection was lost opens a new one through the session's host list and
 * repeats the session's last bind first.  Requests that were out when the
 * connection died still fail with LDAP_SERVER_DOWN; none is sent again. */
#define LDAP_OPT_RECONNECT 0x62
/* Read only: the calling thread's last server message and matched DN on the
 * session (copies to free with ldap_memfree, or NULL). */
#define LDAP_OPT_DIAGNOSTIC_MESSAGE 0x5032
#define LDAP_OPT_MATCHED_DN 0x5033
#define LDAP_OPT_XLATE 0xe0
/* Protocol-version-2 callers pass 0/1 options as the pointer value. */
#define LDAP_OPT_ON ((void *)1)
#define LDAP_OPT_OFF ((void *)0)

#define LDAP_DEREF_NEVER 0
#define LDAP_DEREF_SEARCHING 1
#define LDAP_DEREF_FINDING 2
#define LDAP_DEREF_ALWAYS 3

/* Option 20: set ldapai_info_version to LDAP_API_INFO_VERSION first; free
 * ldapai_extensions (each string and the array) with tav_ldap_memfree. */
#define LDAP_API_INFO_VERSION 1
typedef struct ldapapiinfo {
  int ldapai_info_version;
  int ldapai_api_version;
  int ldapai_protocol_version;
  char **ldapai_extensions;
  char *ldapai_vendor_name; /* static, do not free */
  int ldapai_vendor_version;
} LDAPAPIInfo;

/* Option 21. */
#define LDAP_FEATURE_INFO_VERSION 1
typedef struct ldap_apifeature_info {
  int ldapaif_info_version;
  char *ldapaif_name;
  int ldapaif_version;
} LDAPAPIFeatureInfo;

/* A parsed LDAP URL, from tav_ldap_url_parse; release it with
 * tav_ldap_free_urldesc. */
#define LDAP_URL_PORT_DEFAULT (-1)
#define LDAP_URL_PORT_DEFAULT_SECURE (-2)
#define LDAP_URL_SCOPE_UNSET (-1)
#define LDAP_SCOPE_BASE 0
#define LDAP_SCOPE_ONELEVEL 1
#define LDAP_SCOPE_SUBTREE 2
typedef struct ldap_url_desc {
  char *lud_scheme;
  char *lud_host;
  int lud_port;
  char *lud_dn;
  char **lud_attrs;
  int lud_scope;
  char *lud_filter;
  char *lud_string;
} LDAPURLDesc;

/* A modification for the add and modify operations, passed in a
 * null-terminated list.  mod_op is the operation (add ignores it), plus
 * LDAP_MOD_BVALUES when the values are counted byte strings (mod_bvalues)
 * rather than NUL-terminated strings (mod_values).  A null value list means
 * no values: a replace without values removes the attribute. */
#define LDAP_MOD_ADD 0x00
#define LDAP_MOD_DELETE 0x01
#define LDAP_MOD_REPLACE 0x02
#define LDAP_MOD_BVALUES 0x80
typedef struct ldapmod {
  int mod_op;
  char *mod_type;
  union {
    char **modv_strvals;
    struct berval **modv_bvals;
  } mod_vals;
} LDAPMod;
#define mod_values mod_vals.modv_strvals
#define mod_bvalues mod_vals.modv_bvals

/* The referral rebind procedure (option LDAP_OPT_REBIND_FN): called with
 * freeit 0 to fill in the DN, password and method (LDAP_AUTH_SIMPLE) to bind
 * with on the server a referral leads to, returning 0 or a result code; then
 * called again with freeit 1 to release what it handed out.  Setting the
 * method to LDAP_AUTH_SASL asks for the session's own SASL bind to be
 * repeated there instead; nothing else sends it to a referred server. */
typedef int(LDAP_REBINDPROC_CALLBACK)(LDAP *ld, char **dnp, char **passwdp, int *authmethodp, int freeit);

#ifdef __cplusplus
}
#endif

#endif
