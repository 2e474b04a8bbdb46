// The exported forwarding functions: each passes its arguments unchanged to
// the internal function of the same name without the tav_ prefix and returns
// its result.  No checks, locks or traces here; the internal function does all.
#include "tavldap.h"

#include "ldap-int.h"
#include "ldap-search.h"
#include "ldap-update.h"

#define TAV_EXPORT_FN(R, N, P, A) \
  extern "C" R tav_ldap_##N P { return ldap_##N A; }
#define TAV_EXPORT_FUNC(S)
#define TAV_EXPORT_DATA(S)
#include "tav_exports.inc"
