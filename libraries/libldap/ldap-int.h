// Internal declarations shared by the LDAP client modules.
#ifndef TAV_LDAP_INT_H
#define TAV_LDAP_INT_H

#include "tavldap.h"
#include "tav-visibility.h"

extern "C" {
// Memory blocks handed to callers.
TAV_INTERNAL void ldap_memfree(void *p);
TAV_INTERNAL void ldap_ber_free(BerElement *ber);
}

#endif
