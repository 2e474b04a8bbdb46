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
TAV_INTERNAL int ldap_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly);
// ldap_search without the operation bracket, for callers inside one.
TAV_INTERNAL int ldap_search_int(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                 int attrsonly);
TAV_INTERNAL int ldap_search_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                               LDAPMessage **res);
TAV_INTERNAL int ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                                struct timeval *timeout, LDAPMessage **res);
TAV_INTERNAL int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                                 LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout, int sizelimit,
                                 int *msgidp);
TAV_INTERNAL int ldap_search_ext_int(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                     int attrsonly, LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout,
                                     int sizelimit, int *msgidp);
TAV_INTERNAL int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                   int attrsonly, LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout,
                                   int sizelimit, LDAPMessage **res);
TAV_INTERNAL int ldap_search_ext_direct(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                                        int attrsonly, LDAPControl **sctrls, int sizelimit, struct timeval *timeout,
                                        int *msgidp, LDAPConn *conn);

// URL searches.
TAV_INTERNAL int ldap_url_search(LDAP *ld, const char *url, int attrsonly);
TAV_INTERNAL int ldap_url_search_s(LDAP *ld, const char *url, int attrsonly, LDAPMessage **res);
TAV_INTERNAL int ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout,
                                    LDAPMessage **res);
TAV_INTERNAL int ldap_url_search_direct(LDAP *ld, const char *url, int attrsonly);

// Filter encoder: 0 or -1.
TAV_INTERNAL int put_filter(BerElement *ber, const char *filter, int nested);
TAV_INTERNAL int put_filter_list(BerElement *ber, char *list);
TAV_INTERNAL int put_simple_filter(BerElement *ber, const char *item);
TAV_INTERNAL int put_substring_filter(BerElement *ber, char *attr, char *value);
TAV_INTERNAL int put_extensible_filter(BerElement *ber, char *before, char *value);
TAV_INTERNAL int compress_hex(char *s);

// Sort key lists for the sort control.
TAV_INTERNAL int ldap_create_sort_keylist(LDAPsortkey ***out, const char *keys);
TAV_INTERNAL void ldap_free_sort_keylist(LDAPsortkey **keys);

// Entries and references.
TAV_INTERNAL LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *chain);
TAV_INTERNAL LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry);
TAV_INTERNAL int ldap_count_entries(LDAP *ld, LDAPMessage *chain);
TAV_INTERNAL LDAPMessage *ldap_first_reference(LDAP *ld, LDAPMessage *chain);
TAV_INTERNAL LDAPMessage *ldap_next_reference(LDAP *ld, LDAPMessage *ref);
TAV_INTERNAL int ldap_count_references(LDAP *ld, LDAPMessage *chain);
TAV_INTERNAL int ldap_parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp,
                                      int freeit);
TAV_INTERNAL int ldap_parse_reference_np(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp,
                                         int freeit);
TAV_INTERNAL char *ldap_get_dn(LDAP *ld, LDAPMessage *entry);
TAV_INTERNAL int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrlsp);
TAV_INTERNAL int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrlsp);

// Attributes.
TAV_INTERNAL char *ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursor);
TAV_INTERNAL char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor);
TAV_INTERNAL int ldap_count_attributes(LDAP *ld, LDAPMessage *entry);

// Values.
TAV_INTERNAL char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *attr);
TAV_INTERNAL struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr);
TAV_INTERNAL void ldap_value_free(char **vals);
TAV_INTERNAL void ldap_value_free_len(struct berval **vals);
TAV_INTERNAL int ldap_count_values(char **vals);
TAV_INTERNAL int ldap_count_values_len(struct berval **vals);
}

#endif
