// Server location.  Until the DNS client and the server information cache
// exist, the locator finds no servers, so a URL without a host cannot name a
// session's server.
#include "ldap-debug.h"
#include "ldap-int.h"

extern "C" {

char *auto_server_locate(struct ldap_server_request *request, int secure) {
  (void)request;
  (void)secure;
  LDAP_LOG(LDAP_LOG_ERROR, "Error - auto_server_locate: ldap_server_locate rc=%d\n", LDAP_NOT_SUPPORTED);
  return nullptr;
}
}
