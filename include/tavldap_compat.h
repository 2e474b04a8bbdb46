/* libtav8ldap_64: the common LDAP C API's names.
 *
 * Included by tavldap_full.h (at its end); not meant to be included alone.
 * Programs written for the common C API (RFC 1823, the LDAP C API drafts and
 * the names OpenLDAP's ldap.h and lber.h give them) build against the full
 * client with their include lines replaced by <tavldap_full.h>.  Here are the
 * names of that API which tavldap_full.h and tavldap_types.h spell
 * differently or lack: each is an alias of what the library has, or a small
 * inline over it.  Numbers are this library's own (LDAP_OPT_*, the client
 * result codes 81 and up): the names match the common API, its binary values
 * do not.  docs/guide.md ("Programs written for the common C API") lists
 * every name with what it maps to. */
#ifndef TAVLDAP_COMPAT_H
#define TAVLDAP_COMPAT_H

#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * lber.h: types, constants, freeing. */
typedef int ber_int_t;
typedef unsigned int ber_uint_t;
typedef long ber_slen_t;
/* As wide as ber_len_t; the library's BER codec uses the same type. */
typedef uint64_t ber_tag_t;
typedef struct berval BerValue;
typedef BerValue *BerVarray;
/* Spelled exactly as the codec spells them, so both may be seen at once. */
#ifndef LBER_ERROR
#define LBER_ERROR ((ber_tag_t)-1)
#endif
#ifndef LBER_DEFAULT
#define LBER_DEFAULT ((ber_tag_t)-1)
#endif
#ifndef LDAP_CONST
#define LDAP_CONST const
#endif

/* Functions rather than macros, so that the names stay free for members and
 * arguments of the same spelling.  The attribute cursor is one block:
 * freebuf has nothing more to release. */
static inline void ber_free(BerElement *ber, int freebuf) {
  (void)freebuf;
  ldap_ber_free(ber);
}
static inline void ber_bvfree(struct berval *bv) { fber_bvfree(bv); }
static inline void ber_bvecfree(struct berval **bvec) { fber_bvecfree(bvec); }
/* Every string and buffer the library hands out is released the same way. */
static inline void ber_memfree(void *p) { ldap_memfree(p); }
/* Copies and records for values, as liblber makes them: ber_bvdup and
 * ber_dupbv copy; ber_str2bv / ber_mem2bv fill bv (a new record when bv is
 * NULL; ber_str2bv takes strlen when len is 0) and copy the bytes when dup is
 * non-zero.  New records and bytes are freed with ber_bvfree / ber_memfree;
 * a BerVarray (records up to one with a NULL bv_val) with ber_bvarray_free. */
struct berval *ber_bvdup(const struct berval *bv);
struct berval *ber_dupbv(struct berval *dst, struct berval *src);
struct berval *ber_str2bv(const char *s, ber_len_t len, int dup, struct berval *bv);
struct berval *ber_mem2bv(const char *s, ber_len_t len, int dup, struct berval *bv);
char *ber_strdup(const char *s);
void *ber_memalloc(ber_len_t size);
void *ber_memcalloc(ber_len_t count, ber_len_t size);
void *ber_memrealloc(void *p, ber_len_t size);
void ber_memvfree(void **vector);
void ber_bvarray_free(struct berval *array);

/* ------------------------------------------------------------------------
 * Versions, ports, limits, authentication. */
#ifndef LDAP_VERSION1
#define LDAP_VERSION1 1
#endif
#ifndef LDAP_VERSION
#define LDAP_VERSION LDAP_VERSION2
#endif
#ifndef LDAP_VERSION_MIN
#define LDAP_VERSION_MIN LDAP_VERSION2
#endif
#ifndef LDAP_VERSION_MAX
#define LDAP_VERSION_MAX LDAP_VERSION3
#endif
/* What LDAP_OPT_API_INFO reports in ldapai_api_version. */
#ifndef LDAP_API_VERSION
#define LDAP_API_VERSION 2004
#endif
#ifndef LDAP_NO_LIMIT
#define LDAP_NO_LIMIT 0
#endif
/* ldap_sasl_bind and ldap_sasl_bind_s bind simply when the mechanism is null. */
#ifndef LDAP_SASL_SIMPLE
#define LDAP_SASL_SIMPLE ((char *)0)
#endif

/* ------------------------------------------------------------------------
 * Options. */
#ifndef LDAP_OPT_SUCCESS
#define LDAP_OPT_SUCCESS 0
#endif
#ifndef LDAP_OPT_ERROR
#define LDAP_OPT_ERROR (-1)
#endif
#ifndef LDAP_OPT_RESULT_CODE
#define LDAP_OPT_RESULT_CODE LDAP_OPT_ERROR_NUMBER
#endif
/* The server's diagnostic message and matched DN of the thread's last
 * result, as new strings (ldap_memfree), NULL when there were none.  Not
 * 0x32 and 0x33: this library's LDAP_OPT_ERROR_STRING (0x32) reads NULL and
 * its 0x33 is LDAP_OPT_EXT_ERROR. */
#ifndef LDAP_OPT_DIAGNOSTIC_MESSAGE
#define LDAP_OPT_DIAGNOSTIC_MESSAGE 0x5032
#endif
#ifndef LDAP_OPT_MATCHED_DN
#define LDAP_OPT_MATCHED_DN 0x5033
#endif
#ifndef LDAP_OPT_DEBUG_LEVEL
#define LDAP_OPT_DEBUG_LEVEL LDAP_OPT_DEBUG
#endif

/* ------------------------------------------------------------------------
 * Results, scopes, modifications. */
#ifndef LDAP_RES_MODDN
#define LDAP_RES_MODDN LDAP_RES_MODRDN
#endif
#ifndef LDAP_RES_RENAME
#define LDAP_RES_RENAME LDAP_RES_MODRDN
#endif
#ifndef LDAP_SCOPE_BASEOBJECT
#define LDAP_SCOPE_BASEOBJECT LDAP_SCOPE_BASE
#endif
#ifndef LDAP_SCOPE_ONE
#define LDAP_SCOPE_ONE LDAP_SCOPE_ONELEVEL
#endif
#ifndef LDAP_SCOPE_SUB
#define LDAP_SCOPE_SUB LDAP_SCOPE_SUBTREE
#endif
/* Sent to the server as it is (RFC 4525). */
#ifndef LDAP_MOD_INCREMENT
#define LDAP_MOD_INCREMENT 0x03
#endif
#ifndef LDAP_MOD_OP
#define LDAP_MOD_OP 0x07
#endif

/* Server result codes under their RFC 4511 and extension names. */
#ifndef LDAP_AUTH_METHOD_NOT_SUPPORTED
#define LDAP_AUTH_METHOD_NOT_SUPPORTED LDAP_STRONG_AUTH_NOT_SUPPORTED
#endif
#ifndef LDAP_STRONGER_AUTH_REQUIRED
#define LDAP_STRONGER_AUTH_REQUIRED LDAP_STRONG_AUTH_REQUIRED
#endif
#ifndef LDAP_X_PROXY_AUTHZ_FAILURE
#define LDAP_X_PROXY_AUTHZ_FAILURE 0x2f
#endif
#ifndef LDAP_VLV_ERROR
#define LDAP_VLV_ERROR 0x4c
#endif
#ifndef LDAP_PROXIED_AUTHORIZATION_DENIED
#define LDAP_PROXIED_AUTHORIZATION_DENIED 0x7b
#endif
#ifndef LDAP_RANGE
#define LDAP_RANGE(n, x, y) (((x) <= (n)) && ((n) <= (y)))
#endif
#ifndef LDAP_ATTR_ERROR
#define LDAP_ATTR_ERROR(n) LDAP_RANGE((n), 0x10, 0x15)
#endif
#ifndef LDAP_NAME_ERROR
#define LDAP_NAME_ERROR(n) LDAP_RANGE((n), 0x20, 0x24)
#endif
#ifndef LDAP_SECURITY_ERROR
#define LDAP_SECURITY_ERROR(n) LDAP_RANGE((n), 0x2f, 0x32)
#endif
#ifndef LDAP_SERVICE_ERROR
#define LDAP_SERVICE_ERROR(n) LDAP_RANGE((n), 0x33, 0x36)
#endif
#ifndef LDAP_UPDATE_ERROR
#define LDAP_UPDATE_ERROR(n) LDAP_RANGE((n), 0x40, 0x47)
#endif

/* ------------------------------------------------------------------------
 * Controls and extended operations. */
#ifndef LDAP_CONTROL_PROXY_AUTHZ
#define LDAP_CONTROL_PROXY_AUTHZ LDAP_CONTROL_PROXYAUTH
#endif
#ifndef LDAP_CONTROL_ASSERT
#define LDAP_CONTROL_ASSERT LDAP_CONTROL_ASSERTION
#endif
#ifndef LDAP_CONTROL_PERSIST_REQUEST
#define LDAP_CONTROL_PERSIST_REQUEST LDAP_CONTROL_PERSISTENTSEARCH
#endif
#ifndef LDAP_CONTROL_PERSIST_ENTRY_CHANGE_NOTICE
#define LDAP_CONTROL_PERSIST_ENTRY_CHANGE_NOTICE LDAP_CONTROL_ENTRYCHANGE
#endif
#ifndef LDAP_CONTROL_PASSWORDPOLICYREQUEST
#define LDAP_CONTROL_PASSWORDPOLICYREQUEST LDAP_CONTROL_PWDPOLICY
#endif
#ifndef LDAP_CONTROL_PASSWORDPOLICYRESPONSE
#define LDAP_CONTROL_PASSWORDPOLICYRESPONSE LDAP_CONTROL_PWDPOLICY
#endif
/* Controls without a constructor here, for ldap_build_control. */
#ifndef LDAP_CONTROL_MANAGEDSAIT
#define LDAP_CONTROL_MANAGEDSAIT "2.16.840.1.113730.3.4.2"
#endif
#ifndef LDAP_CONTROL_PRE_READ
#define LDAP_CONTROL_PRE_READ "1.3.6.1.1.13.1"
#endif
#ifndef LDAP_CONTROL_POST_READ
#define LDAP_CONTROL_POST_READ "1.3.6.1.1.13.2"
#endif
#ifndef LDAP_CONTROL_AUTHZID_REQUEST
#define LDAP_CONTROL_AUTHZID_REQUEST "2.16.840.1.113730.3.4.16"
#endif
#ifndef LDAP_CONTROL_AUTHZID_RESPONSE
#define LDAP_CONTROL_AUTHZID_RESPONSE "2.16.840.1.113730.3.4.15"
#endif

#ifndef LDAP_EXOP_START_TLS
#define LDAP_EXOP_START_TLS "1.3.6.1.4.1.1466.20037"
#endif
#ifndef LDAP_EXOP_WHO_AM_I
#define LDAP_EXOP_WHO_AM_I "1.3.6.1.4.1.4203.1.11.3"
#endif
#ifndef LDAP_EXOP_X_WHO_AM_I
#define LDAP_EXOP_X_WHO_AM_I LDAP_EXOP_WHO_AM_I
#endif
#ifndef LDAP_EXOP_MODIFY_PASSWD
#define LDAP_EXOP_MODIFY_PASSWD "1.3.6.1.4.1.4203.1.11.1"
#endif
#ifndef LDAP_EXOP_X_MODIFY_PASSWD
#define LDAP_EXOP_X_MODIFY_PASSWD LDAP_EXOP_MODIFY_PASSWD
#endif
#ifndef LDAP_TAG_EXOP_MODIFY_PASSWD_ID
#define LDAP_TAG_EXOP_MODIFY_PASSWD_ID ((ber_tag_t)0x80U)
#endif
#ifndef LDAP_TAG_EXOP_MODIFY_PASSWD_OLD
#define LDAP_TAG_EXOP_MODIFY_PASSWD_OLD ((ber_tag_t)0x81U)
#endif
#ifndef LDAP_TAG_EXOP_MODIFY_PASSWD_NEW
#define LDAP_TAG_EXOP_MODIFY_PASSWD_NEW ((ber_tag_t)0x82U)
#endif
#ifndef LDAP_TAG_EXOP_MODIFY_PASSWD_GEN
#define LDAP_TAG_EXOP_MODIFY_PASSWD_GEN ((ber_tag_t)0x80U)
#endif

/* The sort key record: the same fields as the common LDAPSortKey, named
 * sk_attrtype, sk_matchruleoid and sk_reverseorder. */
typedef struct ldapsortkey LDAPSortKey;

/* ------------------------------------------------------------------------
 * Functions the common API names differently.  Small glue over the functions
 * above; none keeps state. */

/* The first control of the list with this OID; *nextctrlp (when not null)
 * is set to the rest of the list after it, for finding the next one. */
static inline LDAPControl *ldap_control_find(const char *oid, LDAPControl **ctrls, LDAPControl ***nextctrlp) {
  if (oid != NULL && ctrls != NULL) {
    for (; *ctrls != NULL; ++ctrls) {
      if ((*ctrls)->ldctl_oid != NULL && strcmp((*ctrls)->ldctl_oid, oid) == 0) {
        if (nextctrlp != NULL) *nextctrlp = ctrls + 1;
        return *ctrls;
      }
    }
  }
  if (nextctrlp != NULL) *nextctrlp = NULL;
  return NULL;
}

/* One paged-results response control: the estimate and the next cookie,
 * whose bv_val the caller frees (ber_memfree; empty on the last page). */
static inline int ldap_parse_pageresponse_control(LDAP *ld, LDAPControl *ctrl, ber_int_t *count,
                                                  struct berval *cookie) {
  LDAPControl *list[2];
  struct berval *next = NULL;
  unsigned int estimate = 0;
  int rc;
  if (ctrl == NULL || cookie == NULL) return LDAP_PARAM_ERROR;
  list[0] = ctrl;
  list[1] = NULL;
  rc = ldap_parse_page_control(ld, list, &estimate, &next);
  if (rc != LDAP_SUCCESS) return rc;
  if (count != NULL) *count = (ber_int_t)estimate;
  /* The bytes are a separate allocation: keep them, free only the record. */
  cookie->bv_len = next->bv_len;
  cookie->bv_val = next->bv_val;
  next->bv_val = NULL;
  fber_bvfree(next);
  return LDAP_SUCCESS;
}

/* One sort response control: the sort's result code and the attribute that
 * failed (ldap_memfree; null when the server named none). */
static inline int ldap_parse_sortresponse_control(LDAP *ld, LDAPControl *ctrl, ber_int_t *result, char **attribute) {
  LDAPControl *list[2];
  unsigned long code = 0;
  int rc;
  if (ctrl == NULL) return LDAP_PARAM_ERROR;
  list[0] = ctrl;
  list[1] = NULL;
  rc = ldap_parse_sort_control(ld, list, &code, attribute);
  if (rc == LDAP_SUCCESS && result != NULL) *result = (ber_int_t)code;
  return rc;
}

/* The classic rename with the old RDN's fate: this library's ldap_modrdn. */
static inline int ldap_modrdn2(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn) {
  return ldap_modrdn(ld, dn, newrdn, deleteoldrdn);
}
static inline int ldap_modrdn2_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn) {
  return ldap_modrdn_s(ld, dn, newrdn, deleteoldrdn);
}

/* The scheme of an LDAP URL (after an optional "<" and "URL:"), in any
 * case: 1 ldap://, 2 ldaps://, 3 ldapi://, 0 none. */
static inline int tavldap_compat_url_scheme(const char *url) {
  static const char *const schemes[] = {"ldap://", "ldaps://", "ldapi://"};
  int i;
  size_t k;
  if (url == NULL) return 0;
  if (*url == '<') ++url;
  if ((url[0] | 0x20) == 'u' && (url[1] | 0x20) == 'r' && (url[2] | 0x20) == 'l' && url[3] == ':') url += 4;
  for (i = 0; i < 3; ++i) {
    for (k = 0; schemes[i][k] != '\0' && (url[k] | 0x20) == schemes[i][k]; ++k) {
    }
    if (schemes[i][k] == '\0') return i + 1;
  }
  return 0;
}
static inline int ldap_is_ldap_url(const char *url) { return tavldap_compat_url_scheme(url) != 0; }
static inline int ldap_is_ldaps_url(const char *url) { return tavldap_compat_url_scheme(url) == 2; }
static inline int ldap_is_ldapi_url(const char *url) { return tavldap_compat_url_scheme(url) == 3; }

#ifdef __cplusplus
}
#endif

#endif
