// Distinguished names: the parser of the DN record (tavldap_full.h) and the
// string forms made from it.
#ifndef TAV_LDAP_DN_H
#define TAV_LDAP_DN_H

#include "tav-visibility.h"
#include "tavldap_full.h"

extern "C" {
// The record, also on a parse error (then with empty string forms and the
// code in *rc); none, with 90 in *rc, when memory runs out.  rc may be null.
// Parses one RDN from pos (a writable copy) and returns where it stopped: at
// "," or ";", at the end of the string, or where an error was found.
TAV_INTERNAL char *ldap_rdn_parse(char *pos, LDAPRDN *rdn, int mode, int *rc);
// 0 with a new decoded string in *out; 1 for a malformed value; 90.
TAV_INTERNAL int ldap_dn_decode_value(const char *in, char **out);
// Stores type and value (the value is taken over, also on failure); 0 or 90.
// *tail is the RDN's last AVA (none while it has none) and is kept up to date.
TAV_INTERNAL int ldap_rdn_add_ava(LDAPRDN *rdn, LDAPAVAList **tail, const char *type, char *value, int mode);
// Fills dn_string and dn_string_upper (empty when rc is not 0); 0 or 90.
TAV_INTERNAL int ldap_dn_to_string(LDAPDN *dn, int rc);

TAV_INTERNAL int ldap_dn_is_dotted(const char *s);
TAV_INTERNAL char **ldap_explode_dotted(const char *s);
}

#endif
