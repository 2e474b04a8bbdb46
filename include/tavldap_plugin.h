/* libtav8ldap_64: the interface of SASL plug-ins.
 *
 * A plug-in is a shared library named in krvldap.conf.  The library calls its
 * initialisation function (default name "ldap_plugin_init") with a parameter
 * block; the function stores its bind function under LDAP_PLUGIN_BIND_FN and
 * returns 0.  Each bind through the plug-in calls the bind function with a
 * fresh block holding the bind's arguments.
 *
 * The plug-in reaches the library only through the function table every
 * block begins with (tavldap_plugin_api_of): it reads and writes parameter
 * blocks and sends SASL bind requests on the session it is given.  See
 * docs/plugins.md. */
#ifndef TAVLDAP_PLUGIN_H
#define TAVLDAP_PLUGIN_H

#include "tavldap_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Parameter identifiers.  Values are pointer-sized: pointers, or integers
 * stored as (void *)(intptr_t). */
#define LDAP_PLUGIN_TYPE 101         /* const char *: "sasl" */
#define LDAP_PLUGIN_ARGV 102         /* char **: words of the configuration line's arguments */
#define LDAP_PLUGIN_ARGC 103         /* int: number of words in LDAP_PLUGIN_ARGV */
#define LDAP_PLUGIN_LD 106           /* LDAP *: the session to bind */
#define LDAP_PLUGIN_DEFHOST 107      /* const char *: the host list the session was created with */
#define LDAP_PLUGIN_SSL_ACTIVE 108   /* int: 1 when the bind goes out over SSL; absent or 0 otherwise */
#define LDAP_PLUGIN_SASL_BIND_DN 201 /* const char *: bind DN (not set for GSSAPI) */
#define LDAP_PLUGIN_SASL_CRED 202    /* const struct berval *: credentials, may be null */
#define LDAP_PLUGIN_SASL_MECH 204    /* const char *: the mechanism */
#define LDAP_PLUGIN_CLIENT_CTRLS 205 /* LDAPControl **: client controls */
#define LDAP_PLUGIN_SERVER_CTRLS 206 /* LDAPControl **: server controls */
#define LDAP_PLUGIN_OPTION54 208     /* int: option 54 (GSSAPI only) */
#define LDAP_PLUGIN_EXT_ERROR 210    /* int: extended error the plug-in leaves (GSSAPI only) */
#define LDAP_PLUGIN_BIND_FN 301      /* ldap_plugin_bind_fn: stored by the initialisation function */
#define LDAP_PLUGIN_CLOSE_FN 302     /* ldap_plugin_close_fn: optional, called when the session ends */
#define LDAP_PLUGIN_STATUS 310       /* int *: the session's plug-in status (GSSAPI only) */

typedef struct ldap_pblock LDAP_PBLOCK;

/* 0 on success. */
typedef int (*ldap_plugin_init_fn)(LDAP_PBLOCK *pb);
/* A result code: 0 when the bind completed, else the code the caller gets. */
typedef int (*ldap_plugin_bind_fn)(LDAP_PBLOCK *pb);
typedef int (*ldap_plugin_close_fn)(LDAP_PBLOCK *pb);

#define TAVLDAP_PLUGIN_API_VERSION 1

/* Later versions only append members; check version before using one. */
struct tavldap_plugin_api {
  int version; /* TAVLDAP_PLUGIN_API_VERSION of the library */
  /* 0, or 1 when the identifier is not in the block. */
  int (*pblock_get)(LDAP_PBLOCK *pb, int id, void **value);
  /* 0; 90 no memory; 82 no block. */
  int (*pblock_set)(LDAP_PBLOCK *pb, int id, void *value);
  /* Sends one SASL BindRequest on the session's current connection and waits
   * for the response.  Returns its result code (14 while the exchange goes
   * on); the server's SASL credentials, if any, go to *servercred, to be
   * freed with berval_free. */
  int (*sasl_bind_step)(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                        LDAPControl **cctrls, struct berval **servercred);
  void (*berval_free)(struct berval *bv);
};

/* Every block the library hands to a plug-in begins with a pointer to the
 * library's function table; the rest of the block is the library's own. */
static inline const struct tavldap_plugin_api *tavldap_plugin_api_of(LDAP_PBLOCK *pb) {
  return *(const struct tavldap_plugin_api *const *)pb;
}

#ifdef __cplusplus
}
#endif

#endif
