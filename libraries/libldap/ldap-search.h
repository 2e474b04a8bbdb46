// Search requests, the string filter encoder, sort key lists, and read access
// to the entries, references, attributes and values of a search result chain.
#ifndef TAV_LDAP_SEARCH_H
#define TAV_LDAP_SEARCH_H

#include <sys/time.h>

#include "ldap-engine.h"
#include "ldap-int.h"

// Attribute descriptions longer than this are refused by the readers.
#define LDAP_ATTR_NAME_MAX 400

extern "C" {
// Search forms.
// ldap_search without the operation bracket, for callers inside one.
TAV_INTERNAL int ldap_search_int(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                 int attrsonly);
TAV_INTERNAL int ldap_search_ext_int(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                     int attrsonly, LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout,
                                     int sizelimit, int *msgidp);
TAV_INTERNAL int ldap_search_ext_direct(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                        int attrsonly, LDAPControl **sctrls, int sizelimit, struct timeval *timeout,
                                        int *msgidp, LDAPConn *conn);

// URL searches.
TAV_INTERNAL int ldap_url_search_direct(LDAP *ld, const char *url, int attrsonly);

// Filter encoder: 0 or -1.
TAV_INTERNAL int put_filter(BerElement *ber, const char *filter, int nested);
TAV_INTERNAL int put_filter_list(BerElement *ber, char *list);
TAV_INTERNAL int put_simple_filter(BerElement *ber, const char *item);
TAV_INTERNAL int put_substring_filter(BerElement *ber, char *attr, char *value);
TAV_INTERNAL int put_extensible_filter(BerElement *ber, char *before, char *value);
TAV_INTERNAL int compress_hex(char *s);

}

#endif
