// Server location through DNS: the search over service names, domains and
// name servers (and the configuration file's entries first), and the host
// list ldap_init gets for a URL without a host.  The library's own small DNS
// client is beside it: messages in ldap_dns_msg.cpp, sockets in
// ldap_dns_net.cpp, resolv.conf in ldap_dns_conf.cpp.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>

#include "ldap-debug.h"
#include "ldap-dns.h"
#include "ldap-engine.h"
#include "ldap-utils.h"

namespace {

constexpr int kNegative = -1;

// A seed for ordering servers of equal weight.  Processes started together
// and calls in the same second must not all pick the same server: the
// generator is seeded from getrandom once per process (again after a fork).
unsigned int order_seed() {
  static std::mutex mu;
  static uint64_t state = 0;
  static pid_t owner = 0;
  uint64_t z;
  {
    std::lock_guard<std::mutex> lock(mu);
    if (owner != getpid()) {
      owner = getpid();
      if (getrandom(&state, sizeof state, GRND_NONBLOCK) != (ssize_t)sizeof state)
        state ^= (uint64_t)time(nullptr) << 20 ^ (uint64_t)owner ^ (uint64_t)clock();
    }
    z = state += 0x9e3779b97f4a7c15ULL;
  }
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return (unsigned int)(z ^ (z >> 31));
}

// Unlinks and frees servers whose suffix does not fit the filter.
void filter_suffix(LDAPServerInfo **list, const char *filter) {
  for (LDAPServerInfo *s = *list, *next; s != nullptr; s = next) {
    next = s->next;
    if (ldap_dns_suffix_fits(s->suffix, filter)) continue;
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: non-matching suffix, removing %s from list\n", s->host);
    if (s->prev != nullptr)
      s->prev->next = s->next;
    else
      *list = s->next;
    if (s->next != nullptr) s->next->prev = s->prev;
    ldap_server_info_free(s);
  }
}

void trace_list(char *out, size_t size, char **list) {
  if (list == nullptr) {
    snprintf(out, size, "NULL");
    return;
  }
  size_t used = (size_t)snprintf(out, size, "{");
  for (char **p = list; *p != nullptr && used < size; ++p)
    used += (size_t)snprintf(out + used, size - used, "%s%s", p == list ? "" : ", ", *p);
  if (used < size) snprintf(out + used, size - used, "}");
}

// File lookup for the current service name and domain.
int file_lookup(ldap_dns_state *st) {
  LDAPServerInfo *found = nullptr;
  for (LDAPServerInfo *e = st->conf_entries; e != nullptr; e = e->next) {
    if (strcasecmp(e->service, st->service_prefix) != 0 || strcasecmp(e->domain, st->current_domain) != 0 ||
        !ldap_dns_suffix_fits(e->suffix, st->dn_filter))
      continue;
    LDAPServerInfo *c = ldap_server_info_dup(e);
    if (c == nullptr) {
      ldap_server_free_list(found);
      return LDAP_NO_MEMORY;
    }
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: CONF record found: %d %d %d %s\n", c->priority, c->weight, c->port, c->host);
    ldap_dns_insert_by_priority(&found, c);
  }
  if (found == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: no LDAP servers found in configuration file\n");
    return LDAP_DNS_SERVERS_FOUND;
  }
  ldap_dns_order_servers(&found, order_seed());
  ldap_dns_append(&st->results, found);
  return 0;
}

int dns_lookup(ldap_dns_state *st, const char *ns) {
  int first = st->connection_type == 2 ? LDAP_DNS_TRANSPORT_TCP : LDAP_DNS_TRANSPORT_UDP;
  int rc = ldap_dns_query_server(st, ns, first);
  if (st->connection_type == 0 && st->transport == LDAP_DNS_TRANSPORT_UDP &&
      (rc == LDAP_CONNECT_ERROR || rc == LDAP_DNS_TRUNCATED)) {
    ldap_dns_close(st);
    rc = ldap_dns_query_server(st, ns, LDAP_DNS_TRANSPORT_TCP);
  }
  return rc;
}

// One service name over the name servers.
int search_service(ldap_dns_state *st) {
  int rc = 0;
  for (char **ns = st->name_servers; ns != nullptr && *ns != nullptr; ++ns) {
    ldap_server_free_list(st->results);
    st->results = nullptr;
    st->truncated_count = 0;
    bool found = false, dns_needed = false, dns_ok = false;
    for (char **dom = st->dns_domains; dom != nullptr && *dom != nullptr; ++dom) {
      st->current_domain = *dom;
      free(st->query_name);
      size_t len = strlen(st->service_prefix) + strlen(st->protocol) + strlen(*dom) + 3;
      st->query_name = static_cast<char *>(olx_malloc(len));
      if (st->query_name == nullptr) {
        ldap_dns_close(st);
        return LDAP_NO_MEMORY;
      }
      snprintf(st->query_name, len, "%s.%s.%s", st->service_prefix, st->protocol, *dom);
      LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: Querying for %s\n", st->query_name);
      if (st->search_source != 2) {
        rc = file_lookup(st);
        if (rc == LDAP_NO_MEMORY) break;
        if (rc == 0) found = true;
        if (rc == 0 || st->search_source == 1) continue;
      }
      dns_needed = true;
      rc = dns_lookup(st, *ns);
      if (rc == LDAP_NO_MEMORY) {
        ldap_dns_close(st);
        return rc;
      }
      // A name server that cannot be asked (or not in time): the next one may.
      if (rc == LDAP_CONNECT_ERROR || rc == LDAP_LOCAL_ERROR) break;
      if (rc == 0) found = dns_ok = true;
    }
    ldap_dns_close(st);
    if (rc == LDAP_NO_MEMORY) return rc;
    if (found && (!dns_needed || dns_ok)) return 0;
    if (rc == LDAP_CONNECT_ERROR && call_deadline_passed()) break;
  }
  if (st->results != nullptr) return 0;
  return rc;
}

char *join_prefix(const char *key, const char *enet) {
  if (enet == nullptr || *enet == '\0') return olx_strdup(key);
  size_t len = strlen(key) + strlen(enet) + 2;
  char *s = static_cast<char *>(olx_malloc(len));
  if (s != nullptr) snprintf(s, len, "%s.%s", key, enet);
  return s;
}

}  // namespace

int ldap_dns_list_count(char **list) {
  int n = 0;
  while (list != nullptr && list[n] != nullptr) ++n;
  return n;
}

void ldap_dns_list_free(char **list) {
  if (list == nullptr) return;
  for (char **p = list; *p != nullptr; ++p) free(*p);
  free(list);
}

// Appends a copy of [s, s+len) to a null-terminated list.
int ldap_dns_list_add(char ***list, const char *s, size_t len) {
  int n = ldap_dns_list_count(*list);
  char **grown = static_cast<char **>(olx_realloc(*list, (size_t)(n + 2) * sizeof(char *)));
  if (grown == nullptr) return LDAP_NO_MEMORY;
  *list = grown;
  grown[n] = olx_strndup(s, len);
  grown[n + 1] = nullptr;
  return grown[n] == nullptr ? LDAP_NO_MEMORY : 0;
}

int ldap_dns_query_server(ldap_dns_state *st, const char *address, int transport) {
  int rc = 0;
  if (st->sock < 0) rc = ldap_dns_open(st, address, transport);
  if (rc != 0) return rc;
  ldap_server_free_list(st->found);
  st->found = nullptr;
  rc = ldap_dns_send_query(st, st->query_name, LDAP_DNS_TYPE_ANY);
  if (rc == 0) rc = ldap_dns_read_answer(st);
  const int types[] = {LDAP_DNS_TYPE_SRV, LDAP_DNS_TYPE_TXT, LDAP_DNS_TYPE_CNAME};
  for (int t = 0; rc == 0 && t < 3 && st->found == nullptr; ++t) rc = ldap_dns_parse_answers(st, nullptr, types[t]);
  if (rc == 0 && st->found == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: no LDAP servers found\n");
    rc = LDAP_DNS_SERVERS_FOUND;
  }
  for (LDAPServerInfo *s = st->found; rc == 0 && s != nullptr; s = s->next) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: requesting host information for %s\n", s->host);
    rc = ldap_dns_send_query(st, s->host, LDAP_DNS_TYPE_TXT);
    if (rc == 0) rc = ldap_dns_read_answer(st);
    if (rc == LDAP_DNS_INVALID_DATA) rc = kNegative;  // this server's attributes only
    if (rc == 0) rc = ldap_dns_parse_answers(st, s, LDAP_DNS_TYPE_TXT);
    if (rc == kNegative) rc = 0;
    if (rc == 0 && s->port == 0) s->port = 389;
  }
  if (rc != 0) {
    ldap_server_free_list(st->found);
    st->found = nullptr;
    return rc;
  }
  filter_suffix(&st->found, st->dn_filter);
  ldap_dns_order_servers(&st->found, order_seed());
  ldap_dns_append(&st->results, st->found);
  st->found = nullptr;
  return 0;
}

void ldap_dns_state_free(ldap_dns_state *st) {
  ldap_dns_close(st);
  ldap_server_free_list(st->found);
  ldap_server_free_list(st->results);
  ldap_server_free_list(st->conf_entries);
  ldap_dns_list_free(st->owned_domains);
  ldap_dns_list_free(st->owned_servers);
  free(st->service_prefix);
  free(st->query_name);
  free(st->packet);
  memset(st, 0, sizeof *st);
  st->sock = -1;
}

int ldap_server_locate(struct ldap_server_request *request, LDAPServerInfo **listp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_server_locate\n");
  if (listp == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_server_locate: server_info_listpp is NULL\n");
    return LDAP_PARAM_ERROR;
  }
  struct ldap_server_request builtin;
  memset(&builtin, 0, sizeof builtin);
  builtin.connection_timeout = 10;
  if (request == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_server_locate: server_request is NULL\n");
    request = &builtin;
  } else if (ldap_trace_on()) {
    char ns[512], dom[512];
    trace_list(ns, sizeof ns, request->name_servers);
    trace_list(dom, sizeof dom, request->dns_domains);
    ldap_log(LDAP_LOG_TRACE, "ldap_server_locate({%d, %s, x, %s, %s, %s, %s, %s, %d, %d, %s, x}, x)\n",
             request->search_source, ldap_trace_str(request->conf_filename, "NULL"),
             ldap_trace_str(request->service_key, "NULL"), ldap_trace_str(request->protocol, "NULL"),
             ldap_trace_str(request->enetwork_domain, "NULL"), ns, dom, request->connection_type,
             request->connection_timeout, ldap_trace_str(request->dn_filter, "NULL"));
  }
  *listp = nullptr;
  ldap_dns_state st;
  memset(&st, 0, sizeof st);
  st.sock = -1;
  st.connection_type = request->connection_type;
  st.connection_timeout = request->connection_timeout;
  st.search_source = request->search_source;
  st.dns_domains = request->dns_domains;
  st.name_servers = request->name_servers;
  st.dn_filter = request->dn_filter;
  int rc = 0;
  static char dummy_server[] = "dummyServer";
  char *dummy_list[] = {dummy_server, nullptr};
  if (st.search_source != 2) {
    rc = ldap_conf_read_servers(request->conf_filename ? request->conf_filename : LDAP_SERVER_INFO_FILE,
                                &st.conf_entries);
    if (rc != 0 && rc != LDAP_NO_MEMORY && st.search_source != 1) rc = 0;
    if (rc != LDAP_NO_MEMORY && st.search_source == 1 && st.conf_entries == nullptr)
      LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: no LDAP servers found in configuration file\n");
    if (rc == LDAP_NO_MEMORY || (st.search_source == 1 && st.conf_entries == nullptr)) goto finish;
  }
  {
    bool have_domains = ldap_dns_list_count(st.dns_domains) > 0;
    bool ready = st.search_source == 1 ? have_domains : have_domains && ldap_dns_list_count(st.name_servers) > 0;
    if (!ready) {
      rc = ldap_dns_get_config(&st);
      if (rc != 0) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: could not resolve system domain name(s) or name server list\n");
        goto finish;
      }
    }
    if (st.search_source == 1) st.name_servers = dummy_list;
    const char *key = request->service_key, *proto = request->protocol;
    const char *pairs[2][2] = {{key ? key : "ldap", proto ? proto : "tcp"},
                               {key ? key : "_ldap", proto ? proto : "_tcp"}};
    int npairs = key != nullptr && proto != nullptr ? 1 : 2;
    for (int i = 0; i < npairs; ++i) {
      free(st.service_prefix);
      st.service_prefix = join_prefix(pairs[i][0], request->enetwork_domain);
      if (st.service_prefix == nullptr) {
        rc = LDAP_NO_MEMORY;
        break;
      }
      st.protocol = pairs[i][1];
      rc = search_service(&st);
      if (rc == 0 || rc == LDAP_NO_MEMORY || (rc == LDAP_CONNECT_ERROR && call_deadline_passed())) break;
    }
  }
finish:
  if (rc == kNegative) rc = 0;
  if (rc == 0) {
    if (st.results == nullptr)
      rc = LDAP_DNS_SERVERS_FOUND;
    else if (st.truncated_count > 0)
      rc = LDAP_DNS_TRUNCATED;
    if (st.results != nullptr) {
      *listp = st.results;
      st.results = nullptr;
    }
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_server_locate: *server_info_listpp = %p\n", (void *)*listp);
  ldap_dns_state_free(&st);
  return rc;
}

char *auto_server_locate(struct ldap_server_request *request, int secure) {
  LDAPServerInfo *list = nullptr;
  int rc = ldap_server_locate(request, &list);
  if ((rc != 0 && rc != LDAP_DNS_TRUNCATED) || list == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - auto_server_locate: ldap_server_locate rc=%d\n", rc);
    ldap_server_free_list(list);
    return nullptr;
  }
  size_t size = 1;
  for (LDAPServerInfo *s = list; s != nullptr; s = s->next) size += strlen(s->host) + 8;
  char *hosts = static_cast<char *>(olx_malloc(size));
  if (hosts != nullptr) {
    size_t used = 0;
    hosts[0] = '\0';
    for (LDAPServerInfo *s = list; s != nullptr; s = s->next) {
      if ((secure && s->sec_flag == 1) || (!secure && s->sec_flag == 2)) continue;
      const char *sep = used > 0 ? " " : "";
      if (s->port != 0)
        used += (size_t)snprintf(hosts + used, size - used, "%s%s%c%d", sep, s->host, ':', s->port);
      else
        used += (size_t)snprintf(hosts + used, size - used, "%s%s", sep, s->host);
    }
    LDAP_LOG(LDAP_LOG_TRACE, "auto_server_locate: hosts list=%s\n", hosts);
  }
  ldap_server_free_list(list);
  return hosts;
}
