// Server location through DNS: the library's own small DNS client (no
// resolver library), the search over service names, domains and name servers,
// and the host list ldap_init gets for a URL without a host.
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
// Compression pointers one name may follow, and the longest name accepted:
// enough for any real message, and a loop ends here instead of spinning.
constexpr int kMaxPointers = 64;
constexpr size_t kMaxName = 1024;

int list_count(char **list) {
  int n = 0;
  while (list != nullptr && list[n] != nullptr) ++n;
  return n;
}

void free_list(char **list) {
  if (list == nullptr) return;
  for (char **p = list; *p != nullptr; ++p) free(*p);
  free(list);
}

// Appends a copy of [s, s+len) to a null-terminated list.
int list_add(char ***list, const char *s, size_t len) {
  int n = list_count(*list);
  char **grown = static_cast<char **>(olx_realloc(*list, (size_t)(n + 2) * sizeof(char *)));
  if (grown == nullptr) return LDAP_NO_MEMORY;
  *list = grown;
  grown[n] = olx_strndup(s, len);
  grown[n + 1] = nullptr;
  return grown[n] == nullptr ? LDAP_NO_MEMORY : 0;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

uint16_t get16(const unsigned char *p) { return (uint16_t)((p[0] << 8) | p[1]); }

// Reads a domain name at *pos of the message, following compression
// pointers; *pos moves behind the name as it stands at *pos.
int read_name(const ldap_dns_state *st, size_t *pos, char **out) {
  size_t cap = 64, len = 0, p = *pos;
  bool jumped = false;
  int jumps = 0;
  char *name = static_cast<char *>(olx_malloc(cap));
  if (name == nullptr) return LDAP_NO_MEMORY;
  name[0] = '\0';
  for (;;) {
    if (p >= st->packet_len) break;
    unsigned int n = st->packet[p];
    if (n == 0) {
      if (!jumped) *pos = p + 1;
      *out = name;
      return 0;
    }
    if (n > 63) {
      if (p + 1 >= st->packet_len || ++jumps > kMaxPointers) break;
      size_t target = (size_t)(n & 63) * 256 + st->packet[p + 1];
      if (!jumped) *pos = p + 2;
      jumped = true;
      p = target;
      continue;
    }
    if (p + 1 + n > st->packet_len || len + n + 2 > kMaxName) break;
    if (len + n + 2 > cap) {
      size_t want = len + n + 2 + 32;
      char *grown = static_cast<char *>(olx_realloc(name, want));
      if (grown == nullptr) {
        free(name);
        return LDAP_NO_MEMORY;
      }
      name = grown;
      cap = want;
    }
    if (len > 0) name[len++] = '.';
    memcpy(name + len, st->packet + p + 1, n);
    len += n;
    name[len] = '\0';
    p += 1 + n;
  }
  free(name);
  return LDAP_DNS_INVALID_DATA;
}

// A name inside a record: read against the whole message (it may point back
// into it), but it must end inside the record, which ends at `end`.
int read_record_name(const ldap_dns_state *st, size_t at, size_t end, char **out) {
  const int rc = read_name(st, &at, out);
  if (rc != 0) return rc;
  if (at > end) {
    free(*out);
    *out = nullptr;
    return LDAP_DNS_INVALID_DATA;
  }
  return 0;
}

LDAPServerInfo *new_server(const ldap_dns_state *st, char *host) {
  LDAPServerInfo *s = static_cast<LDAPServerInfo *>(olx_calloc(1, sizeof(LDAPServerInfo)));
  if (s == nullptr) return nullptr;
  s->host = host;
  s->domain = olx_strdup(st->current_domain != nullptr ? st->current_domain : "");
  s->service = olx_strdup(st->service_prefix != nullptr ? st->service_prefix : "");
  if (s->domain == nullptr || s->service == nullptr) {
    s->host = nullptr;  // the caller still owns it
    ldap_server_info_free(s);
    return nullptr;
  }
  return s;
}

// The character-strings of a TXT record's data [p, end).
int txt_strings(const unsigned char *p, const unsigned char *end, char ***out) {
  *out = nullptr;
  while (p < end) {
    size_t n = *p++;
    if (n > (size_t)(end - p)) {
      free_list(*out);
      *out = nullptr;
      return LDAP_DNS_INVALID_DATA;
    }
    if (list_add(out, reinterpret_cast<const char *>(p), n) != 0) {
      free_list(*out);
      *out = nullptr;
      return LDAP_NO_MEMORY;
    }
    p += n;
  }
  return 0;
}

bool parse_u16(const char *s, unsigned short *v) {
  if (*s == '\0') return false;
  unsigned long n = 0;
  for (; *s != '\0'; ++s) {
    if (*s < '0' || *s > '9') return false;
    n = n * 10 + (unsigned long)(*s - '0');
    if (n > 65535) return false;
  }
  *v = (unsigned short)n;
  return true;
}

// A server described as text: "prio weight port host" in one string, or the
// four in separate strings.  Null result with rc 0: no server in it.
int txt_server(const ldap_dns_state *st, char **strings, LDAPServerInfo **out) {
  *out = nullptr;
  char *words[4] = {};
  char **split = nullptr;
  int n = list_count(strings);
  if (n == 1) {
    for (const char *p = strings[0]; *p != '\0';) {
      while (is_blank(*p)) ++p;
      const char *b = p;
      while (*p != '\0' && !is_blank(*p)) ++p;
      if (p > b && list_add(&split, b, (size_t)(p - b)) != 0) {
        free_list(split);
        return LDAP_NO_MEMORY;
      }
    }
    if (list_count(split) < 4) {
      free_list(split);
      return 0;
    }
    for (int i = 0; i < 4; ++i) words[i] = split[i];
  } else {
    if (n < 4) return 0;
    for (int i = 0; i < 4; ++i) words[i] = strings[i];
  }
  unsigned short prio, weight, port;
  int rc = 0;
  const char *host = words[3];
  size_t hl = strlen(host);
  if (parse_u16(words[0], &prio) && parse_u16(words[1], &weight) && parse_u16(words[2], &port) && hl > 0) {
    char *full = nullptr;
    if (host[hl - 1] == '.') {
      full = olx_strndup(host, hl - 1);
    } else {
      const char *dom = st->current_domain != nullptr ? st->current_domain : "";
      full = static_cast<char *>(olx_malloc(hl + strlen(dom) + 2));
      if (full != nullptr) snprintf(full, hl + strlen(dom) + 2, "%s.%s", host, dom);
    }
    LDAPServerInfo *s = full != nullptr ? new_server(st, full) : nullptr;
    if (s == nullptr) {
      if (full != nullptr) free(full);
      rc = LDAP_NO_MEMORY;
    } else {
      s->priority = prio;
      s->weight = weight;
      s->port = port;
      LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: TXT record found: %d %d %d %s\n", prio, weight, port, s->host);
      *out = s;
    }
  }
  free_list(split);
  return rc;
}

// A "service:" URL applied to a server.
int apply_service_url(LDAPServerInfo *s, const char *url) {
  const char *p = url;
  int sec;
  unsigned short port;
  if (strncasecmp(p, "ldap://", 7) == 0) {
    sec = 1, port = 389, p += 7;
  } else if (strncasecmp(p, "ldaps://", 8) == 0) {
    sec = 2, port = 636, p += 8;
  } else {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Invalid URL line: %s\n", url);
    return LDAP_URL_ERR_NOTLDAP;
  }
  const char *hb = p;
  while (*p != '\0' && *p != ':' && *p != '/') ++p;
  const char *he = p;
  bool bad = he == hb;
  if (!bad && *p == ':') {
    const char *pb = ++p;
    unsigned long v = 0;
    while (*p >= '0' && *p <= '9' && v <= 65535) v = v * 10 + (unsigned long)(*p++ - '0');
    bad = p == pb || v > 65535 || (*p != '\0' && *p != '/');
    port = (unsigned short)v;
  }
  const char *sb = nullptr, *se = nullptr;
  if (!bad && *p == '/') {
    sb = ++p;
    while (*p != '\0' && *p != '?') ++p;
    se = p;
    bad = se == sb;
  }
  if (bad) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Invalid URL line: %s\n", url);
    return LDAP_URL_ERR_NOTLDAP;
  }
  char *host = olx_strndup(hb, (size_t)(he - hb));
  char *suffix = sb != nullptr ? olx_strndup(sb, (size_t)(se - sb)) : nullptr;
  if (host == nullptr || (sb != nullptr && suffix == nullptr)) {
    free(host);
    free(suffix);
    return LDAP_NO_MEMORY;
  }
  s->sec_flag = sec;
  free(s->host);
  s->host = host;
  if (s->port == 0) s->port = port;
  free(s->suffix);
  s->suffix = suffix;
  return 0;
}

// Host attributes from the character-strings of one TXT record.
int host_attributes(LDAPServerInfo *s, char **strings) {
  for (char **it = strings; it != nullptr && *it != nullptr; ++it) {
    char *colon = strchr(*it, ':');
    if (colon == nullptr) continue;
    *colon = '\0';
    const char *key = *it, *value = colon + 1;
    while (is_blank(*value)) ++value;
    int rc = 0;
    if (strcmp(key, "service") == 0) {
      rc = apply_service_url(s, value);
    } else if (strcmp(key, "ldaptype") == 0) {
      if (strcasecmp(value, "master") == 0) s->replica = 1;
      if (strcmp(value, "replica") == 0) s->replica = 2;
    } else if ((strcmp(key, "ldapvendor") == 0 || strcmp(key, "ldapinfo") == 0) && *value != '\0') {
      char **field = key[4] == 'v' ? &s->vendor : &s->info;
      char *copy = olx_strdup(value);
      if (copy == nullptr) return LDAP_NO_MEMORY;
      free(*field);
      *field = copy;
    }
    if (rc == LDAP_NO_MEMORY) return rc;
  }
  return 0;
}

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

// The deadline of one step (connecting, sending a query, reading its
// answer): the request's time-out from now, cut to the call's deadline.
// Computed once per step; whatever the step retries only uses what is left.
int64_t step_deadline(const ldap_dns_state *st) {
  if (st->connection_timeout <= 0) return ldap_call_deadline();
  const struct timeval tv = {st->connection_timeout, 0};
  return ldap_deadline_within_call(&tv);
}

// Waits for `events` on the socket; false once `deadline` has passed, even
// while a peer keeps the socket busy.
bool wait_ready(int sock, short events, int64_t deadline) {
  struct pollfd p = {sock, events, 0};
  for (;;) {
    const int ms = ldap_deadline_left_ms(deadline);
    if (ms == 0) return false;
    const int n = poll(&p, 1, ms);
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

bool same_address(const sockaddr_storage *a, const sockaddr_storage *b) {
  if (a->ss_family != b->ss_family) return false;
  if (a->ss_family == AF_INET) {
    auto x = reinterpret_cast<const sockaddr_in *>(a), y = reinterpret_cast<const sockaddr_in *>(b);
    return x->sin_port == y->sin_port && x->sin_addr.s_addr == y->sin_addr.s_addr;
  }
  auto x = reinterpret_cast<const sockaddr_in6 *>(a), y = reinterpret_cast<const sockaddr_in6 *>(b);
  return x->sin6_port == y->sin6_port && memcmp(&x->sin6_addr, &y->sin6_addr, sizeof x->sin6_addr) == 0;
}

// Exactly `len` bytes from the (non-blocking) TCP socket by `deadline`: a
// server sending a byte at a time does not get a fresh wait per byte.
bool recv_all(const ldap_dns_state *st, unsigned char *buf, size_t len, int64_t deadline) {
  size_t got = 0;
  while (got < len) {
    ssize_t n = recv(st->sock, buf + got, len - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (wait_ready(st->sock, POLLIN, deadline)) continue;
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has timed out\n");
      return false;
    }
    if (n <= 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: error receiving response: rc = %d\n", n < 0 ? errno : 0);
      return false;
    }
    got += (size_t)n;
  }
  return true;
}

// The whole of [buf, buf+len) to the name server by `deadline` (a datagram
// goes whole or not at all).
bool send_all(const ldap_dns_state *st, const unsigned char *buf, size_t len, int64_t deadline) {
  size_t sent = 0;
  while (sent < len) {
    ssize_t n = st->transport == LDAP_DNS_TRANSPORT_UDP
                    ? sendto(st->sock, buf, len, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&st->server_addr),
                             st->server_addr_len)
                    : send(st->sock, buf + sent, len - sent, MSG_NOSIGNAL);
    if (n >= 0) {
      sent += (size_t)n;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: unable to send query: rc = %d\n", errno);
      return false;
    }
    if (!wait_ready(st->sock, POLLOUT, deadline)) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has timed out\n");
      return false;
    }
  }
  return true;
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

// The next word of a resolv.conf line from *p, or null at its end.  Blanks
// (a carriage return too, for files written elsewhere) separate words, and
// '#' or ';' begins a comment wherever it stands.
const char *conf_word(const char **p, size_t *len) {
  const char *s = *p;
  while (*s == ' ' || *s == '\t' || *s == '\r' || *s == '\n') ++s;
  const char *b = s;
  while (*s != '\0' && strchr(" \t\r\n#;", *s) == nullptr) ++s;
  *p = s;
  *len = (size_t)(s - b);
  return s > b ? b : nullptr;
}

bool conf_keyword(const char *word, size_t len, const char *keyword) {
  return len == strlen(keyword) && memcmp(word, keyword, len) == 0;
}

// A name server ldap_dns_open would take: a numeric address.
bool numeric_address(const char *word, size_t len) {
  char addr[INET6_ADDRSTRLEN + IF_NAMESIZE + 2];
  if (len >= sizeof addr) return false;
  memcpy(addr, word, len);
  addr[len] = '\0';
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = AI_NUMERICHOST;
  struct addrinfo *res = nullptr;
  if (getaddrinfo(addr, nullptr, &hints, &res) != 0) return false;
  freeaddrinfo(res);
  return true;
}

char *join_prefix(const char *key, const char *enet) {
  if (enet == nullptr || *enet == '\0') return olx_strdup(key);
  size_t len = strlen(key) + strlen(enet) + 2;
  char *s = static_cast<char *>(olx_malloc(len));
  if (s != nullptr) snprintf(s, len, "%s.%s", key, enet);
  return s;
}

}  // namespace

extern "C" {

int ldap_dns_read_resolv_conf(ldap_dns_state *st, const char *path, int need_servers) {
  FILE *f = fopen(path, "r");
  if (f == nullptr) {
    if (!need_servers) return 0;
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Can't open /etc/resolv.conf: rc = %d\n", errno);
    return LDAP_DNS_RESOLVE_ERROR;
  }
  // Read as the resolver reads it: a line the reader does not understand (an
  // unknown keyword, a keyword without a value, a name server that is not a
  // numeric address, a line too long for the buffer) is skipped, never fatal.
  bool want_domains = list_count(st->dns_domains) == 0;
  char **domains = nullptr;
  int rc = 0;
  char line[256];
  bool in_long_line = false;
  while (rc == 0 && fgets(line, sizeof line, f) != nullptr) {
    const size_t len = strlen(line);
    const bool at_end = (len > 0 && line[len - 1] == '\n') || feof(f);
    const bool whole = !in_long_line && at_end;
    in_long_line = !at_end;
    const char *p = line;
    size_t n;
    const char *key = whole ? conf_word(&p, &n) : nullptr;
    if (key == nullptr) continue;
    if (need_servers && conf_keyword(key, n, "nameserver")) {
      const char *v = conf_word(&p, &n);
      if (v != nullptr && numeric_address(v, n)) rc = list_add(&st->owned_servers, v, n);
    } else if (want_domains && (conf_keyword(key, n, "domain") || conf_keyword(key, n, "search"))) {
      // The last "domain" or "search" line wins; "domain" takes one word.
      const bool search = *key == 's';
      char **words = nullptr;
      for (const char *v; rc == 0 && (v = conf_word(&p, &n)) != nullptr && (search || words == nullptr);)
        rc = list_add(&words, v, n);
      if (rc == 0 && words != nullptr) {
        free_list(domains);
        domains = words;
      } else {
        free_list(words);
      }
    }
  }
  fclose(f);
  if (rc != 0) {
    free_list(domains);
    return rc;
  }
  if (domains != nullptr) {
    free_list(st->owned_domains);
    st->owned_domains = st->dns_domains = domains;
  }
  if (need_servers) {
    st->name_servers = st->owned_servers;
    if (list_count(st->name_servers) == 0) return LDAP_DNS_RESOLVE_ERROR;
  }
  return 0;
}

int ldap_dns_get_config(ldap_dns_state *st) {
  bool need_servers = st->search_source != 1 && list_count(st->name_servers) == 0;
  if (list_count(st->dns_domains) == 0 && ldap_chkenv("LOCALDOMAIN")) {
    char *value = ldap_getenv("LOCALDOMAIN");
    if (value == nullptr) return LDAP_NO_MEMORY;
    int rc = *value != '\0' ? list_add(&st->owned_domains, value, strlen(value)) : 0;
    free(value);
    if (rc != 0) return rc;
    if (st->owned_domains != nullptr) st->dns_domains = st->owned_domains;
  }
  if (need_servers || list_count(st->dns_domains) == 0) {
    int rc = ldap_dns_read_resolv_conf(st, "/etc/resolv.conf", need_servers);
    if (rc != 0) return rc;
  }
  if (list_count(st->dns_domains) == 0) {
    char host[257] = {};
    if (gethostname(host, sizeof host - 1) != 0) return LDAP_DNS_RESOLVE_ERROR;
    const char *dot = strchr(host, '.');
    if (dot == nullptr || dot[1] == '\0') return LDAP_DNS_RESOLVE_ERROR;
    int rc = list_add(&st->owned_domains, dot + 1, strlen(dot + 1));
    if (rc != 0) return rc;
    st->dns_domains = st->owned_domains;
  }
  return 0;
}

int ldap_dns_open(ldap_dns_state *st, const char *address, int transport) {
  st->transport = transport;
  LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: connecting to %s using %s\n", address,
           transport == LDAP_DNS_TRANSPORT_TCP ? "TCP" : "UDP");
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_socktype = transport == LDAP_DNS_TRANSPORT_TCP ? SOCK_STREAM : SOCK_DGRAM;
  // Name servers are given as numeric addresses: never resolve a name here.
  hints.ai_flags = AI_NUMERICHOST;
  struct addrinfo *res = nullptr;
  int gai = getaddrinfo(address, nullptr, &hints, &res);
  if (gai != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't open socket: rc = %d\n", gai);
    return LDAP_LOCAL_ERROR;
  }
  struct addrinfo *ai = res;
  while (ai != nullptr && ai->ai_family != AF_INET && ai->ai_family != AF_INET6) ai = ai->ai_next;
  if (ai == nullptr) {
    freeaddrinfo(res);
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: no PF_INET or PF_INET6 addr configured\n");
    return LDAP_LOCAL_ERROR;
  }
  memcpy(&st->server_addr, ai->ai_addr, ai->ai_addrlen);
  st->server_addr_len = ai->ai_addrlen;
  int family = ai->ai_family;
  freeaddrinfo(res);
  if (family == AF_INET)
    reinterpret_cast<sockaddr_in *>(&st->server_addr)->sin_port = htons(53);
  else
    reinterpret_cast<sockaddr_in6 *>(&st->server_addr)->sin6_port = htons(53);
  // Non-blocking: every wait is a poll bounded by the step's deadline.
  st->sock = socket(family, (transport == LDAP_DNS_TRANSPORT_TCP ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK, 0);
  if (st->sock < 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't open socket: rc = %d\n", errno);
    st->sock = -1;
    return LDAP_LOCAL_ERROR;
  }
  if (transport == LDAP_DNS_TRANSPORT_UDP) {
    struct sockaddr_storage any;
    memset(&any, 0, sizeof any);
    any.ss_family = (sa_family_t)family;
    socklen_t len = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (bind(st->sock, reinterpret_cast<sockaddr *>(&any), len) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't bind socket: rc = %d\n", errno);
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
    return 0;
  }
  if (connect(st->sock, reinterpret_cast<sockaddr *>(&st->server_addr), st->server_addr_len) != 0) {
    if (errno != EINPROGRESS) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't connect to server: rc = %d\n", errno);
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
    if (!wait_ready(st->sock, POLLOUT, step_deadline(st))) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has time out\n");
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
    struct sockaddr_storage peer;
    socklen_t plen = sizeof peer;
    if (getpeername(st->sock, reinterpret_cast<sockaddr *>(&peer), &plen) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't get peer name: rc = %d\n", errno);
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
  }
  return 0;
}

int ldap_dns_close(ldap_dns_state *st) {
  if (st->sock >= 0) close(st->sock);
  st->sock = -1;
  return 0;
}

int ldap_dns_send_query(ldap_dns_state *st, const char *name, int type) {
  if (type != LDAP_DNS_TYPE_ANY && type != LDAP_DNS_TYPE_TXT) return LDAP_DNS_INVALID_DATA;
  // Room for TCP's length prefix in front: prefix and message go out in one
  // send, since two small sends meet Nagle's algorithm and the peer's delayed
  // acknowledgement (some 40 ms per query).
  size_t size = strlen(name) + 18;
  unsigned char *frame = static_cast<unsigned char *>(olx_malloc(size + 2));
  if (frame == nullptr) return LDAP_NO_MEMORY;
  unsigned char *buf = frame + 2;
  uint16_t id = st->next_id++;
  const unsigned char header[12] = {(unsigned char)(id >> 8), (unsigned char)id, 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
  memcpy(buf, header, 12);
  size_t pos = 12;
  bool overflow = false;
  for (const char *p = name; *p != '\0' && !overflow;) {
    const char *dot = strchr(p, '.');
    size_t n = dot != nullptr ? (size_t)(dot - p) : strlen(p);
    if (n == 0 || n > 63 || pos + 1 + n > size - 5) {
      overflow = true;
      break;
    }
    buf[pos++] = (unsigned char)n;
    memcpy(buf + pos, p, n);
    pos += n;
    p += n + (dot != nullptr ? 1 : 0);
  }
  if (overflow) {
    free(frame);
    return LDAP_DNS_INVALID_DATA;
  }
  const unsigned char tail[5] = {0, 0, (unsigned char)type, 0, 1};
  memcpy(buf + pos, tail, 5);
  pos += 5;
  frame[0] = (unsigned char)(pos >> 8);
  frame[1] = (unsigned char)pos;
  const bool ok = st->transport == LDAP_DNS_TRANSPORT_UDP ? send_all(st, buf, pos, step_deadline(st))
                                                          : send_all(st, frame, pos + 2, step_deadline(st));
  free(frame);
  return ok ? 0 : LDAP_CONNECT_ERROR;
}

int ldap_dns_check_answer(ldap_dns_state *st, uint16_t expected_id) {
  const unsigned char *m = st->packet;
  if (st->packet_len < 12) return LDAP_DNS_INVALID_DATA;
  if (get16(m) != expected_id) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: Oops, wrong packet\n");
    return 1;  // not ours: read the next message
  }
  uint16_t flags = get16(m + 2);
  st->rcode = flags & 0xf;
  if (st->rcode != 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: DNS response code = %d\n", st->rcode);
    return kNegative;
  }
  if (flags & 0x0200) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: message has been truncated\n");
    if (st->connection_type == 0) return LDAP_DNS_TRUNCATED;
    st->truncated_count++;
  }
  int qdcount = get16(m + 4);
  st->answer_count = get16(m + 6);
  size_t pos = 12;
  for (int i = 0; i < qdcount; ++i) {
    char *name = nullptr;
    int rc = read_name(st, &pos, &name);
    if (rc != 0) return rc;
    free(name);
    if (pos + 4 > st->packet_len) return LDAP_DNS_INVALID_DATA;
    pos += 4;
  }
  st->answers_pos = st->pos = pos;
  return 0;
}

int ldap_dns_read_answer(ldap_dns_state *st) {
  uint16_t expected = (uint16_t)(st->next_id - 1);
  // One deadline for the answer: messages that are not it (wrong ID, wrong
  // source) are dropped and the wait goes on with what is left.
  const int64_t deadline = step_deadline(st);
  for (;;) {
    free(st->packet);
    st->packet = nullptr;
    st->packet_len = 0;
    size_t size = LDAP_DNS_UDP_SIZE;
    unsigned char len[2];
    if (st->transport == LDAP_DNS_TRANSPORT_TCP) size = recv_all(st, len, 2, deadline) ? get16(len) : 0;
    if (size == 0) return LDAP_CONNECT_ERROR;
    st->packet = static_cast<unsigned char *>(olx_malloc(size));
    if (st->packet == nullptr) return LDAP_NO_MEMORY;
    if (st->transport == LDAP_DNS_TRANSPORT_TCP) {
      if (!recv_all(st, st->packet, size, deadline)) return LDAP_CONNECT_ERROR;
      st->packet_len = size;
    } else {
      if (!wait_ready(st->sock, POLLIN, deadline)) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has timed out\n");
        return LDAP_CONNECT_ERROR;
      }
      ssize_t n;
      struct sockaddr_storage from;
      socklen_t from_len;
      do {
        from_len = sizeof from;
        n = recvfrom(st->sock, st->packet, size, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
      } while (n < 0 && errno == EINTR);
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;  // readable, then not (a bad checksum)
      if (n < 0) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: error receiving response: rc = %d\n", errno);
        return LDAP_CONNECT_ERROR;
      }
      // Only the name server may answer: a datagram from elsewhere is
      // dropped like one with a wrong ID.
      if (!same_address(&from, &st->server_addr)) {
        LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: Oops, wrong packet\n");
        continue;
      }
      st->packet_len = (size_t)n;
    }
    int rc = ldap_dns_check_answer(st, expected);
    if (rc != 1) return rc;
  }
}

namespace {

int parse_records(ldap_dns_state *st, LDAPServerInfo *server, int type) {
  size_t pos = st->answers_pos;
  const unsigned char *m = st->packet;
  for (int i = 0; i < st->answer_count; ++i) {
    char *owner = nullptr;
    int rc = read_name(st, &pos, &owner);
    if (rc != 0) return rc;
    free(owner);
    if (pos + 10 > st->packet_len) return LDAP_DNS_INVALID_DATA;
    int rtype = get16(m + pos);
    size_t rdlen = get16(m + pos + 8);
    pos += 10;
    if (rdlen > st->packet_len - pos) return LDAP_DNS_INVALID_DATA;
    size_t rdata = pos;
    pos += rdlen;
    if (rtype != type) continue;
    // Names inside the record are read against the whole message (they may
    // point back into it) but must start inside the record.
    if (type == LDAP_DNS_TYPE_SRV) {
      if (rdlen < 7) return LDAP_DNS_INVALID_DATA;
      char *target = nullptr;
      rc = read_record_name(st, rdata + 6, pos, &target);
      if (rc != 0) return rc;
      if (*target == '\0') {  // "." means no service at this name
        free(target);
        continue;
      }
      LDAPServerInfo *s = new_server(st, target);
      if (s == nullptr) {
        free(target);
        return LDAP_NO_MEMORY;
      }
      s->priority = get16(m + rdata);
      s->weight = get16(m + rdata + 2);
      s->port = get16(m + rdata + 4);
      LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: SRV record found: %d %d %d %s\n", s->priority, s->weight, s->port, s->host);
      ldap_dns_insert_by_priority(&st->found, s);
    } else if (type == LDAP_DNS_TYPE_CNAME) {
      char *target = nullptr;
      rc = read_record_name(st, rdata, pos, &target);
      if (rc != 0) return rc;
      LDAPServerInfo *s = new_server(st, target);
      if (s == nullptr) {
        free(target);
        return LDAP_NO_MEMORY;
      }
      LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: CNAME record found: %d %d %d %s\n", 0, 0, 0, s->host);
      ldap_dns_insert_by_priority(&st->found, s);
    } else if (type == LDAP_DNS_TYPE_TXT) {
      char **strings = nullptr;
      rc = txt_strings(m + rdata, m + pos, &strings);
      if (rc == 0 && server == nullptr) {
        LDAPServerInfo *s = nullptr;
        rc = txt_server(st, strings, &s);
        if (s != nullptr) ldap_dns_insert_by_priority(&st->found, s);
      } else if (rc == 0) {
        rc = host_attributes(server, strings);
      }
      free_list(strings);
      if (rc == LDAP_NO_MEMORY || (rc != 0 && server == nullptr)) return rc;
    }
  }
  return 0;
}

}  // namespace

int ldap_dns_parse_answers(ldap_dns_state *st, LDAPServerInfo *server, int type) {
  if (server == nullptr) return parse_records(st, nullptr, type);
  // Host attributes go to a copy first: a malformed answer costs this server
  // its attributes, all or none, and never the servers already located.
  LDAPServerInfo *copy = ldap_server_info_dup(server);
  if (copy == nullptr) return LDAP_NO_MEMORY;
  int rc = parse_records(st, copy, type);
  if (rc == 0) {
    LDAPServerInfo *prev = server->prev, *next = server->next;
    std::swap(*server, *copy);
    server->prev = prev;
    server->next = next;
  } else if (rc == LDAP_DNS_INVALID_DATA) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: invalid host information for %s\n", server->host);
    rc = 0;
  }
  copy->prev = copy->next = nullptr;
  ldap_server_info_free(copy);
  return rc;
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
  free_list(st->owned_domains);
  free_list(st->owned_servers);
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
    bool have_domains = list_count(st.dns_domains) > 0;
    bool ready = st.search_source == 1 ? have_domains : have_domains && list_count(st.name_servers) > 0;
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

}  // extern "C"
