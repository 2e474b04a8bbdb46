// Constructors and parsers for particular controls and extended-operation
// values.  Lists, encoding and decoding of controls are in ldap-int.h.
#ifndef TAV_LDAP_CONTROLS_H
#define TAV_LDAP_CONTROLS_H

#include "ldap-int.h"

extern "C" {
TAV_INTERNAL int ldap_proxy_dn_prefix(char **out, const char *dn);
TAV_INTERNAL int ldap_add_proxyauth_control_to_list(LDAPControl ***list, const char *dn);
}

#endif
