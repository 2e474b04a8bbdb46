// Server location: the DNS client, the server information file and the
// choice among the servers found.
#ifndef TAV_LDAP_DNS_H
#define TAV_LDAP_DNS_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "ldap-int.h"

#define LDAP_DNS_TRANSPORT_UDP 1
#define LDAP_DNS_TRANSPORT_TCP 2
#define LDAP_DNS_TYPE_CNAME 5
#define LDAP_DNS_TYPE_TXT 16
#define LDAP_DNS_TYPE_SRV 33
#define LDAP_DNS_TYPE_ANY 255
#define LDAP_DNS_UDP_SIZE 512
#define LDAP_SERVER_INFO_FILE "/etc/ldap_server_info.conf"

// The state of one ldap_server_locate call.
struct ldap_dns_state {
  int connection_type;
  int connection_timeout;
  int search_source;
  char **dns_domains;   // the request's, or owned_domains
  char **name_servers;  // the request's, or owned_servers
  const char *dn_filter;
  int sock;
  int transport;
  struct sockaddr_storage server_addr;
  socklen_t server_addr_len;
  char *service_prefix;
  const char *protocol;
  const char *current_domain;
  char *query_name;
  uint16_t next_id;
  unsigned char *packet;
  size_t packet_len;
  size_t pos;
  int rcode;
  int truncated_count;
  int answer_count;
  size_t answers_pos;
  LDAPServerInfo *found;
  LDAPServerInfo *results;
  LDAPServerInfo *conf_entries;
  char **owned_domains;  // from LOCALDOMAIN, resolv.conf or the host name
  char **owned_servers;  // from resolv.conf
};

// Null-terminated lists of strings the state owns (domains, name servers).
int ldap_dns_list_count(char **list);
void ldap_dns_list_free(char **list);
// Appends a copy of [s, s+len); 0 or LDAP_NO_MEMORY.
int ldap_dns_list_add(char ***list, const char *s, size_t len);
// A 16-bit field of a DNS message, network order.
inline uint16_t ldap_dns_get16(const unsigned char *p) { return (uint16_t)((p[0] << 8) | p[1]); }

extern "C" {
// The DNS client.  0, a result code, or -1 for a negative answer.
TAV_INTERNAL int ldap_dns_get_config(struct ldap_dns_state *st);
// resolv.conf rules on a given file; `need_servers` as in ldap_dns_get_config.
TAV_INTERNAL int ldap_dns_read_resolv_conf(struct ldap_dns_state *st, const char *path, int need_servers);
TAV_INTERNAL int ldap_dns_open(struct ldap_dns_state *st, const char *address, int transport);
TAV_INTERNAL int ldap_dns_send_query(struct ldap_dns_state *st, const char *name, int type);
TAV_INTERNAL int ldap_dns_read_answer(struct ldap_dns_state *st);
// Checks the header of the message in st->packet (st->packet_len bytes) and
// finds its answers; the part of ldap_dns_read_answer after the receive.
TAV_INTERNAL int ldap_dns_check_answer(struct ldap_dns_state *st, uint16_t expected_id);
TAV_INTERNAL int ldap_dns_parse_answers(struct ldap_dns_state *st, LDAPServerInfo *server, int type);
TAV_INTERNAL int ldap_dns_query_server(struct ldap_dns_state *st, const char *address, int transport);
TAV_INTERNAL int ldap_dns_close(struct ldap_dns_state *st);
// Frees everything the state owns (not the request's lists).
TAV_INTERNAL void ldap_dns_state_free(struct ldap_dns_state *st);

// The server information file and the choice of servers.
TAV_INTERNAL int ldap_conf_read_servers(const char *filename, LDAPServerInfo **entries);
TAV_INTERNAL LDAPServerInfo *ldap_server_info_dup(const LDAPServerInfo *s);
TAV_INTERNAL void ldap_server_info_free(LDAPServerInfo *s);
// 1 when `suffix` is `filter` or lies below it (no filter always fits).
TAV_INTERNAL int ldap_dns_suffix_fits(const char *suffix, const char *filter);
// Behind every server of lower or equal priority.
TAV_INTERNAL void ldap_dns_insert_by_priority(LDAPServerInfo **list, LDAPServerInfo *s);
// Reorders runs of equal priority by weighted draw with rand_r(seed).
TAV_INTERNAL void ldap_dns_order_servers(LDAPServerInfo **list, unsigned int seed);
// Moves `more` to the end of `*list`.
TAV_INTERNAL void ldap_dns_append(LDAPServerInfo **list, LDAPServerInfo *more);
}

#endif
