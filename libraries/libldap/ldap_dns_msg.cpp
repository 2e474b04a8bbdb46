// DNS messages: the answer's header, names with compression, and the
// records that describe LDAP servers (SRV, TXT, CNAME) read into server
// records.  Everything here reads outside input and checks every length.
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

bool is_blank(char c) { return c == ' ' || c == '\t'; }

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
      ldap_dns_list_free(*out);
      *out = nullptr;
      return LDAP_DNS_INVALID_DATA;
    }
    if (ldap_dns_list_add(out, reinterpret_cast<const char *>(p), n) != 0) {
      ldap_dns_list_free(*out);
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
  int n = ldap_dns_list_count(strings);
  if (n == 1) {
    for (const char *p = strings[0]; *p != '\0';) {
      while (is_blank(*p)) ++p;
      const char *b = p;
      while (*p != '\0' && !is_blank(*p)) ++p;
      if (p > b && ldap_dns_list_add(&split, b, (size_t)(p - b)) != 0) {
        ldap_dns_list_free(split);
        return LDAP_NO_MEMORY;
      }
    }
    if (ldap_dns_list_count(split) < 4) {
      ldap_dns_list_free(split);
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
  ldap_dns_list_free(split);
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

int parse_records(ldap_dns_state *st, LDAPServerInfo *server, int type) {
  size_t pos = st->answers_pos;
  const unsigned char *m = st->packet;
  for (int i = 0; i < st->answer_count; ++i) {
    char *owner = nullptr;
    int rc = read_name(st, &pos, &owner);
    if (rc != 0) return rc;
    free(owner);
    if (pos + 10 > st->packet_len) return LDAP_DNS_INVALID_DATA;
    int rtype = ldap_dns_get16(m + pos);
    size_t rdlen = ldap_dns_get16(m + pos + 8);
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
      s->priority = ldap_dns_get16(m + rdata);
      s->weight = ldap_dns_get16(m + rdata + 2);
      s->port = ldap_dns_get16(m + rdata + 4);
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
      ldap_dns_list_free(strings);
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

extern "C" {

int ldap_dns_check_answer(ldap_dns_state *st, uint16_t expected_id) {
  const unsigned char *m = st->packet;
  if (st->packet_len < 12) return LDAP_DNS_INVALID_DATA;
  if (ldap_dns_get16(m) != expected_id) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: Oops, wrong packet\n");
    return 1;  // not ours: read the next message
  }
  uint16_t flags = ldap_dns_get16(m + 2);
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
  int qdcount = ldap_dns_get16(m + 4);
  st->answer_count = ldap_dns_get16(m + 6);
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

}  // extern "C"
