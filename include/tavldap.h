/* libtav8ldap_64: the exported C interface.
 *
 * Programs load libtav8ldap_64.so (usually with dlopen) and call the
 * tav_ldap_* functions below; every symbol carries the version tav8. */
#ifndef TAVLDAP_H
#define TAVLDAP_H

#include "tavldap_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TAVLDAP_API __attribute__((visibility("default")))

/* Releases a block the library returned (a string, an array); null is ignored. */
TAVLDAP_API void tav_ldap_memfree(void *p);
/* Releases the attribute iteration state from tav_ldap_first_attribute. */
TAVLDAP_API void tav_ldap_ber_free(BerElement *ber);

/* A new session for a host list ("h1 h2:1389 [::1]:389 /path/to/socket") or
 * an LDAP URL; port 0 means 389.  No connection is opened yet.  Null on
 * failure. */
TAVLDAP_API LDAP *tav_ldap_init(const char *host, int port);
/* Waits for the handle's running operations, closes its connections and
 * releases it: 0, LDAP_PARAM_ERROR or LDAP_LOCK_ERROR. */
TAVLDAP_API int tav_ldap_unbind(LDAP *ld);
/* A null ld addresses the process-wide defaults; -1 if they cannot be made. */
TAVLDAP_API int tav_ldap_set_option(LDAP *ld, int option, const void *value);
/* The calling thread's last result code on ld; -1 for an invalid handle. */
TAVLDAP_API int tav_ldap_get_errno(LDAP *ld);
/* Static message text of a result code. */
TAVLDAP_API char *tav_ldap_err2string(int err);
TAVLDAP_API int tav_ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
TAVLDAP_API void tav_ldap_free_urldesc(LDAPURLDesc *ludp);

/* Simple bind (DN and password; both null for an anonymous bind); the result code. */
TAVLDAP_API int tav_ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd);

/* The canonical path of the loaded library file, newly allocated (release it
 * with free or tav_ldap_memfree); null when it cannot be determined. */
TAVLDAP_API char *tavldap_loaded_from(void);

/* Update operations: the result code of the server's response (0 for
 * success), or the library's own code when the request could not be made.
 * Matched DN and message go to the calling thread's error record. */
TAVLDAP_API int tav_ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs);
TAVLDAP_API int tav_ldap_delete_s(LDAP *ld, const char *dn);
TAVLDAP_API int tav_ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);
TAVLDAP_API int tav_ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);

/* Searches and waits at most *timeout (null: without limit) for the whole
 * answer; the server is sent the session's time limit.  *res is set when the
 * search's final result arrived, whatever its code (a size limit, say: the
 * entries that came are in the chain), and is freed with tav_ldap_msgfree.
 * On a time-out (85) or a lost connection (81) *res is null: what arrived is
 * dropped (after a time-out, as soon as the final result comes in).  Result
 * chains must be freed before tav_ldap_unbind, which frees them with the
 * session. */
TAVLDAP_API int tav_ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                   int attrsonly, struct timeval *timeout, LDAPMessage **res);
/* Runs the search an LDAP URL describes (ldap://host:port/base?attrs?scope?filter):
 * base, scope, filter and attributes from the URL, limits from the session.
 * A URL naming another server is searched there (re-binding through the
 * rebind procedure, option 9) and its answers come back as this session's.
 * Returns 0 whenever a result arrived, whatever its result code (read it with
 * the chain); 85 on a time-out, 89 for a URL that does not parse. */
TAVLDAP_API int tav_ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout,
                                       LDAPMessage **res);
/* Walking the entries of a result chain; -1 from the count for a bad handle. */
TAVLDAP_API int tav_ldap_count_entries(LDAP *ld, LDAPMessage *chain);
TAVLDAP_API LDAPMessage *tav_ldap_first_entry(LDAP *ld, LDAPMessage *chain);
TAVLDAP_API LDAPMessage *tav_ldap_next_entry(LDAP *ld, LDAPMessage *entry);
/* The entry's DN, newly allocated (tav_ldap_memfree). */
TAVLDAP_API char *tav_ldap_get_dn(LDAP *ld, LDAPMessage *entry);
/* Attribute names, each newly allocated (tav_ldap_memfree); *cursor is freed
 * with tav_ldap_ber_free before the chain is.  Null with tav_ldap_get_errno 0
 * marks the end. */
TAVLDAP_API char *tav_ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursor);
TAVLDAP_API char *tav_ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor);
/* Values of one attribute (name compared without regard to case) as a
 * null-terminated list, freed with tav_ldap_value_free_len. */
TAVLDAP_API struct berval **tav_ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr);
TAVLDAP_API void tav_ldap_value_free_len(struct berval **vals);
/* Frees a result chain; returns the type of its last message. */
TAVLDAP_API int tav_ldap_msgfree(LDAPMessage *chain);

/* Identification lines ("@(#)key: value") and the banner. */
TAVLDAP_API extern const char tavldap_SCCSInfo[];
TAVLDAP_API extern const char tavldap_Copyright[];

#ifdef __cplusplus
}
#endif

#endif
