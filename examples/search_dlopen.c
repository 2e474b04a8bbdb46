/* search_dlopen: the exported interface, as programs that load the library at
 * run time use it.
 *
 *   usage: search_dlopen URL BASE [FILTER]
 *   e.g.   search_dlopen ldap://127.0.0.1:389 ou=People,dc=example,dc=com '(uid=user1)'
 *
 * Loads libtav8ldap_64.so with dlopen (the file named by TAVLDAP_LIBRARY, else
 * the one this program was built against), resolves the tav_ldap_* functions
 * at their version tav8, searches anonymously and prints each entry's DN and
 * attributes.  Exits with the search's result code. */
#define _GNU_SOURCE /* dlvsym */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

#include "tavldap.h"

#ifndef TAVLDAP_LIBRARY
#define TAVLDAP_LIBRARY "libtav8ldap_64.so"
#endif

/* The functions this program calls, resolved by name. */
static struct {
  LDAP *(*init)(const char *, int);
  int (*unbind)(LDAP *);
  int (*search_st)(LDAP *, const char *, int, const char *, char **, int, struct timeval *, LDAPMessage **);
  LDAPMessage *(*first_entry)(LDAP *, LDAPMessage *);
  LDAPMessage *(*next_entry)(LDAP *, LDAPMessage *);
  char *(*get_dn)(LDAP *, LDAPMessage *);
  char *(*first_attribute)(LDAP *, LDAPMessage *, BerElement **);
  char *(*next_attribute)(LDAP *, LDAPMessage *, BerElement *);
  struct berval **(*get_values_len)(LDAP *, LDAPMessage *, const char *);
  void (*value_free_len)(struct berval **);
  void (*memfree)(void *);
  void (*ber_free)(BerElement *);
  int (*msgfree)(LDAPMessage *);
  char *(*err2string)(int);
} tav;

/* Every exported symbol carries the version tav8: ask for it, so a library of
 * another generation is refused rather than misused. */
static void *resolve(void *lib, const char *name) {
  void *f = dlvsym(lib, name, "tav8");
  if (f == NULL) {
    fprintf(stderr, "search_dlopen: %s@tav8 not found\n", name);
    exit(1);
  }
  return f;
}

int main(int argc, char **argv) {
  if (argc < 3 || argc > 4) {
    fprintf(stderr, "usage: search_dlopen URL BASE [FILTER]\n");
    return 2;
  }
  const char *file = getenv("TAVLDAP_LIBRARY") ? getenv("TAVLDAP_LIBRARY") : TAVLDAP_LIBRARY;
  void *lib = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "search_dlopen: %s\n", dlerror());
    return 1;
  }
  /* POSIX allows converting dlsym's object pointer to a function pointer. */
#define RESOLVE(f) *(void **)(&tav.f) = resolve(lib, "tav_ldap_" #f)
  RESOLVE(init);
  RESOLVE(unbind);
  RESOLVE(search_st);
  RESOLVE(first_entry);
  RESOLVE(next_entry);
  RESOLVE(get_dn);
  RESOLVE(first_attribute);
  RESOLVE(next_attribute);
  RESOLVE(get_values_len);
  RESOLVE(value_free_len);
  RESOLVE(memfree);
  RESOLVE(ber_free);
  RESOLVE(msgfree);
  RESOLVE(err2string);

  /* A URL or a host list; nothing is sent before the first operation. */
  LDAP *ld = tav.init(argv[1], 0);
  if (ld == NULL) {
    fprintf(stderr, "search_dlopen: cannot make a session for %s\n", argv[1]);
    return 1;
  }
  struct timeval timeout = {10, 0};
  LDAPMessage *res = NULL;
  int rc =
      tav.search_st(ld, argv[2], LDAP_SCOPE_SUBTREE, argc > 3 ? argv[3] : "(objectClass=*)", NULL, 0, &timeout, &res);
  /* The chain holds what arrived even when the search ended in an error. */
  for (LDAPMessage *e = tav.first_entry(ld, res); e != NULL; e = tav.next_entry(ld, e)) {
    char *dn = tav.get_dn(ld, e);
    printf("dn: %s\n", dn ? dn : "?");
    tav.memfree(dn);
    BerElement *cursor = NULL;
    for (char *a = tav.first_attribute(ld, e, &cursor); a != NULL; a = tav.next_attribute(ld, e, cursor)) {
      struct berval **vals = tav.get_values_len(ld, e, a);
      for (int i = 0; vals != NULL && vals[i] != NULL; ++i)
        printf("%s: %.*s\n", a, (int)vals[i]->bv_len, vals[i]->bv_val);
      tav.value_free_len(vals);
      tav.memfree(a);
    }
    tav.ber_free(cursor);
    printf("\n");
  }
  tav.msgfree(res);
  if (rc != LDAP_SUCCESS) fprintf(stderr, "search_dlopen: %s (%d)\n", tav.err2string(rc), rc);
  tav.unbind(ld);
  dlclose(lib);
  return rc;
}
