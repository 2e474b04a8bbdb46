/* libtav8ldap_64: <lber.h> for programs written for the common LDAP C API.
 *
 * Installed in its own folder (include/tav8ldap_64_compat), which only
 * pkg-config tav8ldap_64_compat puts on the include path: the system's
 * /usr/include/lber.h stays what every other build finds. */
#include <tavldap_full.h>
