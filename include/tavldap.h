/* libtav8ldap_64: the exported C interface.
 *
 * Programs load libtav8ldap_64.so (usually with dlopen) and call the
 * tav_ldap_* functions below; every symbol carries the version tav8. */
#ifndef TAVLDAP_H
#define TAVLDAP_H

#ifdef __cplusplus
extern "C" {
#endif

#define TAVLDAP_API __attribute__((visibility("default")))

typedef struct berelement BerElement;

/* Releases a block the library returned (a string, an array); null is ignored. */
TAVLDAP_API void tav_ldap_memfree(void *p);
/* Releases the attribute iteration state from tav_ldap_first_attribute. */
TAVLDAP_API void tav_ldap_ber_free(BerElement *ber);

/* The canonical path of the loaded library file, newly allocated (release it
 * with free or tav_ldap_memfree); null when it cannot be determined. */
TAVLDAP_API char *tavldap_loaded_from(void);

/* Identification lines ("@(#)key: value") and the banner. */
TAVLDAP_API extern const char tavldap_SCCSInfo[];
TAVLDAP_API extern const char tavldap_Copyright[];

#ifdef __cplusplus
}
#endif

#endif
