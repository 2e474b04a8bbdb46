/* locate_servers: find the directory servers of a DNS domain and search the
 * first that answers.
 *
 *   usage: locate_servers DOMAIN BASE
 *   e.g.   locate_servers example.com dc=example,dc=com
 *
 * ldap_server_locate asks DNS for the SRV records "_ldap._tcp.DOMAIN" (and
 * their TXT records with the naming context), using the name servers of
 * /etc/resolv.conf, and returns the servers ordered by priority and weight.
 * The program prints them and reads BASE from the first that answers.
 * ldap_init("ldap:///BASE", 0) does the same location by itself. */
#include <stdio.h>

#include "tavldap_full.h"

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: locate_servers DOMAIN BASE\n");
    return 2;
  }
  char *domains[] = {argv[1], NULL};
  LDAPServerRequest request = {0};
  request.search_source = 2; /* DNS only, no server information file */
  request.dns_domains = domains;
  request.connection_timeout = 5;
  LDAPServerInfo *servers = NULL;
  int rc = ldap_server_locate(&request, &servers);
  if (rc != 0 && rc != LDAP_DNS_TRUNCATED) {
    fprintf(stderr, "locate_servers: %s (%d)\n", ldap_err2string(rc), rc);
    return rc;
  }
  for (LDAPServerInfo *s = servers; s != NULL; s = s->next)
    printf("%s:%u priority %u weight %u suffix %s\n", s->host, s->port, s->priority, s->weight,
           s->suffix ? s->suffix : "(none)");

  rc = LDAP_SERVER_DOWN;
  for (LDAPServerInfo *s = servers; s != NULL && rc == LDAP_SERVER_DOWN; s = s->next) {
    LDAP *ld = ldap_init(s->host, s->port);
    if (ld == NULL) continue;
    LDAPMessage *res = NULL;
    rc = ldap_search_s(ld, argv[2], LDAP_SCOPE_BASE, "(objectClass=*)", NULL, 0, &res);
    if (rc == 0) printf("read %s from %s:%u\n", argv[2], s->host, s->port);
    ldap_msgfree(res);
    ldap_unbind(ld);
  }
  ldap_server_free_list(servers);
  if (rc != 0) fprintf(stderr, "locate_servers: %s (%d)\n", ldap_err2string(rc), rc);
  return rc;
}
