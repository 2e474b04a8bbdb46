// Operating-system calls that need the library's serialisation.
#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"

extern "C" {

int olx_getaddrinfo(const char *host, int port_net, struct addrinfo **res) {
  int port = ntohs((uint16_t)port_net);
  LDAP_LOG(LDAP_LOG_TRACE, "olx_getaddrinfo: host(%s), port(%d), res(%p)\n", ldap_trace_str(host, "NULL"), port,
           (void *)res);
  if (res == nullptr) return LDAP_PARAM_ERROR;
  // A name that does not fit the copy is a caller error, not a lookup failure.
  if (host != nullptr && strlen(host) >= LDAP_ADDRINFO_HOST_MAX) return LDAP_PARAM_ERROR;
  char *host_copy = static_cast<char *>(olx_calloc(1, LDAP_ADDRINFO_HOST_MAX));
  if (host_copy == nullptr) return LDAP_NO_MEMORY;
  if (host != nullptr) strcpy(host_copy, host);
  char *service = static_cast<char *>(olx_malloc(20));
  if (service == nullptr) {
    free(host_copy);
    return LDAP_NO_MEMORY;
  }
  snprintf(service, 20, "%d", port);

  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;

  if (lock_syscall_mutex() != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "olx_getaddrinfo: Failed to lock.\n");
    free(service);
    free(host_copy);
    return LDAP_LOCK_ERROR;
  }
  struct addrinfo *list = nullptr;
  int rc = getaddrinfo(host != nullptr ? host_copy : nullptr, service, &hints, &list);
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "getaddrinfo failed. \n");
    unlock_syscall_mutex();
    free(service);
    free(host_copy);
    errno = EHOSTUNREACH;
    return LDAP_SERVER_DOWN;
  }
  unlock_syscall_mutex();
  free(service);
  LDAP_LOG(LDAP_LOG_TRACE, "olx_getaddrinfo: rc=%d\n", rc);
  *res = list;
  free(host_copy);
  return LDAP_SUCCESS;
}
}
